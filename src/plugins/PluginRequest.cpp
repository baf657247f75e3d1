// A request that names a plug-in: each running instance of it, per elevation,
// is asked for its diagnostics in a folder of its own; whatever it answers,
// that folder ends with a component result, a scan result and a history line,
// and a good answer is packed and uploaded (or queued while offline).
#include <string>
#include <vector>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "DiagnosticScanner/PluginDiagnosticsProcessor.h"
#include "manager/ScanName.h"
#include "platform/agent/CommonBase.h"
#include "platform/util/ExceptionText.h"
#include "platform/agent/ExtensionModule.h"
#include "platform/agent/FileStorageAgent.h"
#include "platform/util/Paths.h"

namespace {
constexpr const char* kRequestLabel = "PluginDiagnosticsProcessor::GeneratePluginDiagnosticsForMqttTarget";
constexpr const char* kResolveLabel = "PluginDiagnosticsProcessor::ResolvePluginDiagFolder";
constexpr const char* kLocalAppDataLabel = "PluginDiagnosticsProcessor::GetLoggedInUserLocalAppData";

// History values of a plug-in line: the upload status, then whether the
// request failed before any upload.
constexpr int kUploaded = 0;
constexpr int kNotUploaded = 1;
constexpr int kQueuedOffline = 2;

}  // namespace

void PluginDiagnosticsProcessor::RequestForElevation(DiagnosticsManager& manager, const std::wstring& pluginId,
                                                     ElevationType elevation) {
    using Processor = PluginDiagnosticsProcessor;
    const std::wstring label = Processor::ElevationLabel(elevation);
    const std::wstring diagFolder = Processor::ResolvePluginDiagFolder(elevation, pluginId);
    g_log.d(L"path : %s, elevation : %d", diagFolder, static_cast<int>(elevation));

    if (diagFolder.empty()) {
        g_log.e(L"%s: could not resolve diagFolder for plugin=%s elev=%s", kRequestLabel, pluginId, label);
        Processor::WritePluginScanHistoryEntry(manager, diagFolder, kNotUploaded, true);
        return;
    }
    if (!FileSystem::directoryExists(diagFolder) && !FileSystem::createDirectory(diagFolder, true)) {
        g_log.e(L"path : %s, elevation : %d, folder creation failed", diagFolder, static_cast<int>(elevation));
        Processor::WritePluginScanHistoryEntry(manager, diagFolder, kNotUploaded, true);
        return;
    }

    const DiagnosticsOperationResult answer =
        GetDiagnosticsCommandHandler::SendDiagnosticCommandToTargets(pluginId, diagFolder, elevation);
    g_log.d(L"%s: plugin=%s elev=%s delivered=%d isSuccess=%d timeout=%d", kRequestLabel, pluginId, label,
            answer.delivered, answer.isSuccess, answer.timeout);

    if (answer.timeout || !answer.delivered || !answer.isSuccess) {
        // A time-out is not held against the plug-in as a problem; a failure is.
        if (answer.timeout) {
            g_log.e(L"get-diagnostics timed out for plugin id : %s, elevation : %s", pluginId, label);
            Processor::UpsertPluginComponentResultJson(manager, diagFolder, pluginId, elevation, "ErrorTimeOut", false,
                                                       false);
        } else {
            g_log.e(L"get-diagnostics failed for plugin id : %s, elevation : %s", pluginId, label);
            Processor::UpsertPluginComponentResultJson(manager, diagFolder, pluginId, elevation, "ErrorGeneral", false,
                                                       true);
        }
        Processor::GeneratePluginScanResultJson(manager, diagFolder, pluginId);
        Processor::WritePluginScanHistoryEntry(manager, diagFolder, kNotUploaded, true);
        return;
    }

    Processor::EnsurePluginComponentResultJson(manager, diagFolder, pluginId, elevation);
    Processor::GeneratePluginScanResultJson(manager, diagFolder, pluginId);
    std::wstring zipPath;
    if (!Processor::CreatePluginZip(manager, diagFolder, pluginId, zipPath)) {
        g_log.e(L"%s: zip creation failed for plugin=%s elev=%s", kRequestLabel, pluginId, label);
        Processor::WritePluginScanHistoryEntry(manager, diagFolder, kNotUploaded, true);
        return;
    }

    // Again, now that the archive's size can be reported with it.
    Processor::GeneratePluginScanResultJson(manager, diagFolder, pluginId);
    Processor::SavePluginDeletePreference(manager, diagFolder, answer.deleteFilesOnUpload);

    DWORD connection = 0;
    if (!NetworkUtility().IsInternetConnected(connection)) {
        // The dash is kept as the agent has always logged it (UTF-8 read as Windows-1252).
        g_log.d(L"%s: offline \u00E2\u20AC\u201C queuing plugin upload, plugin=%s elev=%s", kRequestLabel, pluginId,
                label);
        Processor::UpdatePluginComponentResultType(manager, diagFolder, "NetworkNotConnected");
        Processor::SavePluginDeletePreference(manager, diagFolder, answer.deleteFilesOnUpload);
        Processor::WritePluginScanHistoryEntry(manager, diagFolder, kQueuedOffline, false);
        return;
    }

    const FileStorageAgent::StoragError result = UploadWithOneRetry(manager, zipPath, kRequestLabel);
    g_log.d(L"%s: plugin upload result=%d plugin=%s elev=%s", kRequestLabel, static_cast<int>(result), pluginId,
            label);
    if (result == FileStorageAgent::NetworkNotConnected) {
        // The archive stays for the pass that runs once the device is online.
        Processor::UpdatePluginComponentResultType(manager, diagFolder, "NetworkNotConnected");
        Processor::WritePluginScanHistoryEntry(manager, diagFolder, kQueuedOffline, false);
        return;
    }
    Processor::WritePluginScanHistoryEntry(manager, diagFolder,
                                           result == FileStorageAgent::Success ? kUploaded : kNotUploaded, false);
    // Also after a failed upload: a plug-in that asked for its files to go
    // does not get them back for a later attempt.
    if (answer.deleteFilesOnUpload) Processor::DeletePluginDiagnosticsArtifacts(manager, diagFolder, zipPath);
}

void PluginDiagnosticsProcessor::GeneratePluginDiagnosticsForMqttTarget(DiagnosticsManager& manager,
                                                                        const std::wstring& target) {
    try {
        std::wstring pluginId;
        std::vector<ElevationType> elevations;
        if (!GetDiagnosticsCommandHandler::TryResolveGetDiagnosticsElevations(target, pluginId, elevations)) {
            // The target comes from the cloud's request: quoted without its control characters.
            g_log.d(L"%s: Ignoring target '%s' for getDiagnostics. Plugin not found/invalid on this device or no "
                    L"running instance.",
                    kRequestLabel, target);
            return;
        }
        if (elevations.empty()) {
            g_log.d(L"elevation empty");
            return;
        }
        // Each elevation stands alone: one that fails does not stop the next.
        for (const ElevationType elevation : elevations) {
            try {
                RequestForElevation(manager, pluginId, elevation);
            } catch (...) {
                g_log.e(L"%s: Exception Occurred: %ls", kRequestLabel, zep::CurrentExceptionText());
            }
        }
    } catch (...) {
        g_log.e(L"%s: Exception Occurred: %ls", kRequestLabel, zep::CurrentExceptionText());
    }
}

std::wstring PluginDiagnosticsProcessor::ResolvePluginDiagFolder(ElevationType elevation,
                                                                 const std::wstring& pluginId) {
    try {
        // The id becomes a folder whose contents are deleted recursively later;
        // one that is not a single harmless name could reach outside.
        if (!zep::manager::IsSafeScanName(pluginId)) {
            g_log.e(L"%s: plugin id '%s' cannot name a folder", kResolveLabel, pluginId);
            return {};
        }
        std::wstring base;
        if (elevation == ElevationType::User) {
            if (!GetLoggedInUserLocalAppData(base) || base.empty()) return {};
            base += zep::path::NativePath(L"\\Quorin\\Zep\\plugin-data\\");
        } else {
            if (!utility::GetZepAppDataRootPath(base) || base.empty()) return {};
            base += zep::path::NativePath(L"\\plugin-data\\");
        }
        return base + pluginId + zep::path::NativePath(L"\\diagnostics");
    } catch (...) {
        g_log.e(L"%s: Exception Occurred: %ls", kResolveLabel, zep::CurrentExceptionText());
        return {};
    }
}

bool PluginDiagnosticsProcessor::GetLoggedInUserLocalAppData(std::wstring& out) {
    out.clear();
    try {
        const std::wstring sid = System::GetLoggedInUserSID();
        if (sid.empty()) return false;
        // A registry key path: its backslashes stay on every system.
        const std::wstring key = sid + L"\\Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Shell Folders";
        return CRegUtil::GetRegValueOfStringType(HKEY_USERS, key, L"Local AppData", out) != 0;
    } catch (...) {
        g_log.e(L"%s: Exception Occurred: %ls", kLocalAppDataLabel, zep::CurrentExceptionText());
        out.clear();
        return false;
    }
}

std::wstring PluginDiagnosticsProcessor::ElevationLabel(ElevationType elevation) {
    switch (static_cast<int>(elevation)) {
        case 1: return L":Elevated";
        case 2: return L":User";
        default: return L":None";
    }
}
