#include "platform/windows/Win32.h"

#include "platform/windows/WindowsSystem.h"

#include <sddl.h>
#include <wtsapi32.h>

#include <vector>

namespace zep::platform {
namespace {

using win32::Handle;

// Calls `get(buffer, size)` (a Win32 "fill this buffer" function returning
// the length, or the size needed when the buffer is too small) until the
// answer fits.
template <typename Get>
std::wstring ReadString(Get&& get) {
    std::wstring buffer(MAX_PATH + 1, L'\0');
    for (int attempt = 0; attempt < 4; ++attempt) {
        const DWORD length = get(buffer.data(), static_cast<DWORD>(buffer.size()));
        if (length == 0) return std::wstring();
        if (length < buffer.size()) {
            buffer.resize(length);
            return buffer;
        }
        buffer.assign(length + 1, L'\0');
    }
    return std::wstring();
}

std::wstring UserSidOf(HANDLE token) {
    DWORD size = 0;
    ::GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    if (size == 0) return std::wstring();
    std::vector<BYTE> buffer(size);
    if (!::GetTokenInformation(token, TokenUser, buffer.data(), size, &size)) return std::wstring();
    wchar_t* text = nullptr;
    if (!::ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid, &text)) return std::wstring();
    std::wstring sid(text);
    ::LocalFree(text);
    return sid;
}

}  // namespace

std::optional<std::wstring> WindowsSystem::AppDataRoot() {
    const std::wstring programData = ReadString([](wchar_t* buffer, DWORD size) {
        return ::GetEnvironmentVariableW(L"ProgramData", buffer, size);
    });
    if (programData.empty()) return std::nullopt;
    std::wstring root = programData;
    if (root.back() != L'\\') root.push_back(L'\\');
    root += L"Quorin\\Zep";
    const DWORD attributes = ::GetFileAttributesW(root.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) return std::nullopt;
    return root;
}

std::wstring WindowsSystem::TempFolder() {
    std::wstring folder = ReadString([](wchar_t* buffer, DWORD size) { return ::GetTempPathW(size, buffer); });
    if (!folder.empty() && folder.back() != L'\\') folder.push_back(L'\\');
    return folder;
}

std::wstring WindowsSystem::SystemDirectory() {
    return ReadString([](wchar_t* buffer, DWORD size) { return ::GetSystemDirectoryW(buffer, size); });
}

std::wstring WindowsSystem::WindowsDirectory() {
    wchar_t buffer[MAX_PATH];
    const UINT length = ::GetWindowsDirectoryW(buffer, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) return std::wstring();
    return std::wstring(buffer, length);
}

std::wstring WindowsSystem::LoggedInUserSid() {
    const DWORD session = ::WTSGetActiveConsoleSessionId();
    if (session == 0xFFFFFFFF) return std::wstring();  // nobody at the console
    HANDLE token = nullptr;
    if (::WTSQueryUserToken(session, &token)) {
        const Handle owned(token);
        return UserSidOf(owned.Get());
    }
    if (::GetLastError() == ERROR_NO_TOKEN) return std::wstring();  // a session nobody is logged on to
    // Not LocalSystem (a host run by hand, the tests): the process's own user.
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token)) return std::wstring();
    const Handle owned(token);
    return UserSidOf(owned.Get());
}

}  // namespace zep::platform
