#include "platform/posix/PosixFileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/env/Beneath.h"
#include "platform/posix/Fd.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"

namespace zep::platform {
namespace {

// Removal goes this deep at most; deeper is refused rather than exhausting
// descriptors on a tree built to do that.
constexpr int kMaxRemoveDepth = 256;
constexpr mode_t kFileMode = 0644;
constexpr mode_t kFolderMode = 0755;
// A folder listed in full with at least this many entries is looked at from
// two threads.
constexpr std::size_t kSharedLookMin = 1024;

bool Fail(FsStatus* status, FsError error, int code = 0) {
    if (status != nullptr) {
        *status = FsStatus{error, code != 0 ? std::generic_category().message(code) : std::string()};
    }
    return false;
}

FsError ErrorOf(int code) {
    switch (code) {
        case ENOENT: return FsError::NotFound;
        case EEXIST: return FsError::Exists;
        case ELOOP: return FsError::Link;
        case ENOTDIR:
        case EISDIR:
        case ENXIO: return FsError::WrongKind;
        default: return FsError::Failed;
    }
}

EntryKind KindOf(mode_t mode) {
    if (S_ISREG(mode)) return EntryKind::File;
    if (S_ISDIR(mode)) return EntryKind::Folder;
    if (S_ISLNK(mode)) return EntryKind::Link;
    return EntryKind::Other;
}

EntryKind KindOfListed(unsigned char type) {
    switch (type) {
        case DT_REG: return EntryKind::File;
        case DT_DIR: return EntryKind::Folder;
        case DT_LNK: return EntryKind::Link;
        default: return EntryKind::Other;
    }
}

EntryInfo InfoOf(std::wstring name, const struct stat& st) {
    EntryInfo info;
    info.name = std::move(name);
    info.kind = KindOf(st.st_mode);
    info.size = static_cast<std::uint64_t>(st.st_size);
    info.modifiedNs = static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec;
    info.identity = static_cast<std::uint64_t>(st.st_ino);
    return info;
}

bool WriteAll(int fd, std::string_view data, FsStatus* status) {
    while (!data.empty()) {
        const ssize_t written = ::write(fd, data.data(), data.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return Fail(status, FsError::Failed, errno);
        }
        data.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

class PosixInputFile : public InputFile {
public:
    PosixInputFile(Fd fd, EntryInfo info) : fd_(std::move(fd)), info_(std::move(info)) {}

    bool Read(char* buffer, std::size_t size, std::size_t& got, FsStatus* status) override {
        for (;;) {
            const ssize_t n = ::read(fd_.Get(), buffer, size);
            if (n >= 0) {
                got = static_cast<std::size_t>(n);
                return true;
            }
            if (errno != EINTR) return Fail(status, FsError::Failed, errno);
        }
    }
    bool SeekTo(std::uint64_t offset, FsStatus* status) override {
        if (::lseek(fd_.Get(), static_cast<off_t>(offset), SEEK_SET) < 0) return Fail(status, FsError::Failed, errno);
        return true;
    }
    EntryInfo Info() override { return info_; }

private:
    Fd fd_;
    EntryInfo info_;
};

class PosixOutputFile : public OutputFile {
public:
    explicit PosixOutputFile(Fd fd) : fd_(std::move(fd)) {}

    bool Write(std::string_view data, FsStatus* status) override { return WriteAll(fd_.Get(), data, status); }
    bool Sync(FsStatus* status) override {
        if (::fsync(fd_.Get()) != 0) return Fail(status, FsError::Failed, errno);
        return true;
    }
    bool SetModified(std::int64_t modifiedNs) override {
        modified_ = modifiedNs;
        return true;
    }
    bool Close(FsStatus* status) override {
        if (!fd_.Valid()) return true;
        if (modified_) {
            const timespec times[2] = {{0, UTIME_OMIT},
                                       {static_cast<time_t>(*modified_ / 1'000'000'000),
                                        static_cast<long>(*modified_ % 1'000'000'000)}};
            ::futimens(fd_.Get(), times);  // a lost time is no lost data
        }
        // close(2) is where NFS and full disks report deferred write errors.
        const int fd = fd_.Release();
        if (::close(fd) != 0 && errno != EINTR) return Fail(status, FsError::Failed, errno);
        return true;
    }

private:
    Fd fd_;
    std::optional<std::int64_t> modified_;
};

class PosixFileLock : public FileLock {
public:
    explicit PosixFileLock(Fd fd) : fd_(std::move(fd)) {}

private:
    Fd fd_;  // closing it releases the lock
};

class PosixFolder : public Folder {
public:
    PosixFolder(Fd fd, std::wstring path) : fd_(std::move(fd)), path_(std::move(path)) {}

    const std::wstring& Path() const override { return path_; }

    bool List(std::vector<EntryInfo>& entries, FsStatus* status) override { return Read(entries, true, status); }
    bool ListKinds(std::vector<EntryInfo>& entries, FsStatus* status) override { return Read(entries, false, status); }

    std::optional<EntryInfo> Stat(std::wstring_view name, FsStatus* status) override {
        std::string bytes;
        if (!Name(name, bytes, status)) return std::nullopt;
        struct stat st {};
        if (::fstatat(fd_.Get(), bytes.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            Fail(status, ErrorOf(errno), errno);
            return std::nullopt;
        }
        return InfoOf(std::wstring(name), st);
    }

    std::unique_ptr<Folder> OpenFolder(std::wstring_view name, FsStatus* status) override {
        std::string bytes;
        if (!Name(name, bytes, status)) return nullptr;
        Fd fd(::openat(fd_.Get(), bytes.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!fd.Valid()) {
            Classify(bytes, errno, status);
            return nullptr;
        }
        return std::make_unique<PosixFolder>(std::move(fd), JoinPath(path_, name));
    }

    std::unique_ptr<Folder> CreateFolder(std::wstring_view name, FsStatus* status) override {
        std::string bytes;
        if (!Name(name, bytes, status)) return nullptr;
        if (::mkdirat(fd_.Get(), bytes.c_str(), kFolderMode) != 0 && errno != EEXIST) {
            Fail(status, ErrorOf(errno), errno);
            return nullptr;
        }
        return OpenFolder(name, status);
    }

    std::unique_ptr<InputFile> OpenFile(std::wstring_view name, FsStatus* status) override {
        std::string bytes;
        if (!Name(name, bytes, status)) return nullptr;
        Fd fd(::openat(fd_.Get(), bytes.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!fd.Valid()) {
            Classify(bytes, errno, status);
            return nullptr;
        }
        struct stat st {};
        if (::fstat(fd.Get(), &st) != 0) {
            Fail(status, FsError::Failed, errno);
            return nullptr;
        }
        if (!S_ISREG(st.st_mode)) {
            Fail(status, FsError::WrongKind);
            return nullptr;
        }
        return std::make_unique<PosixInputFile>(std::move(fd), InfoOf(std::wstring(name), st));
    }

    std::unique_ptr<OutputFile> OpenForWriting(std::wstring_view name, Create mode, FsStatus* status) override {
        std::string bytes;
        if (!Name(name, bytes, status)) return nullptr;
        int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
        if (mode == Create::New) flags |= O_EXCL;
        if (mode == Create::Append) flags |= O_APPEND;
        Fd fd(::openat(fd_.Get(), bytes.c_str(), flags, kFileMode));
        if (!fd.Valid()) {
            Classify(bytes, errno, status);
            return nullptr;
        }
        struct stat st {};
        // Truncating only after the check: a FIFO or a second name of a file
        // elsewhere (a hard link) is not ours to empty or extend.
        if (::fstat(fd.Get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink > 1) {
            Fail(status, FsError::WrongKind);
            return nullptr;
        }
        if (mode == Create::Truncate && st.st_size > 0 && ::ftruncate(fd.Get(), 0) != 0) {
            Fail(status, FsError::Failed, errno);
            return nullptr;
        }
        return std::make_unique<PosixOutputFile>(std::move(fd));
    }

    bool Rename(std::wstring_view from, std::wstring_view to, bool replace, FsStatus* status) override {
        std::string source;
        std::string target;
        if (!Name(from, source, status) || !Name(to, target, status)) return false;
        if (replace) {
            if (::renameat(fd_.Get(), source.c_str(), fd_.Get(), target.c_str()) == 0) return true;
            return Fail(status, ErrorOf(errno), errno);
        }
        if (::renameat2(fd_.Get(), source.c_str(), fd_.Get(), target.c_str(), RENAME_NOREPLACE) == 0) return true;
        if (errno != EINVAL && errno != ENOSYS) return Fail(status, ErrorOf(errno), errno);
        // A file system without RENAME_NOREPLACE: a hard link refuses an existing name just as well.
        if (::linkat(fd_.Get(), source.c_str(), fd_.Get(), target.c_str(), 0) != 0) {
            return Fail(status, ErrorOf(errno), errno);
        }
        ::unlinkat(fd_.Get(), source.c_str(), 0);
        return true;
    }

    bool Remove(std::wstring_view name, bool recursive, FsStatus* status) override {
        std::string bytes;
        if (!Name(name, bytes, status)) return false;
        return RemoveAt(fd_.Get(), bytes, recursive, 0, status);
    }

    bool Sync(FsStatus* status) override {
        if (::fsync(fd_.Get()) != 0) return Fail(status, FsError::Failed, errno);
        return true;
    }

    std::unique_ptr<FileLock> Lock(std::wstring_view name, bool wait, FsStatus* status) override {
        std::string bytes;
        if (!Name(name, bytes, status)) return nullptr;
        Fd fd(::openat(fd_.Get(), bytes.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kFileMode));
        struct stat st {};
        if (!fd.Valid() || ::fstat(fd.Get(), &st) != 0 || !S_ISREG(st.st_mode)) {
            if (fd.Valid()) {
                Fail(status, FsError::WrongKind);
            } else {
                Classify(bytes, errno, status);
            }
            return nullptr;
        }
        // flock locks belong to the open description: two opens in one
        // process exclude each other just as two processes do.
        while (::flock(fd.Get(), LOCK_EX | (wait ? 0 : LOCK_NB)) != 0) {
            if (errno == EINTR) continue;
            Fail(status, errno == EWOULDBLOCK ? FsError::Busy : FsError::Failed, errno);
            return nullptr;
        }
        return std::make_unique<PosixFileLock>(std::move(fd));
    }

private:
    // Lists the folder; with `details` each entry is looked at for its size
    // and times, otherwise only where the listing does not tell its kind.
    bool Read(std::vector<EntryInfo>& entries, bool details, FsStatus* status) {
        entries.clear();
        // A description of its own, so that two listings never share a position.
        Fd own(::openat(fd_.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        DIR* dir = own.Valid() ? ::fdopendir(own.Get()) : nullptr;
        if (dir == nullptr) return Fail(status, FsError::Failed, errno);
        own.Release();
        bool ok = true;
        std::vector<std::string> unknown;  // names to look at
        for (;;) {
            errno = 0;
            const dirent* item = ::readdir(dir);
            if (item == nullptr) {
                if (errno != 0) ok = Fail(status, FsError::Failed, errno);
                break;
            }
            const std::string_view name(item->d_name);
            if (name == "." || name == "..") continue;
            if (!details && item->d_type != DT_UNKNOWN) {
                EntryInfo info;
                info.name = text::DecodeFileName(name);
                info.kind = KindOfListed(item->d_type);
                entries.push_back(std::move(info));
                continue;
            }
            unknown.emplace_back(name);
        }
        if (!unknown.empty()) Look(::dirfd(dir), unknown, entries);
        ::closedir(dir);
        return ok;
    }

    // Appends the entries `names` of the folder `dir` as they are now (one
    // gone since it was listed is not an entry any more). A big folder is
    // looked at from two threads: each look is a system call, and a scan
    // makes tens of thousands of them.
    static void Look(int dir, const std::vector<std::string>& names, std::vector<EntryInfo>& entries) {
        std::vector<std::optional<EntryInfo>> found(names.size());
        // Looks at names[next, end), advancing `next` past each name looked at.
        const auto lookAt = [&](std::size_t& next, std::size_t end) {
            for (; next < end; ++next) {
                struct stat st {};
                if (::fstatat(dir, names[next].c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
                    found[next] = InfoOf(text::DecodeFileName(names[next]), st);
                }
            }
        };
        std::size_t half = names.size();
        std::size_t helperNext = half;  // where the helper got to
        std::thread helper;
        struct Joiner {
            std::thread& thread;
            ~Joiner() {
                if (thread.joinable()) thread.join();
            }
        } joiner{helper};  // also when this thread's half throws
        if (names.size() >= kSharedLookMin) {
            half = helperNext = names.size() / 2;
            try {
                helper = std::thread([&] {
                    try {
                        lookAt(helperNext, names.size());
                    } catch (...) {
                        // Out of memory: what the helper left undone is done below.
                    }
                });
            } catch (...) {
                // No thread to be had: all of it here.
            }
        }
        std::size_t next = 0;
        lookAt(next, half);
        if (helper.joinable()) helper.join();
        lookAt(helperNext, names.size());
        for (auto& info : found) {
            if (info) entries.push_back(std::move(*info));
        }
    }

    static bool Name(std::wstring_view name, std::string& bytes, FsStatus* status) {
        if (!IsEntryName(name)) return Fail(status, FsError::Invalid);
        bytes = text::EncodeFileName(name);
        return true;
    }

    // Says why an open with O_NOFOLLOW failed: the kernel reports a link as
    // ELOOP for files but as ENOTDIR for folders.
    void Classify(const std::string& name, int code, FsStatus* status) const {
        struct stat st {};
        if ((code == ELOOP || code == ENOTDIR) && ::fstatat(fd_.Get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISLNK(st.st_mode)) {
            Fail(status, FsError::Link);
            return;
        }
        Fail(status, ErrorOf(code), code);
    }

    static bool RemoveAt(int parent, const std::string& name, bool recursive, int depth, FsStatus* status) {
        struct stat st {};
        if (::fstatat(parent, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            return errno == ENOENT ? true : Fail(status, FsError::Failed, errno);
        }
        if (!S_ISDIR(st.st_mode)) {
            if (::unlinkat(parent, name.c_str(), 0) == 0 || errno == ENOENT) return true;
            return Fail(status, FsError::Failed, errno);
        }
        if (recursive) {
            if (depth >= kMaxRemoveDepth) return Fail(status, FsError::Failed);
            Fd child(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!child.Valid()) return Fail(status, ErrorOf(errno), errno);
            PosixFolder folder(std::move(child), std::wstring());
            std::vector<EntryInfo> entries;
            if (!folder.List(entries, status)) return false;
            for (const auto& entry : entries) {
                if (!RemoveAt(folder.fd_.Get(), text::EncodeFileName(entry.name), true, depth + 1, status)) {
                    return false;
                }
            }
        }
        if (::unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) return true;
        return Fail(status, errno == ENOTEMPTY ? FsError::WrongKind : FsError::Failed, errno);
    }

    Fd fd_;
    std::wstring path_;
};

}  // namespace

std::unique_ptr<Folder> PosixFileSystem::OpenFolder(const std::wstring& path, FsStatus* status) {
    Fd fd(::open(path::ToFs(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.Valid()) {
        Fail(status, ErrorOf(errno), errno);
        return nullptr;
    }
    return std::make_unique<PosixFolder>(std::move(fd), path);
}

std::optional<std::uint64_t> PosixFileSystem::FreeSpace(const std::wstring& path) {
    struct statvfs info {};
    if (::statvfs(path::ToFs(path).c_str(), &info) != 0) return std::nullopt;
    return static_cast<std::uint64_t>(info.f_bavail) * static_cast<std::uint64_t>(info.f_frsize);
}

}  // namespace zep::platform
