#include "support/Links.h"

#ifdef _WIN32
#include "platform/windows/Win32.h"

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "platform/util/Strings.h"
#include "platform/util/WindowsCommandLine.h"
#endif

#include <system_error>

namespace zep::testing {

#ifdef _WIN32
namespace {

// Wine's own translation of a Windows path to the Unix one.
std::wstring UnixPath(const std::filesystem::path& path) {
    using Translate = char*(__cdecl*)(const wchar_t*);
    const auto translate = reinterpret_cast<Translate>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
    char* unix = translate != nullptr ? translate(path.c_str()) : nullptr;
    if (unix == nullptr) return std::wstring();
    const std::string bytes(unix);
    ::HeapFree(::GetProcessHeap(), 0, unix);
    return zep::text::FromUtf8(bytes);
}

// Runs `script` with /bin/sh (Wine starts a Unix program named by its Unix
// path) on `args` ($1, $2, ...), and waits until it has finished: Wine gives
// no handle to wait on, so the script leaves a mark behind when it is done.
bool RunShell(const std::wstring& script, std::vector<std::wstring> args) {
    static int runs = 0;
    const std::filesystem::path mark = std::filesystem::temp_directory_path() /
                                       ("zep-unix-" + std::to_string(::GetCurrentProcessId()) + "-" +
                                        std::to_string(++runs));
    const std::wstring unixMark = UnixPath(mark);
    if (unixMark.empty()) return false;
    args.push_back(unixMark);
    std::vector<std::wstring> argv = {L"/bin/sh", L"-c",
                                      script + L"; : > \"${" + std::to_wstring(args.size()) + L"}\"", L"sh"};
    argv.insert(argv.end(), args.begin(), args.end());
    const auto line = zep::platform::JoinWindowsCommandLine(argv);
    if (!line) return false;
    std::vector<wchar_t> command(line->begin(), line->end());
    command.push_back(L'\0');
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!::CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr,
                          &startup, &process)) {
        return false;
    }
    ::CloseHandle(process.hThread);
    ::CloseHandle(process.hProcess);
    for (int i = 0; i < 1000 && !EntryExists(mark); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return ::DeleteFileW(mark.c_str()) != 0;
}

bool UnixLink(const std::filesystem::path& link, const std::filesystem::path& target) {
    const std::wstring from = UnixPath(target);
    const std::wstring to = UnixPath(link);
    return !from.empty() && !to.empty() && RunShell(L"ln -s \"$1\" \"$2\"", {from, to}) && EntryExists(link);
}

bool UnixRemove(const std::filesystem::path& path) {
    const std::wstring unix = UnixPath(path);
    return !unix.empty() && RunShell(L"rm -rf \"$1\"", {unix});
}

}  // namespace

bool RunningUnderWine() {
    return ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

bool MakeFolderLink(const std::filesystem::path& link, const std::filesystem::path& target) {
    if (RunningUnderWine()) return UnixLink(link, target);
    return ::CreateSymbolicLinkW(link.c_str(), target.c_str(),
                                 SYMBOLIC_LINK_FLAG_DIRECTORY | SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE) &&
           EntryExists(link);
}

bool MakeFileLink(const std::filesystem::path& link, const std::filesystem::path& target) {
    if (RunningUnderWine()) return UnixLink(link, target);
    return ::CreateSymbolicLinkW(link.c_str(), target.c_str(), SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE) &&
           EntryExists(link);
}

bool RemoveLink(const std::filesystem::path& link) {
    if (RunningUnderWine()) return UnixRemove(link);
    return ::RemoveDirectoryW(link.c_str()) || ::DeleteFileW(link.c_str());
}

void RemoveTree(const std::filesystem::path& folder) {
    if (RunningUnderWine()) {
        UnixRemove(folder);
        return;
    }
    std::error_code code;
    std::filesystem::remove_all(folder, code);
}

bool EntryExists(const std::filesystem::path& path) {
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool IsLink(const std::filesystem::path& path) {
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

#else

bool RunningUnderWine() { return false; }

bool MakeFolderLink(const std::filesystem::path& link, const std::filesystem::path& target) {
    std::error_code code;
    std::filesystem::create_directory_symlink(target, link, code);
    return !code;
}

bool MakeFileLink(const std::filesystem::path& link, const std::filesystem::path& target) {
    std::error_code code;
    std::filesystem::create_symlink(target, link, code);
    return !code;
}

bool RemoveLink(const std::filesystem::path& link) {
    std::error_code code;
    return std::filesystem::remove(link, code);
}

void RemoveTree(const std::filesystem::path& folder) {
    std::error_code code;
    std::filesystem::remove_all(folder, code);
}

bool EntryExists(const std::filesystem::path& path) {
    std::error_code code;
    return std::filesystem::exists(std::filesystem::symlink_status(path, code));
}

bool IsLink(const std::filesystem::path& path) {
    std::error_code code;
    return std::filesystem::is_symlink(std::filesystem::symlink_status(path, code));
}

#endif

}  // namespace zep::testing
