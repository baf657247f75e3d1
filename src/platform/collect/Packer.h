// Packs files into a zip archive in one pass: each file is read once (at
// most the size it was listed with), scrubbed on the way when asked, deflated
// and written. Deflate runs on a small pool of threads over pieces of about
// 1 MiB: many small files share one piece of work, a large file is cut into
// pieces that join into one stream; one writer appends the finished pieces in
// order. Memory stays bounded whatever the volume: a fixed number of pieces
// is in flight and their buffers are reused.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/collect/ZipWriter.h"
#include "platform/env/FileSystemEnv.h"

namespace zep::collect {

// A file to pack, reached from an open folder: `path` names the folders
// below `root` and then the file, none of them followed when it is a link.
// The path is usually shared with the plan or listing that names the file:
// an archive of tens of thousands of files holds no second copy of each.
struct PackSource {
    std::shared_ptr<platform::Folder> root;
    std::shared_ptr<const std::vector<std::wstring>> path;
    std::uint64_t listedSize = 0;  // a log still being written is taken as listed
    bool scrub = false;            // through the log scrub (LogScrub.h)
};

struct PackEntry {
    std::string name;  // in the archive: '/'-separated, a folder's ending in '/'
    std::int64_t modifiedNs = 0;
    std::optional<PackSource> file;  // none: a folder
};

struct PackOptions {
    unsigned workers = 0;  // deflate threads; 0: one per core, at most 4
    std::size_t pieceBytes = 1024 * 1024;
    ZipLimits limits;
};

struct PackOutcome {
    bool written = false;   // the archive is complete in `out`
    std::string sha256;     // of the archive's bytes
    std::uint64_t bytes = 0;
    std::size_t files = 0;  // files packed
    std::size_t left = 0;   // files left out: gone or unreadable when their turn came
};

// Writes `entries` in their order into `out` as one archive. A file that is
// gone or cannot be opened when its turn comes is left out; one that fails
// or shrinks while it is read keeps what was read. `label` starts the log lines.
PackOutcome PackArchive(const std::vector<PackEntry>& entries, platform::OutputFile& out, const wchar_t* label,
                        const PackOptions& options = {});

}  // namespace zep::collect
