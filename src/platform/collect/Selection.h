// Which files a collection takes: what lies below a folder (never through a
// link, never a special file), the stale archives, and the newest files
// within a byte budget.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/env/FileSystemEnv.h"

namespace zep::collect {

struct ListedEntry {
    std::vector<std::wstring> path;  // names below the listed folder
    std::uint64_t size = 0;
    std::int64_t modifiedNs = 0;
};

struct Listing {
    std::vector<ListedEntry> folders;  // parents before children
    std::vector<ListedEntry> files;    // regular files only
};

// What lies below `folder` (or directly in it). Links, FIFOs, sockets and
// devices are left out; a folder that cannot be read is left out with
// everything below it.
Listing ListTree(platform::Folder& folder, bool recursive);

// The folder `names` below `top`, never through a link; made where missing
// with `create`; `top` itself for no names.
std::shared_ptr<platform::Folder> OpenBelow(const std::shared_ptr<platform::Folder>& top,
                                            const std::vector<std::wstring>& names, bool create,
                                            platform::FsStatus* status = nullptr);

// Names ending in ".zip" in any letter case.
bool IsArchiveName(std::wstring_view name);

// The name in an archive of a path below the packed folder: its names joined
// by '/', as bytes (UTF-8 where the system's names are text); a folder's ends
// with '/'. Files of equal times are also kept in this order.
std::string ArchiveName(const std::vector<std::wstring>& path, bool folder = false);

// Which of `files` are the newest (last write; ties by path) that fit
// `limitBytes`: the file at which the running total passes the limit is
// out, and so is every older one, even one small enough to fit. The files
// keep their order (a walk's, close to the archive's).
template <typename File>
std::vector<bool> NewestWithin(const std::vector<File>& files, std::uint64_t limitBytes);

}  // namespace zep::collect

#include <algorithm>
#include <numeric>

namespace zep::collect {

template <typename File>
std::vector<bool> NewestWithin(const std::vector<File>& files, std::uint64_t limitBytes) {
    std::vector<std::size_t> newestFirst(files.size());
    std::iota(newestFirst.begin(), newestFirst.end(), std::size_t{0});
    std::sort(newestFirst.begin(), newestFirst.end(), [&files](std::size_t a, std::size_t b) {
        if (files[a].modifiedNs != files[b].modifiedNs) return files[a].modifiedNs > files[b].modifiedNs;
        return ArchiveName(files[a].path) < ArchiveName(files[b].path);
    });
    std::vector<bool> kept(files.size(), false);
    std::uint64_t total = 0;
    for (const std::size_t i : newestFirst) {
        // total <= limitBytes here, so this is total + size > limitBytes without overflow.
        if (files[i].size > limitBytes - total) break;
        total += files[i].size;
        kept[i] = true;
    }
    return kept;
}

}  // namespace zep::collect
