// What one diagnostics request asks for.
#pragma once

#include <string>
#include <unordered_set>

#include "DiagnosticScanner/Export.h"

class DIAGSCANNER_API DiagnosticsParams {
public:
    DiagnosticsParams() = default;
    DiagnosticsParams(const DiagnosticsParams&) = default;
    DiagnosticsParams(DiagnosticsParams&&) = default;
    DiagnosticsParams& operator=(const DiagnosticsParams&) = default;
    DiagnosticsParams& operator=(DiagnosticsParams&&) = default;

    // The request's identifier, lower-cased; empty when the payload has none.
    std::wstring requestId;
    // Lower-cased component names: "zep" is the agent itself, any other name
    // a plug-in.
    std::unordered_set<std::wstring> targets;
};
