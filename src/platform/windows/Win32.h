// The one door to <windows.h> for the Win32 backend and the Windows-only
// files of the host and the tests, and what the backend's files share: an
// owned handle and the text of a system error. The portable code never
// includes it.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
// agent/WinTypes.h may have declared the hive handles with the same values;
// windows.h's own definitions take their place.
#undef HKEY_LOCAL_MACHINE
#undef HKEY_USERS
#include <windows.h>

// windows.h maps each generic name to its W or A function by a macro
// (CreateDirectory -> CreateDirectoryW). A member or function of ours that
// shares such a name would be renamed in the files that see windows.h and
// not in the others, and the two halves would no longer meet. The backend
// calls the W functions by their full names, so the generic ones go.
#undef CopyFile
#undef CreateDirectory
#undef CreateFile
#undef CreateProcess
#undef DeleteFile
#undef GetCommandLine
#undef GetMessage
#undef GetSystemDirectory
#undef GetTempPath
#undef GetWindowsDirectory
#undef MoveFile
#undef RemoveDirectory
#undef ReportEvent

#include <string>
#include <utility>

namespace zep::platform::win32 {

// A kernel handle closed once, by its owner. INVALID_HANDLE_VALUE and null
// both mean none (CreateFileW returns the one, most other calls the other).
class Handle {
public:
    Handle() = default;
    explicit Handle(HANDLE handle) : handle_(handle) {}
    ~Handle() { Reset(); }
    Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept {
        if (this != &other) {
            Reset();
            handle_ = std::exchange(other.handle_, nullptr);
        }
        return *this;
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    bool Valid() const { return handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE; }
    HANDLE Get() const { return handle_; }
    HANDLE Release() { return std::exchange(handle_, nullptr); }
    void Reset(HANDLE handle = nullptr) {
        if (Valid()) ::CloseHandle(handle_);
        handle_ = handle;
    }

private:
    HANDLE handle_ = nullptr;
};

// The system's text for an error code, UTF-8, without the trailing line break.
std::string ErrorText(DWORD code);

}  // namespace zep::platform::win32
