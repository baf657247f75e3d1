// The manager's component result documents and per-scan result state.
#include <json/json.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/CommonBase.h"
#include "results/ResultFormat.h"

namespace {
constexpr const char* kSaveLabel = "DiagnosticsManager::SaveComponentResultsToFile";
}

Json::Value DiagnosticsManager::GetJsonCommonData(commonComponent& component) {
    Json::Value document(Json::objectValue);
    document["componentId"] = String::UTF16ToUTF8(component.componentId);
    document["friendlyName"] = String::UTF16ToUTF8(component.friendlyName);
    document["executionTimeSeconds"] = String::UTF16ToUTF8(component.executionTime);
    document["resultType"] = String::UTF16ToUTF8(component.resultType);
    document["isProblematic"] = component.failedTests != 0;
    if (component.failedTests != 0) isProblematic = true;
    return document;
}

void DiagnosticsManager::GetComponentResultsInJson(Json::Value& out) { out["tests"] = zep::results::TestsToJson(tests); }

void DiagnosticsManager::SaveComponentResultsToFile(Json::Value& doc, std::wstring path) {
    try {
        const std::string text = zep::results::WriteDocument(doc);
        g_log.d(L"%s", path);
        // Replaced atomically: a crash mid-write leaves the old document or
        // the new one, never a truncated file that later readers choke on.
        if (!FileSystem::writeFileAtomically(path, text)) {
            g_log.d(L"Error opening json file %s", path);
            return;
        }
        g_log.d(L"Json data written to file %s", path);
    } catch (const std::exception& ex) {
        g_log.d(L"%s: Exception Occurred: %ls", kSaveLabel, String::UTF8ToUTF16(ex.what()));
    } catch (...) {
        g_log.d(L"%s: Exception Occurred: %ls", kSaveLabel, L"unknown exception");
    }
}

void DiagnosticsManager::FormatExecutionTime(float seconds, std::wstring& out) {
    out = zep::results::FormatExecutionTime(seconds);
}

std::wstring DiagnosticsManager::GetResultType(ResultType& result) {
    resultType = result;
    return zep::results::ResultTypeText(result);
}

std::wstring DiagnosticsManager::GetTriggerType() { return zep::results::TriggerTypeText(triggerType); }

void DiagnosticsManager::ResetComponentResultValues() {
    isProblematic = false;
    contextCollected = false;
    logsCollected = false;
    networkStatus = true;
    fileUploadStatus = false;
    artifactIncludedStatus = 1;
    totalTestFailureCount = 0;
    _totalExecutionTime = 0.0f;
    problemSignature.clear();
    resultType = static_cast<ResultType>(-1);
    scanID.clear();
    requestId.clear();
}

bool DiagnosticsManager::GetIsProblematic() const { return isProblematic; }
bool DiagnosticsManager::GetNetworkStatus() const { return networkStatus; }
bool DiagnosticsManager::GetFileUploadStatus() const { return fileUploadStatus; }
int DiagnosticsManager::GetArtifactIncludedStatus() const { return artifactIncludedStatus; }
int DiagnosticsManager::GetTotalTestFailureCount() const { return totalTestFailureCount; }
std::wstring DiagnosticsManager::GetScanID() const { return scanID; }
std::wstring DiagnosticsManager::GetDiagnosticsCompletedTime() const { return diagnosticsCompletedTime; }
std::wstring DiagnosticsManager::GetProblemSignature() const { return problemSignature; }
std::wstring DiagnosticsManager::GetTotalExecutionTime() { return zep::results::FormatExecutionTime(_totalExecutionTime); }
