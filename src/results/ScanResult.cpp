#include "DiagnosticScanner/DiagnosticsManager.h"

// The scan result document is not written yet.
void DiagnosticsManager::GenerateScanResultInJson() {}
