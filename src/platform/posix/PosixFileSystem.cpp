#include "platform/posix/PosixFileSystem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>

#include "platform/Paths.h"

namespace fs = std::filesystem;

namespace zep::platform {
namespace {

// Writes all of `data` to `fd`, retrying short writes and interruptions.
bool WriteAll(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t written = ::write(fd, data.data(), data.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

// Makes a rename durable by syncing the folder that holds the new name.
void SyncParent(const fs::path& path) {
    const fs::path parent = path.has_parent_path() ? path.parent_path() : fs::path(".");
    const int fd = ::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

}  // namespace

bool PosixFileSystem::FileExists(const std::wstring& path) {
    std::error_code ec;
    return fs::is_regular_file(path::ToFs(path), ec);
}

bool PosixFileSystem::DirectoryExists(const std::wstring& path) {
    std::error_code ec;
    return fs::is_directory(path::ToFs(path), ec);
}

bool PosixFileSystem::CreateDirectory(const std::wstring& path, bool recursive) {
    std::error_code ec;
    const fs::path target = path::ToFs(path);
    if (recursive) {
        fs::create_directories(target, ec);
    } else {
        fs::create_directory(target, ec);
    }
    return fs::is_directory(target, ec);
}

bool PosixFileSystem::Remove(const std::wstring& path, bool recursive) {
    std::error_code ec;
    const fs::path target = path::ToFs(path);
    if (recursive) {
        fs::remove_all(target, ec);
    } else {
        fs::remove(target, ec);
    }
    return !ec && !fs::exists(fs::symlink_status(target, ec));
}

bool PosixFileSystem::CopyFile(const std::wstring& from, const std::wstring& to) {
    std::error_code ec;
    return fs::copy_file(path::ToFs(from), path::ToFs(to), fs::copy_options::overwrite_existing, ec) && !ec;
}

bool PosixFileSystem::CopyDirectory(const std::wstring& from, const std::wstring& to) {
    std::error_code ec;
    const fs::path source = path::ToFs(from);
    const fs::path target = path::ToFs(to);
    if (!fs::is_directory(source, ec)) return false;
    fs::create_directories(target, ec);
    bool ok = !ec;
    // Walked by hand: links are not followed (a link could pull any file of
    // the system into an archive) and special files are not opened.
    fs::recursive_directory_iterator it(source, fs::directory_options::none, ec), end;
    if (ec) return false;
    for (; it != end; it.increment(ec)) {
        if (ec) return false;
        const auto status = it->symlink_status(ec);
        if (ec) {
            ok = false;
            continue;
        }
        const fs::path destination = target / fs::relative(it->path(), source, ec);
        if (ec) {
            ok = false;
            continue;
        }
        if (fs::is_directory(status)) {
            fs::create_directories(destination, ec);
        } else if (fs::is_regular_file(status)) {
            fs::copy_file(it->path(), destination, fs::copy_options::overwrite_existing, ec);
        }
        if (ec) ok = false;
    }
    return ok;
}

std::optional<std::uint64_t> PosixFileSystem::FileSize(const std::wstring& path) {
    std::error_code ec;
    const auto size = fs::file_size(path::ToFs(path), ec);
    if (ec) return std::nullopt;
    return static_cast<std::uint64_t>(size);
}

bool PosixFileSystem::ReadFile(const std::wstring& path, std::string& contents) {
    // Not through a link and never a FIFO or device: the module reads files in
    // folders that other users may write to (a plug-in's user folder).
    const int fd = ::open(path::ToFs(path).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) return false;
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        return false;
    }
    contents.clear();
    char buffer[65536];
    bool ok = true;
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0) {
            if (errno == EINTR) continue;
            ok = false;
            break;
        }
        if (got == 0) break;
        contents.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(fd);
    return ok;
}

bool PosixFileSystem::ReadFileTail(const std::wstring& path, std::size_t maxBytes, std::string& contents,
                                   bool& truncated) {
    // The same guards as ReadFile: no link, never a FIFO or device.
    const int fd = ::open(path::ToFs(path).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) return false;
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        return false;
    }
    const auto size = static_cast<std::uint64_t>(info.st_size);
    truncated = size > maxBytes;
    const off_t start = truncated ? static_cast<off_t>(size - maxBytes) : 0;
    contents.assign(truncated ? maxBytes : static_cast<std::size_t>(size), '\0');
    std::size_t done = 0;
    bool ok = true;
    while (done < contents.size()) {
        const ssize_t got =
            ::pread(fd, contents.data() + done, contents.size() - done, start + static_cast<off_t>(done));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) ok = false;
        if (got <= 0) break;  // shrank meanwhile: what was there is read
        done += static_cast<std::size_t>(got);
    }
    contents.resize(done);
    ::close(fd);
    return ok;
}

bool PosixFileSystem::WriteFile(const std::wstring& path, std::string_view contents) {
    const int fd = ::open(path::ToFs(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const bool ok = WriteAll(fd, contents);
    return ::close(fd) == 0 && ok;
}

bool PosixFileSystem::WriteFileAtomically(const std::wstring& path, std::string_view contents) {
    static std::atomic<unsigned> sequence{0};
    const fs::path target = path::ToFs(path);
    fs::path temporary = target;
    temporary += ".tmp." + std::to_string(::getpid()) + "." + std::to_string(sequence.fetch_add(1));
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool ok = WriteAll(fd, contents) && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (ok) ok = ::rename(temporary.c_str(), target.c_str()) == 0;
    if (!ok) {
        ::unlink(temporary.c_str());
        return false;
    }
    SyncParent(target);
    return true;
}

std::vector<std::wstring> PosixFileSystem::ListFiles(const std::wstring& folder, bool recursive) {
    std::vector<std::wstring> files;
    std::error_code ec;
    const fs::path root = path::ToFs(folder);
    if (recursive) {
        for (fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec), end;
             !ec && it != end; it.increment(ec)) {
            if (it->is_regular_file(ec)) files.push_back(path::FromFs(it->path()));
        }
    } else {
        for (fs::directory_iterator it(root, fs::directory_options::skip_permission_denied, ec), end;
             !ec && it != end; it.increment(ec)) {
            if (it->is_regular_file(ec)) files.push_back(path::FromFs(it->path()));
        }
    }
    return files;
}

std::optional<std::uint64_t> PosixFileSystem::FreeSpace(const std::wstring& path) {
    struct statvfs info {};
    if (::statvfs(path::ToFs(path).c_str(), &info) != 0) return std::nullopt;
    return static_cast<std::uint64_t>(info.f_bavail) * static_cast<std::uint64_t>(info.f_frsize);
}

}  // namespace zep::platform
