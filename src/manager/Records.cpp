// The exported records' construction and assignment and the exported
// constant, defined here so that the library exports them (a definition in a
// header would leave them to every caller).
#include "DiagnosticScanner/DiagnosticsManager.h"
#include "DiagnosticScanner/DiagnosticsParams.h"
#include "DiagnosticScanner/Tests.h"

const std::uint64_t DiagnosticsManager::kMinDiskSpaceForPluginZipBytes = 52428800;

DiagnosticsParams::DiagnosticsParams() = default;
DiagnosticsParams::DiagnosticsParams(const DiagnosticsParams&) = default;
DiagnosticsParams::DiagnosticsParams(DiagnosticsParams&&) noexcept = default;
DiagnosticsParams& DiagnosticsParams::operator=(const DiagnosticsParams&) = default;
DiagnosticsParams& DiagnosticsParams::operator=(DiagnosticsParams&&) noexcept = default;
DiagnosticsParams::~DiagnosticsParams() = default;

namespace zep::diagnostics {

Tests::Tests() = default;
Tests::Tests(const Tests&) = default;
Tests::Tests(Tests&&) noexcept = default;
Tests& Tests::operator=(const Tests&) = default;
Tests& Tests::operator=(Tests&&) noexcept = default;
Tests::~Tests() = default;

}  // namespace zep::diagnostics
