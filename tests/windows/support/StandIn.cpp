#include "windows/support/StandIn.h"

#include "platform/windows/Win32.h"

#include <fstream>

#include "support/Links.h"
#include "support/Programs.h"

namespace zep::testing {

bool InstallPowerShellStandIn(const std::wstring& record, std::string& why) {
    if (!RunningUnderWine()) {
        why = "installs into the system directory: Wine only";
        return false;
    }
    wchar_t system[MAX_PATH];
    const std::wstring directory(system, ::GetSystemDirectoryW(system, MAX_PATH));
    const std::wstring folder = directory + L"\\WindowsPowerShell\\v1.0";
    ::CreateDirectoryW((directory + L"\\WindowsPowerShell").c_str(), nullptr);
    ::CreateDirectoryW(folder.c_str(), nullptr);
    if (!::CopyFileW(ProgramBesideTests("PowerShellStandIn").c_str(), (folder + L"\\powershell.exe").c_str(), FALSE)) {
        why = "cannot copy the stand-in: error " + std::to_string(::GetLastError());
        return false;
    }
    ::DeleteFileW(record.c_str());
    // Wine runs its built-in powershell.exe unless told to prefer the file.
    return ::SetEnvironmentVariableW(L"ZEP_POWERSHELL_RECORD", record.c_str()) &&
           ::SetEnvironmentVariableW(L"WINEDLLOVERRIDES", L"powershell.exe=n");
}

std::vector<std::string> RecordedCommandLines(const std::wstring& record) {
    std::vector<std::string> lines;
    std::ifstream in(record.c_str(), std::ios::binary);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace zep::testing
