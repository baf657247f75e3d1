#include "DiagnosticScanner/DiagnosticsManager.h"

// Installed packages are not asked for their diagnostics yet.
void DiagnosticsManager::GenerateDiagnosticsForPackages() {}
