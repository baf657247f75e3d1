// FileSystemEnv over POSIX descriptors: a Folder is an open directory, and
// every entry is reached with the *at() calls relative to it, with
// O_NOFOLLOW, so the kernel does the no-link check at the moment of use.
#pragma once

#include "platform/env/FileSystemEnv.h"

namespace zep::platform {

class PosixFileSystem : public FileSystemEnv {
public:
    std::unique_ptr<Folder> OpenFolder(const std::wstring& path, FsStatus* status = nullptr) override;
    std::optional<std::uint64_t> FreeSpace(const std::wstring& path) override;
};

}  // namespace zep::platform
