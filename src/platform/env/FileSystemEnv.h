// Files and folders, reached through open folders.
//
// A Folder is a directory that was opened once; every operation names one
// entry of it, so what a later operation reaches cannot be redirected by
// renaming or replacing a folder on the way (the check and the use are one
// call). No operation follows a link named by an entry (a symbolic link, a
// junction, a mount point or any other reparse point): opening one as a file
// or folder fails with FsError::Link, removing one removes the link itself.
// Walking down from a folder the module trusts therefore never leaves it.
//
// Paths are wide strings in the running system's form (see util/Paths.h).
// A Folder may be used from several threads at once; a file object from one
// thread at a time. No operation throws.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zep::platform {

enum class FsError {
    None,
    NotFound,   // nothing of that name
    Exists,     // the name is taken (exclusive creation, rename without replace)
    Link,       // a link or reparse point where a file or folder was expected
    WrongKind,  // a folder where a file was expected, a file where a folder was, or a special file
    TooLarge,   // more than the caller's limit
    Invalid,    // a name that is not one entry of a folder ("", ".", "..", separators, NUL)
    Busy,       // a lock held by someone else
    Failed,     // anything else the system refused; see the message
};

// Why an operation failed, for the caller's decision and its log line.
struct FsStatus {
    FsError error = FsError::None;
    std::string message;  // the system's text, UTF-8; empty when `error` says it all

    bool ok() const { return error == FsError::None; }
};

enum class EntryKind { File, Folder, Link, Other };  // Other: FIFO, socket, device

// One entry of a folder, as seen without following it.
struct EntryInfo {
    std::wstring name;
    EntryKind kind = EntryKind::Other;
    std::uint64_t size = 0;        // bytes, for files
    std::int64_t modifiedNs = 0;   // last write, nanoseconds since 1970-01-01 UTC
    std::uint64_t identity = 0;    // the file system's number for the file (0: unknown)
};

// A regular file opened for reading. Opening never waits (a FIFO that took a
// file's place is refused, not waited for).
class InputFile {
public:
    virtual ~InputFile() = default;
    // Reads up to `size` bytes into `buffer`; `got` is 0 at the end of the file.
    virtual bool Read(char* buffer, std::size_t size, std::size_t& got, FsStatus* status = nullptr) = 0;
    // Continues reading at `offset` bytes from the start.
    virtual bool SeekTo(std::uint64_t offset, FsStatus* status = nullptr) = 0;
    // What was opened (not what the name may lead to by now).
    virtual EntryInfo Info() = 0;
};

class OutputFile {
public:
    virtual ~OutputFile() = default;
    // Writes all of `data`.
    virtual bool Write(std::string_view data, FsStatus* status = nullptr) = 0;
    // Flushes what was written to stable storage.
    virtual bool Sync(FsStatus* status = nullptr) = 0;
    // Sets the last write time that the file keeps after Close.
    virtual bool SetModified(std::int64_t modifiedNs) = 0;
    // Closes the file; false when something written may be lost. Destroying
    // an open file closes it too, without telling.
    virtual bool Close(FsStatus* status = nullptr) = 0;
};

// An exclusive lock held until the object is destroyed, also against other
// processes. A process that dies releases its locks.
class FileLock {
public:
    virtual ~FileLock() = default;
};

class Folder {
public:
    enum class Create {
        New,       // the file must not exist yet
        Truncate,  // a new file, or an existing regular file emptied
        Append,    // a new file, or an existing regular file written at its end
    };

    virtual ~Folder() = default;

    // The path the folder was opened at, for log lines and for the few
    // callers that must hand a path to someone else (a child process, the
    // storage agent).
    virtual const std::wstring& Path() const = 0;

    // The entries, without "." and "..", in no particular order.
    virtual bool List(std::vector<EntryInfo>& entries, FsStatus* status = nullptr) = 0;
    // As List, but only `name` and `kind` are sure to be filled: a system
    // that tells an entry's kind while listing needs no look at each entry.
    virtual bool ListKinds(std::vector<EntryInfo>& entries, FsStatus* status = nullptr) {
        return List(entries, status);
    }
    // One entry; nullopt when there is none or it cannot be examined.
    virtual std::optional<EntryInfo> Stat(std::wstring_view name, FsStatus* status = nullptr) = 0;

    virtual std::unique_ptr<Folder> OpenFolder(std::wstring_view name, FsStatus* status = nullptr) = 0;
    // Opens the folder `name`, creating it first when it does not exist.
    virtual std::unique_ptr<Folder> CreateFolder(std::wstring_view name, FsStatus* status = nullptr) = 0;
    virtual std::unique_ptr<InputFile> OpenFile(std::wstring_view name, FsStatus* status = nullptr) = 0;
    virtual std::unique_ptr<OutputFile> OpenForWriting(std::wstring_view name, Create mode,
                                                   FsStatus* status = nullptr) = 0;

    // Renames an entry of this folder. Without `replace`, an existing `to`
    // makes it fail with FsError::Exists.
    virtual bool Rename(std::wstring_view from, std::wstring_view to, bool replace, FsStatus* status = nullptr) = 0;
    // Removes a file, a link, or (when `recursive`) a folder with everything
    // below it, never following a link. True when nothing is left of `name`,
    // also when there was nothing.
    virtual bool Remove(std::wstring_view name, bool recursive, FsStatus* status = nullptr) = 0;
    // Makes the renames and removals done in this folder durable.
    virtual bool Sync(FsStatus* status = nullptr) = 0;

    // Takes the exclusive lock of the lock file `name` (created when absent).
    // With `wait` it blocks until the lock is free; otherwise a lock held
    // elsewhere fails with FsError::Busy.
    virtual std::unique_ptr<FileLock> Lock(std::wstring_view name, bool wait, FsStatus* status = nullptr) = 0;
};

class FileSystemEnv {
public:
    virtual ~FileSystemEnv() = default;

    // Opens the folder at `path`. Links on the way to it are followed: the
    // caller trusts that path; what lies below it is reached through the
    // folder's own operations.
    virtual std::unique_ptr<Folder> OpenFolder(const std::wstring& path, FsStatus* status = nullptr) = 0;
    // Bytes available to the caller on the volume holding `path`.
    virtual std::optional<std::uint64_t> FreeSpace(const std::wstring& path) = 0;
};

// Forwards every operation to another Folder: a test double derives from it
// and overrides only what it changes (a link where a folder was, a full disk).
class FolderWrapper : public Folder {
public:
    explicit FolderWrapper(std::unique_ptr<Folder> target) : target_(std::move(target)) {}

    const std::wstring& Path() const override { return target_->Path(); }
    // ListKinds is left to List, so that a double's List is what every
    // listing sees.
    bool List(std::vector<EntryInfo>& entries, FsStatus* status = nullptr) override {
        return target_->List(entries, status);
    }
    std::optional<EntryInfo> Stat(std::wstring_view name, FsStatus* status = nullptr) override {
        return target_->Stat(name, status);
    }
    std::unique_ptr<Folder> OpenFolder(std::wstring_view name, FsStatus* status = nullptr) override {
        return target_->OpenFolder(name, status);
    }
    std::unique_ptr<Folder> CreateFolder(std::wstring_view name, FsStatus* status = nullptr) override {
        return target_->CreateFolder(name, status);
    }
    std::unique_ptr<InputFile> OpenFile(std::wstring_view name, FsStatus* status = nullptr) override {
        return target_->OpenFile(name, status);
    }
    std::unique_ptr<OutputFile> OpenForWriting(std::wstring_view name, Create mode,
                                               FsStatus* status = nullptr) override {
        return target_->OpenForWriting(name, mode, status);
    }
    bool Rename(std::wstring_view from, std::wstring_view to, bool replace, FsStatus* status = nullptr) override {
        return target_->Rename(from, to, replace, status);
    }
    bool Remove(std::wstring_view name, bool recursive, FsStatus* status = nullptr) override {
        return target_->Remove(name, recursive, status);
    }
    bool Sync(FsStatus* status = nullptr) override { return target_->Sync(status); }
    std::unique_ptr<FileLock> Lock(std::wstring_view name, bool wait, FsStatus* status = nullptr) override {
        return target_->Lock(name, wait, status);
    }

protected:
    Folder& target() const { return *target_; }

private:
    std::unique_ptr<Folder> target_;
};

// Forwards every operation to another FileSystemEnv: a test (or a host)
// derives from it and overrides only what it changes.
class FileSystemEnvWrapper : public FileSystemEnv {
public:
    explicit FileSystemEnvWrapper(std::shared_ptr<FileSystemEnv> target) : target_(std::move(target)) {}

    std::unique_ptr<Folder> OpenFolder(const std::wstring& path, FsStatus* status = nullptr) override {
        return target_->OpenFolder(path, status);
    }
    std::optional<std::uint64_t> FreeSpace(const std::wstring& path) override { return target_->FreeSpace(path); }

    FileSystemEnv* target() const { return target_.get(); }

private:
    std::shared_ptr<FileSystemEnv> target_;
};

}  // namespace zep::platform
