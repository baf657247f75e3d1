#include "DiagnosticScanner/DiagnosticsManager.h"

// Scans are not recorded in a history yet.
void DiagnosticsManager::GenerateScanHistory() {}

// No upload is ever deferred yet, so there is nothing to resume.
void DiagnosticsManager::DeviceHasComeOnline() {}
