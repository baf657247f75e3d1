// The extension module's get-diagnostics command handler as the module sees it.
#pragma once

#include <string>
#include <vector>

#include "platform/env/ExtensionEnv.h"

using ElevationType = zep::platform::ElevationType;
using DiagnosticsOperationResult = zep::platform::DiagnosticsOperationResult;

class GetDiagnosticsCommandHandler {
public:
    static bool TryResolveGetDiagnosticsElevations(const std::wstring& target, std::wstring& pluginId,
                                                   std::vector<ElevationType>& elevations);
    static DiagnosticsOperationResult SendDiagnosticCommandToTargets(const std::wstring& pluginId,
                                                                     const std::wstring& diagFolder,
                                                                     ElevationType elevation);
};
