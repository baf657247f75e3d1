#include "DiagnosticScanner/DiagnosticsManager.h"

// Results are not uploaded yet.
void DiagnosticsManager::UploadDiagnosticsResults() {}

// There is no archive yet whose size could be recorded.
void DiagnosticsManager::AddArtifactSize() {}
