// A plug-in's result documents in its diagnostics folder: its component
// result, completed or written for it; the scan result made from it; and its
// own scan history, in the agent's line format.
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "DiagnosticScanner/PluginDiagnosticsProcessor.h"
#include "platform/util/JsonText.h"
#include "platform/agent/CommonBase.h"
#include "platform/util/ExceptionText.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "plugins/PluginFolders.h"
#include "results/HistoryFile.h"
#include "results/ProblemSignature.h"

namespace {
constexpr const char* kEnsureLabel = "PluginDiagnosticsProcessor::EnsurePluginComponentResultJson";
constexpr const char* kUpsertLabel = "PluginDiagnosticsProcessor::UpsertPluginComponentResultJson";
constexpr const char* kScanResultLabel = "PluginDiagnosticsProcessor::GeneratePluginScanResultJson";
constexpr const char* kUpdateTypeLabel = "PluginDiagnosticsProcessor::UpdatePluginComponentResultType";
constexpr const char* kHistoryLabel = "PluginDiagnosticsProcessor::WritePluginScanHistoryEntry";
constexpr const char* kCountLabel = "PluginDiagnosticsProcessor::CountFailedTests";

constexpr auto kMaxHistoryLines = static_cast<int>(zep::results::kHistoryLines);
// Plug-in results carry no problem signature; the two quotes keep the line at
// six fields, as the agent writes a scan without failed tests.
constexpr const wchar_t* kNoProblemSignature = L"\"\"";


std::wstring ComponentResultPath(const std::wstring& diagFolder, const std::wstring& fileName) {
    return diagFolder + zep::path::kSeparator + fileName;
}

std::wstring LatestFolder(const std::wstring& diagFolder) { return diagFolder + zep::path::NativePath(L"\\latest"); }

std::wstring ScanResultPath(const std::wstring& diagFolder) {
    return diagFolder + zep::path::NativePath(L"\\latest\\scan-result.json");
}

std::wstring HistoryPath(const std::wstring& diagFolder) {
    return diagFolder + zep::path::NativePath(L"\\scan-history.log");
}

// False when the file cannot be read or is not JSON; `document` is then unchanged.
bool ReadDocument(const std::wstring& path, Json::Value& document) {
    std::string text;
    if (!FileSystem::readFile(path, text)) return false;
    return zep::json::Parse(text, document);
}

// The document as an object to complete: what is not one starts afresh.
Json::Value ReadObjectOrEmpty(const std::wstring& path) {
    Json::Value document;
    if (!ReadDocument(path, document) || !document.isObject()) return Json::Value(Json::objectValue);
    return document;
}

bool IsNonEmptyString(const Json::Value& value) { return value.isString() && !value.asString().empty(); }

// A member counts as present unless it is missing or null.
bool HasMember(const Json::Value& object, const char* key) {
    return object.isObject() && object.isMember(key) && !object[key].isNull();
}

}  // namespace

void PluginDiagnosticsProcessor::EnsurePluginComponentResultJson(DiagnosticsManager& manager,
                                                                 const std::wstring& diagFolder,
                                                                 const std::wstring& pluginId,
                                                                 ElevationType elevation) {
    try {
        // A plug-in that wrote its own identified result keeps it as written.
        Json::Value document;
        if (ReadDocument(ComponentResultPath(diagFolder, manager.componentResultFileName), document) &&
            document.isObject() && IsNonEmptyString(document["componentId"])) {
            g_log.d(L"%s: keeping the plugin's component-result for plugin=%s", kEnsureLabel, pluginId);
            return;
        }
        g_log.d(L"%s: writing component-result for plugin=%s", kEnsureLabel, pluginId);
        UpsertPluginComponentResultJson(manager, diagFolder, pluginId, elevation, "Complete", true, false);
    } catch (...) {
        g_log.e(L"%s: Exception Occurred: %ls", kEnsureLabel, zep::CurrentExceptionText());
    }
}

void PluginDiagnosticsProcessor::UpsertPluginComponentResultJson(DiagnosticsManager& manager,
                                                                 const std::wstring& diagFolder,
                                                                 const std::wstring& pluginId,
                                                                 ElevationType elevation,
                                                                 const std::string& resultType,
                                                                 bool artifactsProvided, bool isProblematic) {
    try {
        const std::wstring path = ComponentResultPath(diagFolder, manager.componentResultFileName);
        Json::Value document = ReadObjectOrEmpty(path);

        document["componentId"] = String::UTF16ToUTF8(pluginId);
        if (!IsNonEmptyString(document["friendlyName"])) document["friendlyName"] = String::UTF16ToUTF8(pluginId);
        if (!HasMember(document, "executionTimeSeconds")) document["executionTimeSeconds"] = "0";
        document["resultType"] = resultType;
        document["isProblematic"] = isProblematic;
        document["artifactsProvided"] = artifactsProvided;
        document["executionContext"] = elevation == ElevationType::User ? "user" : "system";
        if (!document["tests"].isArray()) document["tests"] = Json::Value(Json::arrayValue);

        manager.SaveComponentResultsToFile(document, path);
    } catch (...) {
        g_log.e(L"%s: failed to upsert component-result.json for plugin=%s", kUpsertLabel, pluginId);
        g_log.e(L"%s: Exception Occurred: %ls", kUpsertLabel, zep::CurrentExceptionText());
    }
}

void PluginDiagnosticsProcessor::GeneratePluginScanResultJson(DiagnosticsManager& manager,
                                                              const std::wstring& diagFolder,
                                                              const std::wstring& pluginId) {
    try {
        Json::Value component;
        if (!ReadDocument(ComponentResultPath(diagFolder, manager.componentResultFileName), component) ||
            !component.isObject()) {
            g_log.e(L"%s: component-result missing for plugin=%s", kScanResultLabel, pluginId);
            return;
        }

        Json::Value document(Json::objectValue);
        document["trigger"] = String::UTF16ToUTF8(manager.GetTriggerType());
        document["id"] = String::UTF16ToUTF8(manager.GetScanID());
        document["deviceId"] = String::UTF16ToUTF8(CoreUtility::GetInstance()->GetDeviceID());
        document["executionTimeSeconds"] =
            HasMember(component, "executionTimeSeconds") ? component["executionTimeSeconds"] : Json::Value("0");
        document["deviceTimeCompletedAt"] =
            DateTimeUtility::convertGMTTimeToString(DateTimeUtility::GetCurrentGmtDatetime());
        document["isProblematic"] =
            HasMember(component, "isProblematic") ? component["isProblematic"] : Json::Value(false);
        document["failTestCount"] = CountFailedTests(component);
        document["problemSignature"] = "";
        Json::Value& components = document["components"] = Json::Value(Json::arrayValue);
        components.append(component);
        // Present only once the archive exists, so that the upload's metadata
        // (which embeds this document) reports what is sent.
        const std::wstring zipPath = zep::plugins::PluginFolders::ZipPath(diagFolder, pluginId);
        if (FileSystem::fileExists(zipPath)) {
            document["artifactSize"] = Json::Value(static_cast<Json::UInt64>(FileSystem::fileSize(zipPath)));
        }

        // Before the zip exists nothing else has made "latest".
        FileSystem::createDirectory(LatestFolder(diagFolder), true);
        manager.SaveComponentResultsToFile(document, ScanResultPath(diagFolder));
    } catch (...) {
        g_log.e(L"%s: failed to generate plugin scan-result.json for plugin=%s", kScanResultLabel, pluginId);
        g_log.e(L"%s: Exception Occurred: %ls", kScanResultLabel, zep::CurrentExceptionText());
    }
}

void PluginDiagnosticsProcessor::UpdatePluginComponentResultType(DiagnosticsManager& manager,
                                                                 const std::wstring& diagFolder,
                                                                 const std::string& resultType) {
    try {
        const std::wstring path = ComponentResultPath(diagFolder, manager.componentResultFileName);
        if (!FileSystem::fileExists(path)) return;
        Json::Value document = ReadObjectOrEmpty(path);
        document["resultType"] = resultType;
        manager.SaveComponentResultsToFile(document, path);

        const Json::Value& componentId = document["componentId"];
        const std::wstring pluginId = componentId.isString() ? String::UTF8ToUTF16(componentId.asString()) : L"";
        GeneratePluginScanResultJson(manager, diagFolder, pluginId);
    } catch (...) {
        g_log.e(L"%s: failed to update component-result resultType", kUpdateTypeLabel);
        g_log.e(L"%s: Exception Occurred: %ls", kUpdateTypeLabel, zep::CurrentExceptionText());
    }
}

void PluginDiagnosticsProcessor::WritePluginScanHistoryEntry(DiagnosticsManager& manager,
                                                             const std::wstring& diagFolder, int sentToCloud,
                                                             bool artifactsFlag) {
    try {
        if (diagFolder.empty()) {
            g_log.d(L"%s: diagFolder empty, skipping plugin scan-history write", kHistoryLabel);
            return;
        }
        const std::wstring path = HistoryPath(diagFolder);
        const int artifacts = artifactsFlag ? 1 : 0;

        // Earlier lines go back byte for byte (the lossless decoding), even
        // where they are not valid UTF-8. A history that cannot be read counts
        // as empty, as the agent's own does.
        std::vector<std::wstring> lines;
        std::vector<std::string> read;
        zep::results::ReadHistoryLines(path, read);
        for (const std::string& line : read) lines.push_back(zep::text::DecodeFileName(line));

        std::wostringstream line;
        line << manager.GetCurrentTimeStamp() << L',' << manager.GetTriggerType() << L',' << sentToCloud << L','
             << artifacts << L',' << 0 << L',' << kNoProblemSignature;
        lines.push_back(line.str());
        manager.ProcessCyclicBuffer(lines, kMaxHistoryLines);

        std::vector<std::string> encoded;
        for (const std::wstring& kept : lines) encoded.push_back(zep::text::EncodeFileName(kept));
        // Atomic: the deferred upload reads the last line, which must never be torn.
        if (!FileSystem::writeFileAtomically(path, zep::results::JoinHistoryText(encoded))) {
            g_log.e(L"%s: Unable to open file: %s for writing", kHistoryLabel, path);
            return;
        }
        g_log.d(L"%s: plugin scan-history entry written sentToCloud=%d art=%d path=%s", kHistoryLabel, sentToCloud,
                artifacts, path);
    } catch (...) {
        g_log.e(L"%s: Exception Occurred: %ls", kHistoryLabel, zep::CurrentExceptionText());
    }
}

int PluginDiagnosticsProcessor::CountFailedTests(const Json::Value& component) {
    try {
        if (!component.isObject()) return 0;
        const Json::Value& tests = component["tests"];
        if (!tests.isArray()) return 0;
        int failed = 0;
        for (const Json::Value& test : tests) {
            if (!test.isObject()) continue;
            const Json::Value& actual = test["actual"];
            const Json::Value& expected = test["expected"];
            // Plain text comparison: "1" and "01" differ.
            if (actual.isString() && expected.isString() && actual.asString() != expected.asString()) ++failed;
        }
        return failed;
    } catch (...) {
        g_log.e(L"%s: Exception Occurred: %ls", kCountLabel, zep::CurrentExceptionText());
        return 0;
    }
}
