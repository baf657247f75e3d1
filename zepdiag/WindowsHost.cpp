#include "platform/windows/Win32.h"
#include <shellapi.h>

#include "WindowsHost.h"

#include "platform/util/Strings.h"

namespace zepdiag {

std::filesystem::path RunningProgramFolder() {
    std::wstring path(32768, L'\0');
    path.resize(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return std::filesystem::path(path).parent_path();
}

std::vector<std::string> Utf8Arguments() {
    int count = 0;
    wchar_t** arguments = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    std::vector<std::string> utf8;
    if (arguments == nullptr) return utf8;
    for (int i = 0; i < count; ++i) utf8.push_back(zep::text::ToUtf8(arguments[i]));
    ::LocalFree(arguments);
    return utf8;
}

}  // namespace zepdiag
