// Reaches PluginDiagnosticsProcessor's private operations for tests.
#pragma once

#include <string>

#include <json/json.h>

#include "DiagnosticScanner/PluginDiagnosticsProcessor.h"

class PluginDiagnosticsProcessorTestPeer {
public:
    using ElevationType = PluginDiagnosticsProcessor::ElevationType;

    static bool CreatePluginZip(DiagnosticsManager& manager, const std::wstring& diagFolder,
                                const std::wstring& pluginId, std::wstring& zipPath) {
        return PluginDiagnosticsProcessor::CreatePluginZip(manager, diagFolder, pluginId, zipPath);
    }
    static int CountFailedTests(const Json::Value& component) {
        return PluginDiagnosticsProcessor::CountFailedTests(component);
    }
    static std::wstring ResolvePluginDiagFolder(ElevationType elevation, const std::wstring& pluginId) {
        return PluginDiagnosticsProcessor::ResolvePluginDiagFolder(elevation, pluginId);
    }
    static bool ProcessDeferredPluginUpload(DiagnosticsManager& manager, const std::wstring& diagFolder) {
        return PluginDiagnosticsProcessor::ProcessDeferredPluginUpload(manager, diagFolder);
    }
    static FileStorageAgent::StoragError UploadPluginDiagnosticsResult(DiagnosticsManager& manager,
                                                                       const std::wstring& zipPath) {
        return PluginDiagnosticsProcessor::UploadPluginDiagnosticsResult(manager, zipPath);
    }
};
