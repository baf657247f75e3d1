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
    static void EnsurePluginComponentResultJson(DiagnosticsManager& manager, const std::wstring& diagFolder,
                                                const std::wstring& pluginId, ElevationType elevation) {
        PluginDiagnosticsProcessor::EnsurePluginComponentResultJson(manager, diagFolder, pluginId, elevation);
    }
    static void GeneratePluginScanResultJson(DiagnosticsManager& manager, const std::wstring& diagFolder,
                                             const std::wstring& pluginId) {
        PluginDiagnosticsProcessor::GeneratePluginScanResultJson(manager, diagFolder, pluginId);
    }
    static void UpdatePluginComponentResultType(DiagnosticsManager& manager, const std::wstring& diagFolder,
                                                const std::string& resultType) {
        PluginDiagnosticsProcessor::UpdatePluginComponentResultType(manager, diagFolder, resultType);
    }
    static bool ReadPluginDeletePreference(const std::wstring& diagFolder, bool& deleteFilesOnUpload) {
        return PluginDiagnosticsProcessor::ReadPluginDeletePreference(diagFolder, deleteFilesOnUpload);
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
