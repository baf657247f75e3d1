#include "platform/windows/Win32.h"

#include "platform/windows/WindowsFiles.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "platform/windows/FileTime.h"

namespace zep::platform::win32 {
namespace {

// ERROR_STOPPED_ON_SYMLINK, which not every SDK names.
constexpr DWORD kStoppedOnSymlink = 681;
// ReadFile and WriteFile count in DWORDs; larger requests go in pieces.
constexpr std::size_t kMaxChunk = 1u << 30;

std::uint64_t Combine(DWORD high, DWORD low) { return (std::uint64_t{high} << 32) | low; }

class WindowsInputFile : public InputFile {
public:
    WindowsInputFile(Handle handle, EntryInfo info) : handle_(std::move(handle)), info_(std::move(info)) {}

    bool Read(char* buffer, std::size_t size, std::size_t& got, FsStatus* status) override {
        DWORD read = 0;
        if (!::ReadFile(handle_.Get(), buffer, static_cast<DWORD>(std::min(size, kMaxChunk)), &read, nullptr)) {
            return Fail(status, FsError::Failed, ::GetLastError());
        }
        got = read;
        return true;
    }
    bool SeekTo(std::uint64_t offset, FsStatus* status) override {
        LARGE_INTEGER to{};
        to.QuadPart = static_cast<LONGLONG>(offset);
        if (!::SetFilePointerEx(handle_.Get(), to, nullptr, FILE_BEGIN)) {
            return Fail(status, FsError::Failed, ::GetLastError());
        }
        return true;
    }
    EntryInfo Info() override { return info_; }

private:
    Handle handle_;
    EntryInfo info_;
};

class WindowsOutputFile : public OutputFile {
public:
    explicit WindowsOutputFile(Handle handle) : handle_(std::move(handle)) {}

    bool Write(std::string_view data, FsStatus* status) override {
        while (!data.empty()) {
            DWORD written = 0;
            const auto chunk = static_cast<DWORD>(std::min(data.size(), kMaxChunk));
            if (!::WriteFile(handle_.Get(), data.data(), chunk, &written, nullptr)) {
                return Fail(status, FsError::Failed, ::GetLastError());
            }
            data.remove_prefix(written);
        }
        return true;
    }
    bool Sync(FsStatus* status) override {
        if (!::FlushFileBuffers(handle_.Get())) return Fail(status, FsError::Failed, ::GetLastError());
        return true;
    }
    bool SetModified(std::int64_t modifiedNs) override {
        modified_ = modifiedNs;
        return true;
    }
    bool Close(FsStatus* status) override {
        if (!handle_.Valid()) return true;
        if (modified_) {
            // At the close: a write after it would set the time again.
            const std::uint64_t ticks = UnixNsToTicks(*modified_);
            FILETIME time{static_cast<DWORD>(ticks & 0xFFFFFFFFu), static_cast<DWORD>(ticks >> 32)};
            ::SetFileTime(handle_.Get(), nullptr, nullptr, &time);  // a lost time is no lost data
        }
        if (!::CloseHandle(handle_.Release())) return Fail(status, FsError::Failed, ::GetLastError());
        return true;
    }

private:
    Handle handle_;
    std::optional<std::int64_t> modified_;
};

class WindowsFileLock : public FileLock {
public:
    explicit WindowsFileLock(Handle handle) : handle_(std::move(handle)) {}
    ~WindowsFileLock() override {
        // A lock left to the close is released only "eventually": unlock first.
        OVERLAPPED whole{};
        ::UnlockFileEx(handle_.Get(), 0, MAXDWORD, MAXDWORD, &whole);
    }
    WindowsFileLock(const WindowsFileLock&) = delete;
    WindowsFileLock& operator=(const WindowsFileLock&) = delete;

private:
    Handle handle_;
};

}  // namespace

bool Fail(FsStatus* status, FsError error, DWORD code) {
    if (status != nullptr) *status = FsStatus{error, code != 0 ? ErrorText(code) : std::string()};
    return false;
}

FsError ErrorOf(DWORD code) {
    switch (code) {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND: return FsError::NotFound;
        case ERROR_FILE_EXISTS:
        case ERROR_ALREADY_EXISTS: return FsError::Exists;
        case ERROR_DIRECTORY:
        case ERROR_DIR_NOT_EMPTY: return FsError::WrongKind;
        case ERROR_CANT_ACCESS_FILE:
        case ERROR_CANT_RESOLVE_FILENAME:
        case kStoppedOnSymlink: return FsError::Link;
        case ERROR_INVALID_NAME: return FsError::Invalid;
        case ERROR_LOCK_VIOLATION: return FsError::Busy;
        default: return FsError::Failed;
    }
}

EntryKind KindOf(DWORD attributes) {
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) return EntryKind::Link;
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return EntryKind::Folder;
    if ((attributes & FILE_ATTRIBUTE_DEVICE) != 0) return EntryKind::Other;
    return EntryKind::File;
}

EntryInfo InfoOf(std::wstring name, const BY_HANDLE_FILE_INFORMATION& info) {
    EntryInfo entry;
    entry.name = std::move(name);
    entry.kind = KindOf(info.dwFileAttributes);
    entry.size = Combine(info.nFileSizeHigh, info.nFileSizeLow);
    entry.modifiedNs = TicksToUnixNs(Combine(info.ftLastWriteTime.dwHighDateTime, info.ftLastWriteTime.dwLowDateTime));
    entry.identity = Combine(info.nFileIndexHigh, info.nFileIndexLow);
    return entry;
}

std::unique_ptr<InputFile> MakeInputFile(Handle handle, EntryInfo info) {
    return std::make_unique<WindowsInputFile>(std::move(handle), std::move(info));
}

std::unique_ptr<OutputFile> MakeOutputFile(Handle handle) {
    return std::make_unique<WindowsOutputFile>(std::move(handle));
}

std::unique_ptr<FileLock> LockWholeFile(Handle handle, bool wait, FsStatus* status) {
    OVERLAPPED whole{};
    const DWORD flags = LOCKFILE_EXCLUSIVE_LOCK | (wait ? 0 : LOCKFILE_FAIL_IMMEDIATELY);
    if (!::LockFileEx(handle.Get(), flags, 0, MAXDWORD, MAXDWORD, &whole)) {
        const DWORD code = ::GetLastError();
        Fail(status, code == ERROR_LOCK_VIOLATION || code == ERROR_IO_PENDING ? FsError::Busy : FsError::Failed, code);
        return nullptr;
    }
    return std::make_unique<WindowsFileLock>(std::move(handle));
}

}  // namespace zep::platform::win32
