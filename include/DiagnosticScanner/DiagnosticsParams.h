// What one diagnostics request asks for.
#pragma once

#include <string>
#include <unordered_set>

#include "DiagnosticScanner/Export.h"

// Its construction and assignment are defined in the library, so that the
// library exports them.
class DIAGSCANNER_API DiagnosticsParams {
public:
    DiagnosticsParams();
    DiagnosticsParams(const DiagnosticsParams&);
    DiagnosticsParams(DiagnosticsParams&&) noexcept;
    DiagnosticsParams& operator=(const DiagnosticsParams&);
    DiagnosticsParams& operator=(DiagnosticsParams&&) noexcept;
    ~DiagnosticsParams();

    // The request's identifier, lower-cased; empty when the payload has none.
    std::wstring requestId;
    // Lower-cased component names: "zep" is the agent itself, any other name
    // a plug-in.
    std::unordered_set<std::wstring> targets;
};
