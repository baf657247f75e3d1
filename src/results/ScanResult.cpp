// The scan result document, its problem signature and the duplicate rule.
#include <exception>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/agent/CommonBase.h"
#include "platform/util/Paths.h"
#include "results/HistoryFile.h"
#include "results/ProblemSignature.h"

namespace {
constexpr const char* kScanResultLabel = "DiagnosticsManager::GenerateScanResultInJson";
constexpr const char* kDuplicateLabel = "DiagnosticsManager::IsProblemSignatureDuplicate";

// Stored when a scan has no failed test: the signature ends the scan's
// history line, and an empty last field would leave that line unparsable.
constexpr const wchar_t* kNoProblemSignature = L"\"\"";
}  // namespace

void DiagnosticsManager::GenerateScanResultInJson() {
    std::wstring scanFolder;
    GetScanFolderPath(scanFolder);
    FileSystem::createDirectory(scanFolder, true);
    const std::wstring resultPath = scanFolder + L"scan-result.json";
    // An earlier scan's document must not pass for this one's when this
    // summary fails: staging, upload and a resumed upload all read this file.
    FileSystem::deleteDirectoryOrFile(resultPath, false);

    std::wstring componentFolder;
    GetComponentFolderPath(componentFolder);
    componentFolder += zep::path::kSeparator;
    componentFolder += scanID;
    componentFolder += zep::path::kSeparator;

    std::vector<Json::Value> components;
    if (!FileSystem::directoryExists(componentFolder)) {
        g_log.d(L"%s Component Folder does not exist", kScanResultLabel);
    } else {
        try {
            for (const std::string& path : GetAllJsonFilePaths(zep::path::ToFs(componentFolder).string())) {
                ParseComponentJson(path, components);
            }
        } catch (const std::filesystem::filesystem_error& ex) {
            // A folder that cannot be walked costs its documents, not the scan.
            g_log.e(L"%s: Exception Occurred: %ls", kScanResultLabel, String::UTF8ToUTF16(ex.what()));
            components.clear();
        }
    }

    const std::wstring trigger = GetTriggerType();
    const std::wstring deviceId = CoreUtility::GetInstance()->GetDeviceID();

    // A non-numeric execution time throws out of here, before anything is
    // written, and leaves the manager's totals as they were.
    std::wstring signature;
    const bool generated = GenerateProblemSignature(components, signature);
    if (!generated) g_log.d(L"%s Problem signature not geneerated", kScanResultLabel);
    problemSignature = generated && signature.empty() ? std::wstring(kNoProblemSignature) : signature;

    Json::Value document(Json::objectValue);
    document["trigger"] = String::UTF16ToUTF8(trigger);
    document["id"] = String::UTF16ToUTF8(scanID);
    document["deviceId"] = String::UTF16ToUTF8(deviceId);
    document["executionTimeSeconds"] = String::UTF16ToUTF8(GetTotalExecutionTime());
    document["deviceTimeCompletedAt"] = String::UTF16ToUTF8(diagnosticsCompletedTime);
    document["isProblematic"] = isProblematic;
    document["failTestCount"] = totalTestFailureCount;
    document["problemSignature"] = String::UTF16ToUTF8(signature);
    Json::Value& list = document["components"] = Json::Value(Json::arrayValue);
    for (auto& component : components) list.append(std::move(component));

    SaveComponentResultsToFile(document, resultPath);
}

bool DiagnosticsManager::GenerateProblemSignature(const std::vector<Json::Value>& components,
                                                  std::wstring& signature) {
    if (components.empty()) {
        g_log.d(L"GenerateProblemSignature: No components found");
        return true;
    }
    // Throws on a non-numeric time before any total changes.
    const zep::results::ComponentSummary summary =
        zep::results::SummariseComponents(components, _totalExecutionTime);
    _totalExecutionTime = summary.executionSeconds;
    totalTestFailureCount += summary.failedTests;

    g_log.d(L"_totalExecutionTime: %.3f", static_cast<double>(_totalExecutionTime));
    g_log.d(L"GenerateProblemSignature: Failed test ids for problem signature: %s", summary.signatureInput);
    if (summary.signatureInput.empty()) return true;

    std::string digest;
    if (CoreUtility::CreateSHA256Hash(digest, summary.signatureInput) != 0) {
        g_log.e(L"GenerateProblemSignature: CreateSHA256Hash failed");
        return false;
    }
    signature = String::UTF8ToUTF16(digest);
    problemSignature = signature;
    g_log.d(L"GenerateProblemSignature: generated problem signature: %s", signature);
    return true;
}

bool DiagnosticsManager::IsProblemSignatureDuplicate(std::wstring signature) {
    try {
        std::wstring root;
        utility::GetZepAppDataRootPath(root);
        const std::wstring path = root + zep::path::NativePath(L"\\diagnostics\\scan-history.log");
        if (!FileSystem::fileExists(path)) return false;

        std::vector<std::string> lines;
        if (!zep::results::ReadHistoryLines(path, lines)) {
            g_log.d(L"%s Unable to open file %s", kDuplicateLabel, path);
            return false;
        }
        // Newest first; only a successful upload of the same signature decides.
        for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
            ScanHistoryEntry entry;
            if (!ParseScanHistoryLine(String::UTF8ToUTF16(*line), entry)) continue;
            if (entry.problemSignature == signature && entry.sentToCloud == 0) return true;
        }
        return false;
    } catch (const std::exception& ex) {
        g_log.d(L"%s: Exception Occurred: %ls", kDuplicateLabel, String::UTF8ToUTF16(ex.what()));
        return false;
    }
}
