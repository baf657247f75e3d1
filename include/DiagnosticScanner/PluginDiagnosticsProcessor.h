// Plug-in diagnostics: a request that names a plug-in asks each running
// instance of it, per elevation, for its diagnostics in a folder of its own,
// keeps that folder's result documents and history, packs and uploads them,
// and completes uploads that waited for the network. Static operations only;
// each takes the manager, whose result-file operations it uses.
#pragma once

#include <string>

#include "DiagnosticScanner/AgentTypes.h"
#include "DiagnosticScanner/Export.h"

class DiagnosticsManager;
namespace Json {
class Value;
}
namespace zep::plugins {
class PluginFolders;
}

class DIAGSCANNER_API PluginDiagnosticsProcessor {
public:
    using ElevationType = zep::platform::ElevationType;

    // The two entry points: a request's plug-in target, and the pass over the
    // queued uploads when the device is back online.
    static void GeneratePluginDiagnosticsForMqttTarget(DiagnosticsManager& manager, const std::wstring& target);
    static void ProcessDeferredPluginUploads(DiagnosticsManager& manager);

private:
    friend class PluginDiagnosticsProcessorTestPeer;
    // The host program shows the folders the module resolves.
    friend class zep::plugins::PluginFolders;

    // One elevation's request, from its folder to its history line.
    static void RequestForElevation(DiagnosticsManager& manager, const std::wstring& pluginId,
                                    ElevationType elevation);

    // Folders.
    static std::wstring ResolvePluginDiagFolder(ElevationType elevation, const std::wstring& pluginId);
    static bool GetLoggedInUserLocalAppData(std::wstring& out);
    static std::wstring ElevationLabel(ElevationType elevation);

    // Result documents.
    static void EnsurePluginComponentResultJson(DiagnosticsManager& manager, const std::wstring& diagFolder,
                                                const std::wstring& pluginId, ElevationType elevation);
    static void UpsertPluginComponentResultJson(DiagnosticsManager& manager, const std::wstring& diagFolder,
                                                const std::wstring& pluginId, ElevationType elevation,
                                                const std::string& resultType, bool artifactsProvided,
                                                bool isProblematic);
    static void GeneratePluginScanResultJson(DiagnosticsManager& manager, const std::wstring& diagFolder,
                                             const std::wstring& pluginId);
    static void UpdatePluginComponentResultType(DiagnosticsManager& manager, const std::wstring& diagFolder,
                                                const std::string& resultType);
    static void WritePluginScanHistoryEntry(DiagnosticsManager& manager, const std::wstring& diagFolder,
                                            int sentToCloud, bool artifactsFlag);
    static int CountFailedTests(const Json::Value& component);

    // Zip, upload, delete preference and deferred uploads.
    static bool CreatePluginZip(DiagnosticsManager& manager, const std::wstring& diagFolder,
                                const std::wstring& pluginId, std::wstring& zipPath);
    static FileStorageAgent::StoragError UploadPluginDiagnosticsResult(DiagnosticsManager& manager,
                                                                       const std::wstring& zipPath);
    static void SavePluginDeletePreference(DiagnosticsManager& manager, const std::wstring& diagFolder,
                                           bool deleteFilesOnUpload);
    static bool ReadPluginDeletePreference(const std::wstring& diagFolder, bool& deleteFilesOnUpload);
    static void DeletePluginDiagnosticsArtifacts(DiagnosticsManager& manager, const std::wstring& diagFolder,
                                                 const std::wstring& zipPath);
    static bool ProcessDeferredPluginUpload(DiagnosticsManager& manager, const std::wstring& diagFolder);
    // Uploads the zip; after a 429 waits a random while (up to five minutes,
    // so that devices refused together do not return together) and uploads
    // exactly once more. The second answer stands. `label` opens the log line.
    static FileStorageAgent::StoragError UploadWithOneRetry(DiagnosticsManager& manager, const std::wstring& zipPath,
                                                            const char* label);
};
