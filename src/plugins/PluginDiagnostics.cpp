#include "DiagnosticScanner/DiagnosticsManager.h"

// Plug-ins are not asked for their diagnostics yet.
void DiagnosticsManager::GeneratePluginDiagnosticsForMqttTarget(const std::wstring&) {}
