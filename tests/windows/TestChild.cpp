// A child process for the Windows tests, which have no shell to script one:
//
//   test-child.exe exit N                 exits with N
//   test-child.exe sleep MS               sleeps, then exits with 0
//   test-child.exe tree FILE              starts "test-child.exe sleep 60000", writes
//                                         "<own pid> <its pid>" to FILE, then sleeps
//   test-child.exe command-line           writes its command line (GetCommandLineW, UTF-8)
//                                         to standard output, exits with 0
//   test-child.exe get-diagnostics ...    a device's plug-in: does what the file
//                                         "behaviour" in the working directory says:
//                                         "status" exits with the number in the file
//                                         "status", "hang" sleeps 20 s, "answer" writes
//                                         the file "answer" to standard output
#include "platform/windows/Win32.h"

#include <shellapi.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

namespace {

std::string Utf8(const wchar_t* text) {
    const int size = ::WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (size <= 1) return {};
    std::string utf8(static_cast<std::size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text, -1, utf8.data(), size, nullptr, nullptr);
    utf8.pop_back();
    return utf8;
}

std::string ReadFile(const char* name) {
    std::ifstream in(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void Write(const std::string& text) {
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

int Tree(const std::wstring& file) {
    std::wstring self(32768, L'\0');
    self.resize(::GetModuleFileNameW(nullptr, self.data(), static_cast<DWORD>(self.size())));
    std::wstring line = L"\"" + self + L"\" sleep 60000";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION grandchild{};
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr,
                          &startup, &grandchild)) {
        return 3;
    }
    {
        std::ofstream out(file.c_str(), std::ios::trunc);
        out << ::GetCurrentProcessId() << ' ' << grandchild.dwProcessId << '\n';
    }
    ::Sleep(60000);
    return 0;
}

int Plugin() {
    const std::string behaviour = ReadFile("behaviour");
    if (behaviour.rfind("status", 0) == 0) return std::atoi(ReadFile("status").c_str());
    if (behaviour.rfind("hang", 0) == 0) {
        ::Sleep(20000);
        return 0;
    }
    if (behaviour.rfind("answer", 0) == 0) {
        Write(ReadFile("answer"));
        return 0;
    }
    return 2;
}

}  // namespace

int main() {
    int argc = 0;
    wchar_t** argv = ::CommandLineToArgvW(::GetCommandLineW(), &argc);
    if (argv == nullptr || argc < 2) return 2;
    const std::wstring command = argv[1];
    if (command == L"exit" && argc == 3) return _wtoi(argv[2]);
    if (command == L"sleep" && argc == 3) {
        ::Sleep(static_cast<DWORD>(_wtoi(argv[2])));
        return 0;
    }
    if (command == L"tree" && argc == 3) return Tree(argv[2]);
    if (command == L"command-line") {
        Write(Utf8(::GetCommandLineW()));
        return 0;
    }
    if (command == L"get-diagnostics") return Plugin();
    return 2;
}
