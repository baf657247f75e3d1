// The agent's own context in its staged component folder: a listing of its
// data folder, its database, its version, its registry key and its scrubbed
// logs; and the mark in the result documents that these artifacts are there.
#include <json/json.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "artifacts/PowerShellCollection.h"
#include "platform/agent/CommonBase.h"
#include "platform/agent/ZEPShared.h"
#include "platform/util/JsonText.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"

using zep::path::kSeparator;
using zep::path::NativePath;

namespace {

constexpr const char* kFolderInfo = "DiagnosticsManager::AddZEPFolderInfo";
constexpr const char* kSyncDb = "DiagnosticsManager::AddSyncDBToContextFolder";
constexpr const char* kVersionInfo = "DiagnosticsManager::AddZEPVersionInfo";
constexpr const char* kAddZepLog = "DiagnosticsManager::AddZEPLog";
constexpr const char* kArtifacts = "DiagnosticsManager::AddIfArtifactsWereProvided";

// The log budget of an archive: the newest logs up to 50 MB are kept.
constexpr std::uint64_t kLogSizeLimitBytes = 50ull * 1024 * 1024;

std::wstring AgentRoot() {
    std::wstring root;
    utility::GetZepAppDataRootPath(root);
    return root;
}

}  // namespace

void DiagnosticsManager::AddZEPContext(const std::wstring& agentFolder) {
    const std::wstring context = agentFolder + kSeparator + L"context";
    FileSystem::createDirectory(context, false);
    AddZEPFolderInfo(context);
    AddSyncDBToContextFolder(context);
    AddZEPVersionInfo(context);
    AddZEPRegistryData(context);
    contextCollected = true;
}

void DiagnosticsManager::AddZEPFolderInfo(const std::wstring& contextFolder) {
    const std::wstring root = AgentRoot();
    std::vector<std::wstring> files;
    if (root.empty() || !FileSystem::directoryExists(root) || FileSystem::GetFileListForFolder(root, L"", files) == 0) {
        g_log.d(L"%s ZEP Folder does not exist", kFolderInfo);
        return;
    }
    std::string listing;
    // Names that are not text are escaped, not replaced: each line names the
    // one file it lists.
    for (const auto& file : files) {
        listing += zep::text::ListingText(file);
        listing += '\n';
    }
    const std::wstring path = contextFolder + kSeparator + L"zep_programdata_files.txt";
    if (FileSystem::writeFile(path, listing)) {
        g_log.d(L"%s File Copied Successfully  %s", kFolderInfo, path);
    } else {
        g_log.d(L"%s Error in opening file %s", kFolderInfo, path);
    }
}

void DiagnosticsManager::AddSyncDBToContextFolder(const std::wstring& contextFolder) {
    const std::wstring source = AgentRoot() + NativePath(L"\\DB\\SyncPoint.sqlite3");
    if (!FileSystem::fileExists(source)) return;
    const std::wstring destination = contextFolder + kSeparator + L"SyncPoint_sqlite3.dat";
    if (FileSystem::copyFile(source, destination)) {
        g_log.d(L"File Copied Successfully %s", destination);
    } else {
        g_log.d(L"%s Error in Copying a file", kSyncDb);
    }
}

void DiagnosticsManager::AddZEPVersionInfo(const std::wstring& contextFolder) {
    const std::wstring path = contextFolder + kSeparator + L"zepVersion.txt";
    try {
        if (FileSystem::writeFile(path, String::UTF16ToUTF8(ZepInfo::GetInstance()->GetZepServiceVersion()))) {
            g_log.d(L"File Copied Successfully %s", path);
        } else {
            g_log.d(L"Error opening file %s", path);
        }
    } catch (const std::exception& ex) {
        g_log.d(L"%s: Exception Occurred: %ls", kVersionInfo, String::UTF8ToUTF16(ex.what()));
    }
}

void DiagnosticsManager::AddZEPRegistryData(const std::wstring& contextFolder) {
    const std::wstring output = contextFolder + kSeparator + L"zep.reg";
    if (zep::artifacts::Collector(hostContext)->ExportRegistry(L"SOFTWARE\\Quorin\\ZEP", output) == 0) {
        g_log.d(L"Not able to add reg file");
    }
}

void DiagnosticsManager::AddZEPLog(const std::wstring& agentFolder) {
    const std::wstring source = AgentRoot() + NativePath(L"\\Log");
    // Missing, or holding no file at all: the walk stops at the first file.
    if (!FileSystem::folderHoldsFiles(source)) {
        g_log.d(L"%s ZEP Log Folder does not exist", kAddZepLog);
        return;
    }

    const std::wstring destination = agentFolder + NativePath(L"\\Log");
    FileSystem::createDirectory(destination, false);
    logsCollected = true;
    g_log.d(L"%s Start log folder copy", kAddZepLog);

    // Each step runs whatever the previous one returned: a partial copy is
    // still worth shrinking and scrubbing.
    const auto collector = zep::artifacts::Collector(hostContext);
    g_log.d(L"%s Powershell script for copy-item returned %d", kAddZepLog,
            collector->CopyLogs(source, destination, kLogSizeLimitBytes));
    g_log.d(L"%s Powershell script for zip scrub returned %d", kAddZepLog, collector->RemoveArchives(destination));
    g_log.d(L"%s Powershell script for limit of logs returned %d", kAddZepLog,
            collector->LimitLogSize(destination, kLogSizeLimitBytes));
    g_log.d(L"%s Powershell script to scrub PII data returned %d", kAddZepLog, collector->ScrubLogs(destination));
}

void DiagnosticsManager::AddIfArtifactsWereProvided(const std::wstring& resultFilePath) {
    g_log.d(L"component result file exists in path %s", resultFilePath);
    std::string text;
    if (!FileSystem::readFile(resultFilePath, text)) {
        g_log.d(L"file not exists in path : %s", resultFilePath);
        return;
    }
    try {
        Json::Value document;
        std::string errors;
        if (!zep::json::Parse(text, document, &errors) || !document.isObject()) {
            g_log.d(L"%s: Exception Occurred: %ls", kArtifacts, String::UTF8ToUTF16(errors));
            return;
        }
        const bool provided = contextCollected || logsCollected;
        g_log.d(L"Is artifact provided : %d", provided);
        if (resultFilePath.find(componentResultFileName) == std::wstring::npos) {
            // The scan result: the mark goes on its first component, when it has one.
            Json::Value& components = document["components"];
            if (components.isArray() && !components.empty() && components[0].isObject()) {
                components[0]["artifactsProvided"] = provided;
            }
            g_log.d(L"artifact provided");
        } else {
            document["artifactsProvided"] = provided;
            g_log.d(L"artifact not provided");
        }
        SaveComponentResultsToFile(document, resultFilePath);
    } catch (const std::exception& ex) {
        g_log.d(L"%s: Exception Occurred: %ls", kArtifacts, String::UTF8ToUTF16(ex.what()));
    }
}
