// Files and folders. Paths are wide strings in the running system's form
// (see Paths.h). Implementations must be safe to call from several threads;
// none of the operations throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zep::platform {

class FileSystemEnv {
public:
    virtual ~FileSystemEnv() = default;

    // True when `path` names a regular file (links are followed).
    virtual bool FileExists(const std::wstring& path) = 0;
    // True when `path` names a directory (links are followed).
    virtual bool DirectoryExists(const std::wstring& path) = 0;
    // Creates `path`, with its missing parents when `recursive`. True when the
    // directory exists afterwards, also when it existed before.
    virtual bool CreateDirectory(const std::wstring& path, bool recursive) = 0;
    // Removes a file or an empty directory, or a whole tree when `recursive`.
    // True when nothing is left at `path` afterwards (absent counts as removed).
    virtual bool Remove(const std::wstring& path, bool recursive) = 0;
    // Copies one regular file, replacing `to`. False on any failure.
    virtual bool CopyFile(const std::wstring& from, const std::wstring& to) = 0;
    // Copies the contents of directory `from` into `to` recursively, creating
    // `to` and merging into what is there. Symbolic links and special files
    // are left out. False when anything failed.
    virtual bool CopyDirectory(const std::wstring& from, const std::wstring& to) = 0;
    // Size in bytes of a regular file; nullopt when it cannot be read.
    virtual std::optional<std::uint64_t> FileSize(const std::wstring& path) = 0;
    // Reads a whole regular file. False when it cannot be opened or read, and
    // when `path` is a symbolic link or a special file.
    virtual bool ReadFile(const std::wstring& path, std::string& contents) = 0;
    // Reads at most the last `maxBytes` of a regular file, by the rules of
    // ReadFile; `truncated` tells whether the file held more. Backends read
    // only the tail; this fallback reads the whole file.
    virtual bool ReadFileTail(const std::wstring& path, std::size_t maxBytes, std::string& contents,
                              bool& truncated) {
        if (!ReadFile(path, contents)) return false;
        truncated = contents.size() > maxBytes;
        if (truncated) contents.erase(0, contents.size() - maxBytes);
        return true;
    }
    // Writes `contents` to `path`, truncating it. False on failure; a failure
    // may leave the file partly written.
    virtual bool WriteFile(const std::wstring& path, std::string_view contents) = 0;
    // Replaces `path` with `contents` atomically: a temporary file beside it is
    // written, flushed to stable storage and renamed over `path`. On failure
    // the old file is unchanged and the temporary file is removed.
    virtual bool WriteFileAtomically(const std::wstring& path, std::string_view contents) = 0;
    // Paths of the regular files below `folder` (recursively when asked), in
    // the order the directory walk yields them; empty when unreadable.
    virtual std::vector<std::wstring> ListFiles(const std::wstring& folder, bool recursive) = 0;
    // Bytes available to the caller on the volume holding `path`.
    virtual std::optional<std::uint64_t> FreeSpace(const std::wstring& path) = 0;
};

// Forwards every operation to another FileSystemEnv: a test (or a backend)
// derives from it and overrides only what it changes.
class FileSystemEnvWrapper : public FileSystemEnv {
public:
    explicit FileSystemEnvWrapper(std::shared_ptr<FileSystemEnv> target) : target_(std::move(target)) {}

    bool FileExists(const std::wstring& path) override { return target_->FileExists(path); }
    bool DirectoryExists(const std::wstring& path) override { return target_->DirectoryExists(path); }
    bool CreateDirectory(const std::wstring& path, bool recursive) override {
        return target_->CreateDirectory(path, recursive);
    }
    bool Remove(const std::wstring& path, bool recursive) override { return target_->Remove(path, recursive); }
    bool CopyFile(const std::wstring& from, const std::wstring& to) override { return target_->CopyFile(from, to); }
    bool CopyDirectory(const std::wstring& from, const std::wstring& to) override {
        return target_->CopyDirectory(from, to);
    }
    std::optional<std::uint64_t> FileSize(const std::wstring& path) override { return target_->FileSize(path); }
    bool ReadFile(const std::wstring& path, std::string& contents) override {
        return target_->ReadFile(path, contents);
    }
    bool ReadFileTail(const std::wstring& path, std::size_t maxBytes, std::string& contents,
                      bool& truncated) override {
        return target_->ReadFileTail(path, maxBytes, contents, truncated);
    }
    bool WriteFile(const std::wstring& path, std::string_view contents) override {
        return target_->WriteFile(path, contents);
    }
    bool WriteFileAtomically(const std::wstring& path, std::string_view contents) override {
        return target_->WriteFileAtomically(path, contents);
    }
    std::vector<std::wstring> ListFiles(const std::wstring& folder, bool recursive) override {
        return target_->ListFiles(folder, recursive);
    }
    std::optional<std::uint64_t> FreeSpace(const std::wstring& path) override { return target_->FreeSpace(path); }

    FileSystemEnv* target() const { return target_.get(); }

private:
    std::shared_ptr<FileSystemEnv> target_;
};

}  // namespace zep::platform
