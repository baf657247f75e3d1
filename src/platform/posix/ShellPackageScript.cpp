#include "platform/posix/ShellPackageScript.h"

#include "platform/agent/CommonBase.h"
#include "platform/env/Env.h"

namespace zep::platform {
namespace {

constexpr const wchar_t* kRunPackageScript = L"NativeCollection::RunPackageScript";

int RunShellScript(const std::wstring& script, const std::wstring& outputFolder) {
    const auto env = CurrentEnv();
    if (!env || !env->processes) return 0;
    ProcessRequest command;
    command.argv = {L"/bin/sh", script, L"-command", L"get-diagnostics", L"-outDir", outputFolder};
    // Not the test time-out (that is judged afterwards) but the hard stop
    // that keeps one hung script from holding every later scan.
    command.timeout = ProcessWrap::ChildProcessCeiling();
    const ProcessResult result = env->processes->Spawn(command);
    if (!result.started) {
        g_log.e(L"%s: cannot start %s", kRunPackageScript, script);
        return 0;
    }
    if (result.timedOut) {
        g_log.e(L"%s: %s was stopped after its time limit", kRunPackageScript, script);
        return 0;
    }
    if (result.exitCode != 0) {
        g_log.d(L"%s: %s ended with %d", kRunPackageScript, script, result.exitCode);
        return 0;
    }
    return 1;
}

}  // namespace

collect::PackageScriptWay ShellPackageScript() { return collect::PackageScriptWay{L"install.sh", &RunShellScript}; }

}  // namespace zep::platform
