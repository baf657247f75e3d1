#include "DiagnosticScanner/DiagnosticsManager.h"
#include "DiagnosticScanner/PluginDiagnosticsProcessor.h"
#include "platform/env/Env.h"

void DiagnosticsManager::GeneratePluginDiagnosticsForMqttTarget(const std::wstring& target) {
    PluginDiagnosticsProcessor::GeneratePluginDiagnosticsForMqttTarget(*this, target);
}

void DiagnosticsManager::ProcessDeferredPluginUploads() { PluginDiagnosticsProcessor::ProcessDeferredPluginUploads(*this); }

bool DiagnosticsManager::IsCommercialIntent() const { return zep::platform::CurrentEnv()->device->HasCommercialIntent(); }
