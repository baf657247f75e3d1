#include "platform/collect/Selection.h"

#include "platform/env/Beneath.h"
#include "platform/util/Strings.h"

namespace zep::collect {

Listing ListTree(platform::Folder& folder, bool recursive) {
    Listing listing;
    const auto add = [](std::vector<ListedEntry>& to) {
        return [&to](const std::vector<std::wstring>& names, const platform::EntryInfo& entry) {
            to.push_back(ListedEntry{names, entry.size, entry.modifiedNs});
        };
    };
    platform::VisitTree(folder, recursive, add(listing.folders), add(listing.files));
    return listing;
}

std::shared_ptr<platform::Folder> OpenBelow(const std::shared_ptr<platform::Folder>& top,
                                            const std::vector<std::wstring>& names, bool create,
                                            platform::FsStatus* status) {
    std::shared_ptr<platform::Folder> folder = top;
    for (const auto& name : names) {
        folder = create ? folder->CreateFolder(name, status) : folder->OpenFolder(name, status);
        if (!folder) return nullptr;
    }
    return folder;
}

bool IsArchiveName(std::wstring_view name) {
    constexpr std::wstring_view kZip = L".zip";
    return name.size() >= kZip.size() && text::EqualsIgnoreCase(name.substr(name.size() - kZip.size()), kZip);
}

std::string ArchiveName(const std::vector<std::wstring>& path, bool folder) {
    std::string name;
    for (const auto& part : path) {
        if (!name.empty()) name += '/';
        name += text::EncodeFileName(part);
    }
    if (folder) name += '/';
    return name;
}

}  // namespace zep::collect
