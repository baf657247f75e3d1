// FileSystemEnv over the wide Win32 API. A Folder holds its directory open
// (shared for reading and writing, not for deletion, so that it cannot be
// renamed or replaced while held) and reaches its entries by their
// extended-length paths ("\\?\"), so no length limit applies. Every entry is
// opened with FILE_FLAG_OPEN_REPARSE_POINT and refused as a link when either
// its path's attributes or the opened handle show a reparse point: the
// handle is the proof on Windows, the attributes are what Wine shows of a
// Unix symbolic link.
#pragma once

#include <optional>
#include <string>

#include "platform/env/FileSystemEnv.h"

namespace zep::platform {

class WindowsFileSystem : public FileSystemEnv {
public:
    std::unique_ptr<Folder> OpenFolder(const std::wstring& path, FsStatus* status = nullptr) override;
    // GetDiskFreeSpaceExW: the bytes available to the caller (quotas counted).
    std::optional<std::uint64_t> FreeSpace(const std::wstring& path) override;
};

// `path` as an extended-length path: "\\?\" + its full path ("\\?\UNC\..."
// for a share), or unchanged when it is one already. Empty when the system
// cannot make it absolute.
std::wstring ExtendedLengthPath(const std::wstring& path);

// True when `name` can be one entry of a Windows folder: an entry name
// (Beneath.h) without ':' (which would name a stream of a file), wildcards,
// quotes, '<', '>', '|' or control characters.
bool IsWindowsEntryName(std::wstring_view name);

}  // namespace zep::platform
