#include "platform/windows/Win32.h"

#include "platform/windows/WindowsFileSystem.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "platform/env/Beneath.h"
#include "platform/windows/FileTime.h"
#include "platform/windows/WindowsFiles.h"

namespace zep::platform {
namespace {

using win32::Fail;
using win32::Handle;

// Removal goes this deep at most; deeper is refused rather than holding a
// handle per level of a tree built to exhaust them.
constexpr int kMaxRemoveDepth = 256;
// Files are shared as POSIX shares them: another reader, writer, or a rename
// of the name (log rotation, an atomic replace) never waits for us.
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
// A held folder may be worked in by anyone, but not renamed or replaced.
constexpr DWORD kShareFolder = FILE_SHARE_READ | FILE_SHARE_WRITE;
constexpr DWORD kFolderAccess = FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | SYNCHRONIZE;

bool IsReparse(DWORD attributes) { return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0; }
bool IsFolder(DWORD attributes) { return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
bool IsGone(DWORD code) { return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND; }

std::uint64_t Combine(DWORD high, DWORD low) { return (std::uint64_t{high} << 32) | low; }

std::wstring Child(const std::wstring& folder, std::wstring_view name) {
    std::wstring path = folder;
    if (path.empty() || path.back() != L'\\') path.push_back(L'\\');
    path += name;
    return path;
}

EntryInfo InfoOf(std::wstring name, const WIN32_FILE_ATTRIBUTE_DATA& data) {
    EntryInfo entry;
    entry.name = std::move(name);
    entry.kind = win32::KindOf(data.dwFileAttributes);
    entry.size = Combine(data.nFileSizeHigh, data.nFileSizeLow);
    entry.modifiedNs =
        win32::TicksToUnixNs(Combine(data.ftLastWriteTime.dwHighDateTime, data.ftLastWriteTime.dwLowDateTime));
    return entry;
}

EntryInfo InfoOf(const WIN32_FIND_DATAW& data) {
    EntryInfo entry;
    entry.name = data.cFileName;
    entry.kind = win32::KindOf(data.dwFileAttributes);
    entry.size = Combine(data.nFileSizeHigh, data.nFileSizeLow);
    entry.modifiedNs =
        win32::TicksToUnixNs(Combine(data.ftLastWriteTime.dwHighDateTime, data.ftLastWriteTime.dwLowDateTime));
    return entry;
}

// Opens the entry itself, never what a reparse point at it leads to.
Handle OpenEntry(const std::wstring& path, DWORD access, DWORD share, DWORD disposition, DWORD flags) {
    return Handle(::CreateFileW(path.c_str(), access, share, nullptr, disposition,
                                flags | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

// What the path's attributes say before it is opened: a link (the only sign
// Wine gives of a Unix symbolic link) or the wrong kind ends it here. An
// entry that does not exist yet passes.
bool CheckBeforeOpen(const std::wstring& path, bool folder, FsStatus* status) {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) {
        const DWORD code = ::GetLastError();
        return IsGone(code) ? true : Fail(status, win32::ErrorOf(code), code);
    }
    if (IsReparse(data.dwFileAttributes)) return Fail(status, FsError::Link);
    if (IsFolder(data.dwFileAttributes) != folder) return Fail(status, FsError::WrongKind);
    return true;
}

// What the opened handle is: the check at the moment of use.
bool CheckOpened(const Handle& handle, bool folder, BY_HANDLE_FILE_INFORMATION& info, FsStatus* status) {
    if (!folder && ::GetFileType(handle.Get()) != FILE_TYPE_DISK) return Fail(status, FsError::WrongKind);
    if (!::GetFileInformationByHandle(handle.Get(), &info)) return Fail(status, FsError::Failed, ::GetLastError());
    if (IsReparse(info.dwFileAttributes)) return Fail(status, FsError::Link);
    if (IsFolder(info.dwFileAttributes) != folder) return Fail(status, FsError::WrongKind);
    return true;
}

// How an entry is opened: the kind expected, and CreateFileW's arguments.
struct Opening {
    bool folder = false;
    bool checkFirst = true;  // a file about to be created new has nothing to check
    DWORD access = 0;
    DWORD share = 0;
    DWORD disposition = OPEN_EXISTING;
    DWORD flags = FILE_ATTRIBUTE_NORMAL;
};

// Opens the entry at `path` of the kind expected, checked by its attributes
// before and by its handle after: never through a link. An invalid handle,
// with `status` set, otherwise.
Handle OpenChecked(const std::wstring& path, const Opening& how, BY_HANDLE_FILE_INFORMATION& info, FsStatus* status) {
    if (how.checkFirst && !CheckBeforeOpen(path, how.folder, status)) return Handle();
    Handle handle = OpenEntry(path, how.access, how.share, how.disposition, how.flags);
    if (!handle.Valid()) {
        const DWORD code = ::GetLastError();
        Fail(status, win32::ErrorOf(code), code);
        return Handle();
    }
    if (!CheckOpened(handle, how.folder, info, status)) return Handle();
    return handle;
}

bool DeleteFileForced(const std::wstring& path, DWORD attributes) {
    if (::DeleteFileW(path.c_str())) return true;
    // A read-only file is one POSIX would delete; a link keeps its target's
    // attributes alone.
    if (::GetLastError() != ERROR_ACCESS_DENIED || (attributes & FILE_ATTRIBUTE_READONLY) == 0 ||
        IsReparse(attributes)) {
        return false;
    }
    return ::SetFileAttributesW(path.c_str(), attributes & ~DWORD{FILE_ATTRIBUTE_READONLY}) &&
           ::DeleteFileW(path.c_str());
}

// The entries of the folder at `extended`, without "." and "..".
bool ListFolder(const std::wstring& extended, std::vector<EntryInfo>& entries, FsStatus* status) {
    entries.clear();
    WIN32_FIND_DATAW data{};
    const HANDLE find = ::FindFirstFileExW(Child(extended, L"*").c_str(), FindExInfoBasic, &data,
                                           FindExSearchNameMatch, nullptr, FIND_FIRST_EX_LARGE_FETCH);
    if (find == INVALID_HANDLE_VALUE) {
        const DWORD code = ::GetLastError();
        return code == ERROR_FILE_NOT_FOUND ? true : Fail(status, win32::ErrorOf(code), code);
    }
    do {
        const std::wstring_view name(data.cFileName);
        if (name != L"." && name != L"..") entries.push_back(InfoOf(data));
    } while (::FindNextFileW(find, &data));
    const DWORD code = ::GetLastError();
    ::FindClose(find);
    return code == ERROR_NO_MORE_FILES ? true : Fail(status, FsError::Failed, code);
}

// The names of a folder's entries, read through its open handle: a second
// open by path would conflict with a handle that may delete the folder.
bool ListByHandle(HANDLE folder, std::vector<std::wstring>& names, FsStatus* status) {
    std::vector<unsigned char> buffer(64 * 1024);
    FILE_INFO_BY_HANDLE_CLASS kind = FileIdBothDirectoryRestartInfo;
    for (;;) {
        if (!::GetFileInformationByHandleEx(folder, kind, buffer.data(), static_cast<DWORD>(buffer.size()))) {
            const DWORD code = ::GetLastError();
            return code == ERROR_NO_MORE_FILES ? true : Fail(status, FsError::Failed, code);
        }
        kind = FileIdBothDirectoryInfo;
        for (std::size_t offset = 0;;) {
            const auto* info = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(buffer.data() + offset);
            const std::wstring name(info->FileName, info->FileNameLength / sizeof(wchar_t));
            if (name != L"." && name != L"..") names.push_back(name);
            if (info->NextEntryOffset == 0) break;
            offset += info->NextEntryOffset;
        }
    }
}

// Deletes the reparse point itself through a handle opened on it. Wine opens
// what a Unix link leads to whatever the flags say (and RemoveDirectoryW or
// MoveFileExW act on that too): a handle that shows no reparse point is not
// the link, and nothing is deleted through it.
bool RemoveLinkItself(const std::wstring& path, FsStatus* status) {
    const Handle handle = OpenEntry(path, DELETE | FILE_READ_ATTRIBUTES, kShareAll, OPEN_EXISTING,
                                    FILE_FLAG_BACKUP_SEMANTICS);
    if (!handle.Valid()) {
        const DWORD code = ::GetLastError();
        return IsGone(code) ? true : Fail(status, FsError::Link, code);
    }
    BY_HANDLE_FILE_INFORMATION info{};
    if (!::GetFileInformationByHandle(handle.Get(), &info) || !IsReparse(info.dwFileAttributes)) {
        return Fail(status, FsError::Link, ERROR_CANT_ACCESS_FILE);
    }
    FILE_DISPOSITION_INFO dispose{TRUE};
    if (!::SetFileInformationByHandle(handle.Get(), FileDispositionInfo, &dispose, sizeof dispose)) {
        return Fail(status, FsError::Failed, ::GetLastError());
    }
    return true;
}

class WindowsFolder : public Folder {
public:
    WindowsFolder(Handle handle, std::wstring path, std::wstring extended)
        : handle_(std::move(handle)), path_(std::move(path)), extended_(std::move(extended)) {}

    const std::wstring& Path() const override { return path_; }

    bool List(std::vector<EntryInfo>& entries, FsStatus* status) override {
        return ListFolder(extended_, entries, status);
    }

    std::optional<EntryInfo> Stat(std::wstring_view name, FsStatus* status) override {
        if (!IsWindowsEntryName(name)) {
            Invalid(status);
            return std::nullopt;
        }
        const std::wstring path = Child(extended_, name);
        WIN32_FILE_ATTRIBUTE_DATA data{};
        if (!::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) {
            const DWORD code = ::GetLastError();
            Fail(status, win32::ErrorOf(code), code);
            return std::nullopt;
        }
        if (IsReparse(data.dwFileAttributes)) return InfoOf(std::wstring(name), data);
        // The handle gives the file's index too, as InputFile::Info does, so
        // that the two can be compared.
        const Handle handle =
            OpenEntry(path, FILE_READ_ATTRIBUTES, kShareAll, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS);
        BY_HANDLE_FILE_INFORMATION info{};
        if (handle.Valid() && ::GetFileInformationByHandle(handle.Get(), &info)) {
            return win32::InfoOf(std::wstring(name), info);
        }
        return InfoOf(std::wstring(name), data);
    }

    std::unique_ptr<Folder> OpenFolder(std::wstring_view name, FsStatus* status) override {
        if (!IsWindowsEntryName(name)) {
            Invalid(status);
            return nullptr;
        }
        const std::wstring path = Child(extended_, name);
        BY_HANDLE_FILE_INFORMATION info{};
        Handle handle = OpenChecked(path, {true, true, kFolderAccess, kShareFolder, OPEN_EXISTING,
                                           FILE_FLAG_BACKUP_SEMANTICS}, info, status);
        if (!handle.Valid()) return nullptr;
        return std::make_unique<WindowsFolder>(std::move(handle), JoinPath(path_, name), path);
    }

    std::unique_ptr<Folder> CreateFolder(std::wstring_view name, FsStatus* status) override {
        if (!IsWindowsEntryName(name)) {
            Invalid(status);
            return nullptr;
        }
        // ERROR_ALREADY_EXISTS stands for a file of that name as well as a
        // folder: opening it tells them apart (and refuses a link).
        if (!::CreateDirectoryW(Child(extended_, name).c_str(), nullptr)) {
            const DWORD code = ::GetLastError();
            if (code != ERROR_ALREADY_EXISTS) {
                Fail(status, win32::ErrorOf(code), code);
                return nullptr;
            }
        }
        return OpenFolder(name, status);
    }

    std::unique_ptr<InputFile> OpenFile(std::wstring_view name, FsStatus* status) override {
        if (!IsWindowsEntryName(name)) {
            Invalid(status);
            return nullptr;
        }
        BY_HANDLE_FILE_INFORMATION info{};
        Handle handle = OpenChecked(Child(extended_, name),
                                    {false, true, GENERIC_READ, kShareAll, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN},
                                    info, status);
        if (!handle.Valid()) return nullptr;
        return win32::MakeInputFile(std::move(handle), win32::InfoOf(std::wstring(name), info));
    }

    std::unique_ptr<OutputFile> OpenForWriting(std::wstring_view name, Create mode, FsStatus* status) override {
        if (!IsWindowsEntryName(name)) {
            Invalid(status);
            return nullptr;
        }
        // Appending with FILE_APPEND_DATA alone puts every write at the end,
        // also when another process appends at the same time.
        const DWORD access = mode == Create::Append
                                 ? FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE
                                 : GENERIC_WRITE | FILE_READ_ATTRIBUTES;
        // Emptying only after the check: a second name of a file elsewhere
        // (a hard link) is not ours to empty or extend.
        BY_HANDLE_FILE_INFORMATION info{};
        Handle handle = OpenChecked(Child(extended_, name),
                                    {false, mode != Create::New, access, kShareAll,
                                     mode == Create::New ? DWORD{CREATE_NEW} : DWORD{OPEN_ALWAYS}, FILE_ATTRIBUTE_NORMAL},
                                    info, status);
        if (!handle.Valid()) return nullptr;
        if (info.nNumberOfLinks > 1) {
            Fail(status, FsError::WrongKind);
            return nullptr;
        }
        if (mode == Create::Truncate && Combine(info.nFileSizeHigh, info.nFileSizeLow) > 0 &&
            !::SetEndOfFile(handle.Get())) {
            const DWORD code = ::GetLastError();
            Fail(status, FsError::Failed, code);
            return nullptr;
        }
        return win32::MakeOutputFile(std::move(handle));
    }

    bool Rename(std::wstring_view from, std::wstring_view to, bool replace, FsStatus* status) override {
        if (!IsWindowsEntryName(from) || !IsWindowsEntryName(to)) return Invalid(status);
        const std::wstring source = Child(extended_, from);
        // The module renames only what it wrote; a link in its place is not
        // moved (under Wine that would move what the link leads to).
        const DWORD attributes = ::GetFileAttributesW(source.c_str());
        if (attributes != INVALID_FILE_ATTRIBUTES && IsReparse(attributes)) return Fail(status, FsError::Link);
        const DWORD flags = MOVEFILE_WRITE_THROUGH | (replace ? MOVEFILE_REPLACE_EXISTING : 0);
        if (::MoveFileExW(source.c_str(), Child(extended_, to).c_str(), flags)) return true;
        const DWORD code = ::GetLastError();
        return Fail(status, win32::ErrorOf(code), code);
    }

    bool Remove(std::wstring_view name, bool recursive, FsStatus* status) override {
        if (!IsWindowsEntryName(name)) return Invalid(status);
        return RemovePath(Child(extended_, name), recursive, 0, status);
    }

    // Renames are made durable as they happen (MOVEFILE_WRITE_THROUGH) and
    // NTFS journals its folders; flushing a folder would need write access.
    bool Sync(FsStatus*) override { return true; }

    std::unique_ptr<FileLock> Lock(std::wstring_view name, bool wait, FsStatus* status) override {
        if (!IsWindowsEntryName(name)) {
            Invalid(status);
            return nullptr;
        }
        BY_HANDLE_FILE_INFORMATION info{};
        Handle handle = OpenChecked(Child(extended_, name),
                                    {false, true, GENERIC_READ | GENERIC_WRITE, kShareAll, OPEN_ALWAYS,
                                     FILE_ATTRIBUTE_NORMAL},
                                    info, status);
        if (!handle.Valid()) return nullptr;
        // Locks belong to the handle: two opens in one process exclude each
        // other just as two processes do.
        return win32::LockWholeFile(std::move(handle), wait, status);
    }

private:
    static bool Invalid(FsStatus* status) { return Fail(status, FsError::Invalid); }

    // A reparse point is removed as itself, never through its name (which
    // Wine resolves); a folder is emptied and deleted through one handle,
    // which keeps it from being swapped for a link meanwhile.
    static bool RemovePath(const std::wstring& path, bool recursive, int depth, FsStatus* status) {
        const DWORD attributes = ::GetFileAttributesW(path.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES) {
            const DWORD code = ::GetLastError();
            return IsGone(code) ? true : Fail(status, win32::ErrorOf(code), code);
        }
        if (IsReparse(attributes)) return RemoveLinkItself(path, status);
        if (!IsFolder(attributes)) {
            if (DeleteFileForced(path, attributes)) return true;
            const DWORD code = ::GetLastError();
            return IsGone(code) ? true : Fail(status, FsError::Failed, code);
        }
        const Handle handle =
            OpenEntry(path, DELETE | kFolderAccess, kShareFolder, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS);
        if (!handle.Valid()) {
            const DWORD code = ::GetLastError();
            return IsGone(code) ? true : Fail(status, win32::ErrorOf(code), code);
        }
        BY_HANDLE_FILE_INFORMATION info{};
        FsStatus opened;
        if (!CheckOpened(handle, true, info, &opened)) {
            if (opened.error == FsError::Link) return RemoveLinkItself(path, status);
            if (status != nullptr) *status = opened;
            return false;
        }
        if (recursive && !RemoveContents(handle, path, depth, status)) return false;
        FILE_DISPOSITION_INFO dispose{TRUE};
        if (::SetFileInformationByHandle(handle.Get(), FileDispositionInfo, &dispose, sizeof dispose)) return true;
        const DWORD code = ::GetLastError();
        return Fail(status, code == ERROR_DIR_NOT_EMPTY ? FsError::WrongKind : FsError::Failed, code);
    }

    static bool RemoveContents(const Handle& folder, const std::wstring& path, int depth, FsStatus* status) {
        if (depth >= kMaxRemoveDepth) return Fail(status, FsError::Failed);
        std::vector<std::wstring> names;
        if (!ListByHandle(folder.Get(), names, status)) return false;
        for (const auto& name : names) {
            if (!RemovePath(Child(path, name), true, depth + 1, status)) return false;
        }
        return true;
    }

    Handle handle_;           // held: the folder cannot be renamed or replaced meanwhile
    std::wstring path_;       // as given, for log lines and child processes
    std::wstring extended_;   // "\\?\" form, the base of every entry's path
};

}  // namespace

std::wstring ExtendedLengthPath(const std::wstring& path) {
    if (path.rfind(L"\\\\?\\", 0) == 0) return path;
    const DWORD needed = ::GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    if (needed == 0) return std::wstring();
    std::wstring full(needed, L'\0');
    const DWORD length = ::GetFullPathNameW(path.c_str(), needed, full.data(), nullptr);
    if (length == 0 || length >= needed) return std::wstring();
    full.resize(length);
    if (full.rfind(L"\\\\.\\", 0) == 0) return full;  // a device path stays one
    if (full.rfind(L"\\\\", 0) == 0) return L"\\\\?\\UNC\\" + full.substr(2);
    return L"\\\\?\\" + full;
}

bool IsWindowsEntryName(std::wstring_view name) {
    if (!IsEntryName(name)) return false;
    return std::none_of(name.begin(), name.end(), [](wchar_t c) {
        return c < L' ' || c == L':' || c == L'*' || c == L'?' || c == L'"' || c == L'<' || c == L'>' || c == L'|';
    });
}

std::unique_ptr<Folder> WindowsFileSystem::OpenFolder(const std::wstring& path, FsStatus* status) {
    const std::wstring extended = ExtendedLengthPath(path);
    if (path.empty() || extended.empty()) {
        Fail(status, FsError::Invalid);
        return nullptr;
    }
    // The caller trusts this path: links on the way, and at its end, are followed.
    Handle handle(::CreateFileW(extended.c_str(), kFolderAccess, kShareFolder, nullptr, OPEN_EXISTING,
                                FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (!handle.Valid()) {
        const DWORD code = ::GetLastError();
        Fail(status, win32::ErrorOf(code), code);
        return nullptr;
    }
    BY_HANDLE_FILE_INFORMATION info{};
    if (!::GetFileInformationByHandle(handle.Get(), &info) || !IsFolder(info.dwFileAttributes)) {
        Fail(status, FsError::WrongKind);
        return nullptr;
    }
    return std::make_unique<WindowsFolder>(std::move(handle), path, extended);
}

std::optional<std::uint64_t> WindowsFileSystem::FreeSpace(const std::wstring& path) {
    std::wstring folder = ExtendedLengthPath(path);
    if (folder.empty()) return std::nullopt;
    if (folder.back() != L'\\') folder.push_back(L'\\');
    ULARGE_INTEGER available{};
    if (!::GetDiskFreeSpaceExW(folder.c_str(), &available, nullptr, nullptr)) return std::nullopt;
    return available.QuadPart;
}

}  // namespace zep::platform
