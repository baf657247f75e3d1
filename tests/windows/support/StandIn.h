// The stand-in powershell.exe of the Windows tests, installed where the
// module looks for PowerShell (<system directory>\WindowsPowerShell\v1.0),
// only ever inside a Wine prefix. It records every command line it is
// started with into the file named by ZEP_POWERSHELL_RECORD.
#pragma once

#include <string>
#include <vector>

namespace zep::testing {

// Installs the stand-in (from beside the tests) and points the record at
// `record` (emptied), for this process and the programs it starts. False
// when not under Wine or when it cannot be installed; `why` says which.
bool InstallPowerShellStandIn(const std::wstring& record, std::string& why);

// The command lines recorded so far, one per run, as UTF-8.
std::vector<std::string> RecordedCommandLines(const std::wstring& record);

}  // namespace zep::testing
