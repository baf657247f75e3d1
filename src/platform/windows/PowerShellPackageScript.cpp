#include "platform/windows/PowerShellPackageScript.h"

#include "artifacts/PowerShellCommands.h"
#include "platform/agent/CommonBase.h"

namespace zep::platform {
namespace {

int RunPowerShellScript(const std::wstring& script, const std::wstring& outputFolder) {
    return ProcessWrap::LaunchApplicationAndCheckExitCode(
        artifacts::PackageScriptCommand(utility::GetSystemDirectoryW(), script, outputFolder), L"", true, nullptr);
}

}  // namespace

collect::PackageScriptWay PowerShellPackageScript() {
    return collect::PackageScriptWay{L"install.ps1", &RunPowerShellScript};
}

}  // namespace zep::platform
