// Reaches the manager's private operations and state for tests.
#pragma once

#include <string>
#include <vector>


#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/agent/ZEPNotificationData.h"

class DiagnosticsManagerTestPeer {
public:
    explicit DiagnosticsManagerTestPeer(DiagnosticsManager& manager) : m_(manager) {}

    void OnNotification(ZEPNotificationData& data) { m_.OnNotification(data); }
    std::wstring ScanFolder() {
        std::wstring folder;
        m_.GetScanFolderPath(folder);
        return folder;
    }

    std::vector<zep::diagnostics::Tests>& tests() { return m_.tests; }
    std::wstring& scanID() { return m_.scanID; }
    std::uint32_t& triggerType() { return m_.triggerType; }
    DiagnosticsManager::ResultType& resultType() { return m_.resultType; }
    bool& isProblematic() { return m_.isProblematic; }
    bool& networkStatus() { return m_.networkStatus; }
    std::int32_t& artifactIncludedStatus() { return m_.artifactIncludedStatus; }
    std::int32_t& totalTestFailureCount() { return m_.totalTestFailureCount; }
    std::wstring& problemSignature() { return m_.problemSignature; }
    std::wstring& diagnosticsCompletedTime() { return m_.diagnosticsCompletedTime; }
    std::shared_ptr<zep::diagnostics::IDiagnosticsGenerator>& generator() { return m_.generator; }

    static void SetTestTimeout(std::uint32_t seconds) { DiagnosticsManager::_testTimeoutInSeconds = seconds; }

    // What Init would have stored, for tests that check it reaches the launcher.
    void SetHostContext(void* context) { m_.hostContext = context; }

    void LogCriticalEvent() { m_.LogCriticalEvent(); }

    // The scan history.
    void GenerateScanHistory() { m_.GenerateScanHistory(); }

private:
    DiagnosticsManager& m_;
};
