// The demo device's plug-in program on Windows, where the device's run.sh
// cannot run; zepdiag init copies it into plugins\demo-plugin\ beside the
// component result it hands out:
//
//   demo-plugin.exe get-diagnostics <folder> <elevated|user|none>
//
// writes the plug-in's component result and a log into <folder> and answers
// on standard output whether the agent should delete them once uploaded.
#include "platform/windows/Win32.h"

#include <shellapi.h>

#include <string>

namespace {

std::string Utf8(const std::wstring& text) {
    const int size =
        ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<std::size_t>(size > 0 ? size : 0), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), utf8.data(), size, nullptr, nullptr);
    return utf8;
}

std::wstring ProgramFolder() {
    std::wstring path(32768, L'\0');
    path.resize(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path.substr(0, path.find_last_of(L'\\'));
}

bool WriteFileText(const std::wstring& path, const std::string& text) {
    const HANDLE file = ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                                      nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    DWORD written = 0;
    const BOOL ok = ::WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    return ::CloseHandle(file) && ok && written == text.size();
}

bool MakeFolder(const std::wstring& path) {
    return ::CreateDirectoryW(path.c_str(), nullptr) || ::GetLastError() == ERROR_ALREADY_EXISTS;
}

std::string Now() {
    SYSTEMTIME utc{};
    ::GetSystemTime(&utc);
    char text[32];
    wsprintfA(text, "%04u-%02u-%02uT%02u:%02u:%02uZ", utc.wYear, utc.wMonth, utc.wDay, utc.wHour, utc.wMinute,
              utc.wSecond);
    return text;
}

void Say(const char* text, DWORD handle) {
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(handle), text, static_cast<DWORD>(std::string(text).size()), &written, nullptr);
}

}  // namespace

int main() {
    int argc = 0;
    wchar_t** argv = ::CommandLineToArgvW(::GetCommandLineW(), &argc);
    if (argv == nullptr || argc != 4 || std::wstring(argv[1]) != L"get-diagnostics") {
        Say("demo-plugin: usage: demo-plugin.exe get-diagnostics <folder> <elevated|user|none>\r\n", STD_ERROR_HANDLE);
        return 2;
    }
    const std::wstring folder = argv[2];
    const std::string elevation = Utf8(argv[3]);
    const std::string now = Now();
    const std::string log = now + " [i] get-diagnostics started by the " + elevation + " instance, output folder " +
                            Utf8(folder) + "\r\n" + now + " [i] demo service: running, version 1.4.0.12\r\n" + now +
                            " [e] configuration: C:\\ProgramData\\Quorin\\DemoPlugin\\demo-plugin.conf not found\r\n" +
                            now + " [i] get-diagnostics finished\r\n";
    if (!MakeFolder(folder) || !MakeFolder(folder + L"\\Log") ||
        !::CopyFileW((ProgramFolder() + L"\\component-result.json").c_str(),
                     (folder + L"\\component-result.json").c_str(), FALSE) ||
        !WriteFileText(folder + L"\\Log\\demo-plugin.log", log)) {
        Say("demo-plugin: cannot write the diagnostics\r\n", STD_ERROR_HANDLE);
        return 1;
    }
    Say("{\"deleteFilesOnUpload\": false}\r\n", STD_OUTPUT_HANDLE);
    return 0;
}
