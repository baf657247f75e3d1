#include "DiagnosticScanner/DiagnosticsManager.h"

// Scan outcomes are not reported as critical events yet.
void DiagnosticsManager::LogCriticalEvent() {}
