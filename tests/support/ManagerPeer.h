// Reaches the manager's private operations and state for tests.
#pragma once

#include <string>
#include <vector>

#include <json/json.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/ZEPNotificationData.h"

class DiagnosticsManagerTestPeer {
public:
    explicit DiagnosticsManagerTestPeer(DiagnosticsManager& manager) : m_(manager) {}

    void OnNotification(ZEPNotificationData& data) { m_.OnNotification(data); }
    std::wstring GetResultType(DiagnosticsManager::ResultType result) { return m_.GetResultType(result); }
    std::wstring GetTriggerType() { return m_.GetTriggerType(); }
    void ResetComponentResultValues() { m_.ResetComponentResultValues(); }
    int GetFailedZepTestsCount() { return m_.GetFailedZepTestsCount(); }
    std::wstring ComponentFolder() {
        std::wstring folder;
        m_.GetComponentFolderPath(folder);
        return folder;
    }
    std::wstring ScanFolder() {
        std::wstring folder;
        m_.GetScanFolderPath(folder);
        return folder;
    }
    std::wstring ZipFolderName() {
        std::wstring name;
        m_.GetZipFolderName(name);
        return name;
    }

    std::vector<zep::diagnostics::Tests>& tests() { return m_.tests; }
    std::wstring& scanID() { return m_.scanID; }
    std::wstring& requestId() { return m_.requestId; }
    std::uint32_t& triggerType() { return m_.triggerType; }
    DiagnosticsManager::ResultType& resultType() { return m_.resultType; }
    bool& isProblematic() { return m_.isProblematic; }
    bool& networkStatus() { return m_.networkStatus; }
    bool& fileUploadStatus() { return m_.fileUploadStatus; }
    bool& contextCollected() { return m_.contextCollected; }
    bool& logsCollected() { return m_.logsCollected; }
    std::int32_t& artifactIncludedStatus() { return m_.artifactIncludedStatus; }
    std::int32_t& totalTestFailureCount() { return m_.totalTestFailureCount; }
    float& totalExecutionTime() { return m_._totalExecutionTime; }
    std::wstring& problemSignature() { return m_.problemSignature; }
    std::wstring& diagnosticsCompletedTime() { return m_.diagnosticsCompletedTime; }
    std::shared_ptr<zep::diagnostics::IDiagnosticsGenerator>& generator() { return m_.generator; }
    void* hostContext() { return m_.hostContext; }
    bool initialized() { return m_.initialized; }

    void SaveComponentResultsToFile(Json::Value& document, const std::wstring& path) {
        m_.SaveComponentResultsToFile(document, path);
    }

    static std::uint32_t TestTimeout() { return DiagnosticsManager::_testTimeoutInSeconds; }
    static void SetTestTimeout(std::uint32_t seconds) { DiagnosticsManager::_testTimeoutInSeconds = seconds; }

    bool CreateIntermediateDirectories(const std::wstring& path) { return m_.CreateIntermediateDirectories(path); }
    // What Init would have stored, for tests that check it reaches the launcher.
    void SetHostContext(void* context) { m_.hostContext = context; }

    // Result documents and the scan summary.
    void ParseComponentJson(const std::string& path, std::vector<Json::Value>& out) {
        m_.ParseComponentJson(path, out);
    }
    std::vector<std::string> GetAllJsonFilePaths(const std::string& folder) { return m_.GetAllJsonFilePaths(folder); }
    void RepopulateComponentResultValues() { m_.RepopulateComponentResultValues(); }
    std::wstring GetCurrentTimeStamp() { return m_.GetCurrentTimeStamp(); }
    bool GenerateProblemSignature(const std::vector<Json::Value>& components, std::wstring& signature) {
        return m_.GenerateProblemSignature(components, signature);
    }
    void AddArtifactSize() { m_.AddArtifactSize(); }
    void LogCriticalEvent() { m_.LogCriticalEvent(); }

    // The scan history.
    void GenerateScanHistory() { m_.GenerateScanHistory(); }

private:
    DiagnosticsManager& m_;
};
