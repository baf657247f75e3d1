// FileSystemEnv over std::filesystem and POSIX calls.
#pragma once

#include "platform/FileSystemEnv.h"

namespace zep::platform {

class PosixFileSystem : public FileSystemEnv {
public:
    bool FileExists(const std::wstring& path) override;
    bool DirectoryExists(const std::wstring& path) override;
    bool CreateDirectory(const std::wstring& path, bool recursive) override;
    bool Remove(const std::wstring& path, bool recursive) override;
    bool CopyFile(const std::wstring& from, const std::wstring& to) override;
    bool CopyDirectory(const std::wstring& from, const std::wstring& to) override;
    std::optional<std::uint64_t> FileSize(const std::wstring& path) override;
    bool ReadFile(const std::wstring& path, std::string& contents) override;
    bool ReadFileTail(const std::wstring& path, std::size_t maxBytes, std::string& contents,
                      bool& truncated) override;
    bool WriteFile(const std::wstring& path, std::string_view contents) override;
    bool WriteFileAtomically(const std::wstring& path, std::string_view contents) override;
    std::vector<std::wstring> ListFiles(const std::wstring& folder, bool recursive) override;
    std::optional<std::uint64_t> FreeSpace(const std::wstring& path) override;
};

}  // namespace zep::platform
