// One scan, from trigger to reset, on the worker thread.
#include <chrono>
#include <exception>

#include <json/json.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "DiagnosticScanner/ZEPDiagnosticsGenerator.h"
#include "artifacts/Debris.h"
#include "manager/ScanLock.h"
#include "manager/ScanName.h"
#include "platform/util/ExceptionText.h"
#include "platform/agent/CommonBase.h"
#include "platform/env/Env.h"
#include "platform/util/Paths.h"

namespace {

constexpr const char* kRunDiagnostics = "DiagnosticsManager::RunDiagnostics";

std::int64_t SteadyNanoseconds() { return zep::platform::CurrentEnv()->clock->SteadyNow().count(); }


// Runs one phase of a scan. A phase that throws is logged and the scan goes
// on with the next one: what earlier phases wrote is kept.
template <typename Phase>
void RunPhase(const char* name, Phase&& phase) {
    try {
        phase();
    } catch (...) {
        g_log.e(L"%s: Exception Occurred: %ls", name, zep::CurrentExceptionText());
    }
}

}  // namespace

void DiagnosticsManager::GenerateDiagnostics(unsigned long requestCode, std::optional<DiagnosticsParams> params) {
    std::lock_guard<std::mutex> lock(scanMutex);
    const auto deviceLock = zep::manager::LockDeviceScans();

    if (requestCode == kManualScanRequest) {
        triggerType = 0;
    } else if (requestCode == kMqttScanRequest) {
        triggerType = 2;
    } else {
        triggerType = 1;
    }
    scanID = ChooseScanName(params ? params->requestId : requestId);

    DWORD timeout = 0;
    if (CRegUtil::GetRegValueOfDwordType(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport",
                                         L"TimeoutInSeconds", timeout) != 0) {
        _testTimeoutInSeconds = timeout;
    }

    if (!params) {
        if (triggerType == 2) {
            g_log.e(L"No Diagnostic params found");
            return;
        }
        RunZepBranch();
    } else {
        if (params->targets.count(L"zep") != 0) RunZepBranch();
        for (const auto& target : params->targets) {
            if (target == L"zep") continue;
            g_log.d(L"Trying to collect plugin Diagnostics for target: %s", target);
            RunPhase("DiagnosticsManager::GeneratePluginDiagnosticsForMqttTarget",
                     [&] { GeneratePluginDiagnosticsForMqttTarget(target); });
        }
    }
    RunPhase("DiagnosticsManager::LogCriticalEvent", [&] { LogCriticalEvent(); });
    ResetComponentResultValues();
}

std::wstring DiagnosticsManager::ChooseScanName(const std::wstring& id) {
    if (id.empty()) return CGuid::NewGuid(1);
    if (zep::manager::IsSafeScanName(id)) return id;
    // The scan name names folders that are deleted recursively later on; an id
    // that is not one plain path component could point them anywhere.
    std::wstring name = CGuid::NewGuid(1);
    g_log.e(L"%s: request id '%s' cannot name the scan's folders; the scan is named %s",
            "DiagnosticsManager::GenerateDiagnostics", id, name);
    return name;
}

void DiagnosticsManager::RunZepBranch() {
    g_log.d(L"Starting Zep Diagnostics");
    RunPhase("DiagnosticsManager::RemoveDebrisOfDeadScans", [&] {
        std::wstring latest;
        std::wstring components;
        GetScanFolderPath(latest);
        GetComponentFolderPath(components);
        zep::artifacts::RemoveDebrisOfDeadScans(latest, components);
    });
    RunPhase("DiagnosticsManager::GenerateDiagnosticsForPackages", [&] { GenerateDiagnosticsForPackages(); });
    RunPhase("DiagnosticsManager::GenerateDiagnosticsForZEP", [&] { GenerateDiagnosticsForZEP(); });
    RunPhase("DiagnosticsManager::UploadDiagnosticsResults", [&] { UploadDiagnosticsResults(); });
    RunPhase("DiagnosticsManager::GenerateScanHistory", [&] { GenerateScanHistory(); });
}

void DiagnosticsManager::GenerateDiagnosticsForZEP() {
    generator = std::make_shared<ZEP::ZEPDiagnosticsGenerator>();
    std::wstring executionTime;
    ResultType result = Complete;
    RunDiagnostics(generator, executionTime, result);

    commonComponent component;
    component.executionTime = executionTime;
    component.resultType = GetResultType(result);
    component.componentId = generator->GetComponentId();
    component.friendlyName = generator->GetFriendlyName();
    component.failedTests = GetFailedZepTestsCount();
    g_log.d(L"%s: zep: ran tests: %d", "DiagnosticsManager::GenerateDiagnosticsForZEP", tests.size());

    RunPhase("DiagnosticsManager::HandleFlowAfterRunOfTests", [&] { HandleFlowAfterRunOfTests(component); });
    RunPhase("DiagnosticsManager::GenerateScanResultInJson", [&] { GenerateScanResultInJson(); });
    RunPhase("DiagnosticsManager::CreateZipFolder", [&] { CreateZipFolder(); });
    RunPhase("DiagnosticsManager::AddArtifactSize", [&] { AddArtifactSize(); });
}

void DiagnosticsManager::RunDiagnostics(std::shared_ptr<zep::diagnostics::IDiagnosticsGenerator> testGenerator,
                                        std::wstring& executionTime, ResultType& result) {
    result = Complete;
    const std::int64_t start = SteadyNanoseconds();
    g_log.d(L"%s: running tests", kRunDiagnostics);
    try {
        testGenerator->RunTests(tests);
        const double elapsedSeconds = static_cast<double>(SteadyNanoseconds() - start) / 1e9;
        // The tests are not interrupted: the time-out is judged once they all ran.
        if (elapsedSeconds > static_cast<double>(_testTimeoutInSeconds.load())) {
            result = ErrorTimeOut;
            executionTime = L"0";
            tests.clear();
        } else {
            g_log.d(L"%s: done running tests, size is %d", kRunDiagnostics, tests.size());
            FormatExecutionTime(static_cast<float>(elapsedSeconds), executionTime);
        }
    } catch (...) {
        g_log.d(L"%s: exception during tests running %s", kRunDiagnostics, zep::CurrentExceptionText());
        result = ErrorGeneral;
        executionTime = L"0";
        tests.clear();
    }
}

void DiagnosticsManager::HandleFlowAfterRunOfTests(commonComponent& component) {
    Json::Value document = GetJsonCommonData(component);
    GetComponentResultsInJson(document);

    // <component folder>\<scan name>\<generator name>\component-result.json:
    // the agent's component folder that staging and the scan result look for.
    std::wstring folder;
    GetComponentFolderPath(folder);
    folder += zep::path::kSeparator;
    folder += scanID;
    folder += zep::path::kSeparator;
    folder += generator ? generator->GetFriendlyName() : component.friendlyName;
    FileSystem::createDirectory(folder, true);
    SaveComponentResultsToFile(document, folder + zep::path::kSeparator + componentResultFileName);

    diagnosticsCompletedTime =
        String::UTF8ToUTF16(DateTimeUtility::convertGMTTimeToString(DateTimeUtility::GetCurrentGmtDatetime()));
}
