// The manager's component result documents and per-scan result state.
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/agent/CommonBase.h"
#include "platform/util/Paths.h"
#include "results/ResultFormat.h"

namespace {
constexpr const char* kSaveLabel = "DiagnosticsManager::SaveComponentResultsToFile";
constexpr const char* kParseLabel = "DiagnosticsManager::ParseComponentJson";
constexpr const char* kRepopulateLabel = "DiagnosticsManager::RepopulateComponentResultValues";

std::wstring ExceptionText(const std::exception& ex) { return String::UTF8ToUTF16(ex.what()); }
}  // namespace

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

void DiagnosticsManager::ParseComponentJson(const std::string& path, std::vector<Json::Value>& out) {
    try {
        // Through the module's reader: a package may leave a link or a FIFO
        // named *.json in its folder, which must neither be followed nor
        // waited for, and a document has a size limit.
        std::string text;
        // The narrow path is in the system's own narrow encoding, as the walk made it.
        if (!FileSystem::readFile(zep::path::FromFs(std::filesystem::path(path)), text)) {
            g_log.d(L"%s Error opening component file:%s", kParseLabel, path);
            return;
        }
        if (text.empty()) {
            g_log.d(L"%s skipping empty component file:%s", kParseLabel, path);
            return;
        }
        std::istringstream in(std::move(text));
        // The default reader settings bound the nesting depth (stackLimit), so
        // a hostile document ends in an exception, not a stack overflow.
        Json::Value document;
        in >> document;
        out.push_back(std::move(document));
    } catch (const std::exception& ex) {
        g_log.d(L"%s: Exception Occurred: %ls", kParseLabel, ExceptionText(ex));
    }
}

std::vector<std::string> DiagnosticsManager::GetAllJsonFilePaths(const std::string& folder) {
    namespace fs = std::filesystem;
    std::vector<std::string> paths;
    // No error_code overloads: a walk that fails throws fs::filesystem_error,
    // for the caller to decide about.
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(fs::path(folder))) {
        if (entry.is_regular_file() && entry.path().extension().string() == ".json") {
            paths.push_back(entry.path().string());
        }
    }
    g_log.d(L"total files: %d", paths.size());
    return paths;
}

void DiagnosticsManager::RepopulateComponentResultValues() {
    std::wstring path;
    GetScanFolderPath(path);
    path += L"scan-result.json";

    std::string text;
    if (!FileSystem::readFile(path, text)) {
        g_log.d(L"%s Error opening component file:%s", kRepopulateLabel, path);
        return;
    }
    // Fields are assigned one by one; those assigned before a failure keep
    // their new values.
    try {
        std::istringstream in(text);
        Json::Value document;
        in >> document;

        const std::string seconds = document["executionTimeSeconds"].asString();
        if (!seconds.empty()) _totalExecutionTime += std::stof(seconds);
        isProblematic = document["isProblematic"].asBool();
        totalTestFailureCount = document["failTestCount"].asInt();
        fileUploadStatus = false;
        problemSignature = String::UTF8ToUTF16(document["problemSignature"].asString());
        scanID = String::UTF8ToUTF16(document["id"].asString());
    } catch (const std::exception& ex) {
        g_log.d(L"%s: Exception Occurred: %ls", kRepopulateLabel, ExceptionText(ex));
    }
}

std::wstring DiagnosticsManager::GetCurrentTimeStamp() {
    std::wstring timeStamp = System::GetTime(DateTimeUtility::GetCurrentGmtDatetime());
    g_log.d(L"Current timestamp : %s", timeStamp);
    return timeStamp;
}
