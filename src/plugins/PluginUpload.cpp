// A plug-in's diagnostics after the plug-in answered: packing its folder,
// uploading the zip with its metadata, the plug-in's wish to have its files
// deleted afterwards, and the uploads that waited for the network.
#include <cstdint>
#include <filesystem>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include <json/json.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "DiagnosticScanner/PluginDiagnosticsProcessor.h"
#include "artifacts/PowerShellCollection.h"
#include "platform/util/JsonText.h"
#include "artifacts/Debris.h"
#include "plugins/PluginFolders.h"
#include "platform/agent/CommonBase.h"
#include "platform/util/ExceptionText.h"
#include "platform/agent/FileStorageAgent.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"

namespace {

using zep::path::NativePath;

constexpr const char* kZipLabel = "PluginDiagnosticsProcessor::CreatePluginZip";
constexpr const char* kUploadLabel = "PluginDiagnosticsProcessor::UploadPluginDiagnosticsResult";
constexpr const char* kSavePreferenceLabel = "PluginDiagnosticsProcessor::SavePluginDeletePreference";
constexpr const char* kReadPreferenceLabel = "PluginDiagnosticsProcessor::ReadPluginDeletePreference";
constexpr const char* kDeleteLabel = "PluginDiagnosticsProcessor::DeletePluginDiagnosticsArtifacts";
constexpr const char* kDeferredAllLabel = "PluginDiagnosticsProcessor::ProcessDeferredPluginUploads";
constexpr const char* kDeferredLabel = "PluginDiagnosticsProcessor::ProcessDeferredPluginUpload";

constexpr const char* kDeleteMember = "deleteFilesOnUpload";
// The range of the random wait before the one retry that follows a 429, in
// milliseconds (up to five minutes).
constexpr unsigned int kRetryJitterRangeMs = 300000;
// History statuses of a plug-in's upload.
constexpr int kSentToCloud = 0;
constexpr int kUploadFailed = 1;
constexpr int kQueuedOffline = 2;

std::wstring LatestFolder(const std::wstring& diagFolder) { return diagFolder + NativePath(L"\\latest"); }

std::wstring MetaFile(const std::wstring& diagFolder) {
    return diagFolder + NativePath(L"\\latest\\plugin-upload-meta.json");
}

bool ParseJson(const std::string& text, Json::Value& value) { return zep::json::Parse(text, value); }

bool HasZipExtension(const std::wstring& name) {
    return name.size() >= 4 && zep::text::EqualsIgnoreCase(name.substr(name.size() - 4), L".zip");
}

// The names of the direct entries of `folder` of one kind, sorted. Links are
// never among them (see FileSystem): the user's plug-in folders are writable
// by that user.
std::vector<std::wstring> DirectEntries(const std::wstring& folder, zep::platform::EntryKind kind) {
    std::vector<std::wstring> names;
    const auto open = FileSystem::openFolder(folder, false);
    std::vector<zep::platform::EntryInfo> entries;
    if (!open || !open->List(entries)) {
        g_log.e(L"%s: cannot list %s", kDeferredAllLabel, folder);
        return names;
    }
    for (const auto& entry : entries) {
        if (entry.kind == kind) names.push_back(entry.name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

bool PluginDiagnosticsProcessor::CreatePluginZip(DiagnosticsManager& manager, const std::wstring& diagFolder,
                                                 const std::wstring& pluginId, std::wstring& zipPath) {
    try {
        std::uint64_t freeBytes = 0;
        if (!FileSystem::GetDiskFreeSpaceExW(diagFolder, freeBytes) ||
            freeBytes < DiagnosticsManager::kMinDiskSpaceForPluginZipBytes) {
            g_log.e(L"%s: insufficient disk space for plugin zip, plugin=%s", kZipLabel, pluginId);
            return false;
        }
        const std::wstring latest = LatestFolder(diagFolder);
        if (!FileSystem::createDirectory(latest, true)) {
            g_log.e(L"%s: failed to create latest folder: %s", kZipLabel, latest);
            return false;
        }
        // A request killed half-way may have left a partial archive here.
        zep::artifacts::RemoveUnfinishedWrites(latest);
        zipPath = zep::plugins::PluginFolders::ZipPath(diagFolder, pluginId);
        // A zip of an earlier request must not pass for this one's.
        if (FileSystem::fileExists(zipPath) && !FileSystem::deleteDirectoryOrFile(zipPath, false)) {
            g_log.d(L"%s: could not delete the earlier zip %s", kZipLabel, zipPath);
        }

        const int ran =
            zep::artifacts::Collector(manager.hostContext)->CompressPluginFolder(diagFolder, zipPath) != 0 ? 1 : 0;
        g_log.d(L"%s: plugin zip result=%d path=%s", kZipLabel, ran, zipPath);
        if (ran == 0 || !FileSystem::fileExists(zipPath)) {
            g_log.e(L"%s: plugin zip creation failed for plugin=%s", kZipLabel, pluginId);
            return false;
        }
        return true;
    } catch (...) {
        g_log.e(L"%s: plugin zip creation failed for plugin=%s (%ls)", kZipLabel, pluginId,
                zep::CurrentExceptionText());
        return false;
    }
}

FileStorageAgent::StoragError PluginDiagnosticsProcessor::UploadPluginDiagnosticsResult(DiagnosticsManager& manager,
                                                                                        const std::wstring& zipPath) {
    try {
        g_log.d(L"%s: uploading plugin zip: %s", kUploadLabel, zipPath);

        std::string metadata = "{}";
        try {
            Json::Value description(Json::objectValue);
            description["name"] = String::UTF16ToUTF8(FileSystem::getFileName(zipPath));
            description["sizeInBytes"] = Json::Value(static_cast<Json::UInt64>(FileSystem::fileSize(zipPath)));
            description["hash"] = String::UTF16ToUTF8(utility::GetFileHash(zipPath, L"SHA-256"));

            const std::wstring scanResultPath =
                FileSystem::getDirectoryName(zipPath) + NativePath(L"\\scan-result.json");
            if (!FileSystem::fileExists(scanResultPath)) {
                g_log.d(L"%s: scan-result.json not found for plugin metadata: %s", kUploadLabel, scanResultPath);
            } else {
                std::string text;
                Json::Value context;
                if (FileSystem::readFile(scanResultPath, text) && ParseJson(text, context)) {
                    description["context"] = context;
                } else {
                    g_log.d(L"%s: scan-result.json unreadable, metadata without context: %s", kUploadLabel,
                            scanResultPath);
                }
            }
            Json::StreamWriterBuilder writer;
            writer["indentation"] = "";
            metadata = Json::writeString(writer, description);
        } catch (...) {
            g_log.e(L"%s: metadata build exception: %ls", kUploadLabel, zep::CurrentExceptionText());
            metadata = "{}";
        }

        FileStorageAgent* storage = FileStorageAgent::GetInstance();
        const std::string file = String::UTF16ToUTF8(zipPath);
        if (CoreUtility::GetInstance()->IsDeviceRegistered()) {
            return storage->UploadDiagResult(file, false, metadata, std::string());
        }
        if (manager.IsProvisionBackupAvailable()) {
            std::string token;
            if (manager.FetchVerifiedProvisionTokenFromBackUp(token) && !token.empty()) {
                return storage->UploadDiagResult(file, true, metadata, token);
            }
        }
        if (manager.IsCommercialIntent()) {
            return storage->UploadDiagResult(file, true, metadata, std::string());
        }
        g_log.e(L"%s: device not registered and no provision backup", kUploadLabel);
        return FileStorageAgent::LocalRefusal;
    } catch (...) {
        g_log.e(L"%s: upload failed: %ls", kUploadLabel, zep::CurrentExceptionText());
        return FileStorageAgent::LocalRefusal;
    }
}

void PluginDiagnosticsProcessor::SavePluginDeletePreference(DiagnosticsManager& manager,
                                                            const std::wstring& diagFolder,
                                                            bool deleteFilesOnUpload) {
    try {
        const std::wstring latest = LatestFolder(diagFolder);
        if (!FileSystem::createDirectory(latest, true)) {
            g_log.e(L"%s: failed to create latest folder: %s", kSavePreferenceLabel, latest);
            return;
        }
        Json::Value preference(Json::objectValue);
        preference[kDeleteMember] = deleteFilesOnUpload;
        manager.SaveComponentResultsToFile(preference, MetaFile(diagFolder));
    } catch (...) {
        g_log.e(L"%s: Exception Occurred: %ls", kSavePreferenceLabel, zep::CurrentExceptionText());
    }
}

bool PluginDiagnosticsProcessor::ReadPluginDeletePreference(const std::wstring& diagFolder,
                                                            bool& deleteFilesOnUpload) {
    try {
        std::string text;
        Json::Value preference;
        if (!FileSystem::readFile(MetaFile(diagFolder), text) || !ParseJson(text, preference) ||
            !preference.isObject()) {
            return false;
        }
        const Json::Value& value = preference[kDeleteMember];
        // Only a real boolean counts: "false" as text must not decide a deletion.
        if (!value.isBool()) return false;
        deleteFilesOnUpload = value.asBool();
        return true;
    } catch (...) {
        g_log.e(L"%s: Exception Occurred: %ls", kReadPreferenceLabel, zep::CurrentExceptionText());
        return false;
    }
}

void PluginDiagnosticsProcessor::DeletePluginDiagnosticsArtifacts(DiagnosticsManager& manager,
                                                                  const std::wstring& diagFolder,
                                                                  const std::wstring& zipPath) {
    try {
        g_log.d(L"%s: deleting plugin diagnostics artifacts from %s", kDeleteLabel, diagFolder);
        // The history and "latest" stay: they record the request and its
        // outcome, and the deferred pass reads them.
        const std::wstring componentResult = diagFolder + NativePath(L"\\") + manager.componentResultFileName;
        if (FileSystem::fileExists(componentResult)) FileSystem::deleteDirectoryOrFile(componentResult, false);
        for (const wchar_t* folder : {L"\\context", L"\\Log"}) {
            const std::wstring path = diagFolder + NativePath(folder);
            if (FileSystem::directoryExists(path)) FileSystem::deleteDirectoryOrFile(path, true);
        }
        if (!zipPath.empty() && FileSystem::fileExists(zipPath)) FileSystem::deleteDirectoryOrFile(zipPath, false);
        g_log.d(L"%s: plugin diagnostics artifacts deleted", kDeleteLabel);
    } catch (...) {
        g_log.e(L"%s: Exception Occurred: %ls", kDeleteLabel, zep::CurrentExceptionText());
    }
}

void PluginDiagnosticsProcessor::ProcessDeferredPluginUploads(DiagnosticsManager& manager) {
    std::vector<std::wstring> roots;
    try {
        std::wstring appData;
        if (utility::GetZepAppDataRootPath(appData) && !appData.empty()) {
            roots.push_back(appData + NativePath(L"\\plugin-data"));
        }
        std::wstring localAppData;
        if (GetLoggedInUserLocalAppData(localAppData) && !localAppData.empty()) {
            roots.push_back(localAppData + NativePath(L"\\Quorin\\Zep\\plugin-data"));
        }
    } catch (...) {
        g_log.e(L"%s: deferred plugin upload scan failed", kDeferredAllLabel);
    }
    // Each root on its own: a folder that cannot be walked does not hold up
    // the other's queue.
    for (const std::wstring& root : roots) {
        try {
            if (!FileSystem::directoryExists(root)) continue;
            for (const std::wstring& plugin : DirectEntries(root, zep::platform::EntryKind::Folder)) {
                const std::wstring diagFolder = root + zep::path::kSeparator + plugin + NativePath(L"\\diagnostics");
                if (FileSystem::directoryExists(diagFolder)) ProcessDeferredPluginUpload(manager, diagFolder);
            }
        } catch (...) {
            g_log.e(L"%s: deferred plugin upload scan failed", kDeferredAllLabel);
        }
    }
}

bool PluginDiagnosticsProcessor::ProcessDeferredPluginUpload(DiagnosticsManager& manager,
                                                             const std::wstring& diagFolder) {
    try {
        std::wstring history = diagFolder + NativePath(L"\\scan-history.log");
        if (!FileSystem::fileExists(history)) return false;
        DiagnosticsManager::ScanHistoryEntry entry;
        if (!manager.ParseScanHistoryLine(manager.GetLastLineInFile(history), entry) ||
            entry.sentToCloud != kQueuedOffline) {
            return false;
        }
        const std::wstring latest = LatestFolder(diagFolder);
        if (!FileSystem::directoryExists(latest)) return false;
        std::wstring zipPath;
        for (const std::wstring& file : DirectEntries(latest, zep::platform::EntryKind::File)) {
            if (HasZipExtension(file)) {
                zipPath = latest + zep::path::kSeparator + file;
                break;
            }
        }
        if (zipPath.empty()) return false;

        const FileStorageAgent::StoragError result = UploadWithOneRetry(manager, zipPath, kDeferredLabel);
        g_log.d(L"%s: deferred plugin upload result=%d path=%s", kDeferredLabel, result, zipPath);
        const int status = result == FileStorageAgent::Success               ? kSentToCloud
                           : result == FileStorageAgent::NetworkNotConnected ? kQueuedOffline
                                                                             : kUploadFailed;
        manager.UpdateStatusForLastLineInScanHistoryFile(history, status, 0);

        // Still offline: the zip waits for the next pass. Otherwise the files
        // go as the plug-in asked, after a failed upload too.
        bool deleteFiles = true;
        ReadPluginDeletePreference(diagFolder, deleteFiles);
        if (deleteFiles && result != FileStorageAgent::NetworkNotConnected) {
            DeletePluginDiagnosticsArtifacts(manager, diagFolder, zipPath);
        }
        return result == FileStorageAgent::Success;
    } catch (...) {
        g_log.e(L"%s: failed to process deferred plugin upload for %s", kDeferredLabel, diagFolder);
        return false;
    }
}

FileStorageAgent::StoragError PluginDiagnosticsProcessor::UploadWithOneRetry(DiagnosticsManager& manager,
                                                                            const std::wstring& zipPath,
                                                                            const char* label) {
    FileStorageAgent::StoragError result = PluginDiagnosticsProcessor::UploadPluginDiagnosticsResult(manager, zipPath);
    if (result != FileStorageAgent::TooManyRequests) return result;
    const unsigned int delay = ApiUtility::GetRandomJitterInSeconds(kRetryJitterRangeMs);
    g_log.d(L"%s: plugin upload received 429. retrying once after %d seconds.", label, delay);
    ApiUtility::SleepForSeconds(delay);
    return PluginDiagnosticsProcessor::UploadPluginDiagnosticsResult(manager, zipPath);
}
