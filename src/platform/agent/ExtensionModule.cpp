#include "platform/agent/ExtensionModule.h"

#include "platform/env/Env.h"

bool GetDiagnosticsCommandHandler::TryResolveGetDiagnosticsElevations(const std::wstring& target,
                                                                      std::wstring& pluginId,
                                                                      std::vector<ElevationType>& elevations) {
    return zep::platform::CurrentEnv()->extensions->TryResolveGetDiagnosticsElevations(target, pluginId, elevations);
}

DiagnosticsOperationResult GetDiagnosticsCommandHandler::SendDiagnosticCommandToTargets(
    const std::wstring& pluginId, const std::wstring& diagFolder, ElevationType elevation) {
    return zep::platform::CurrentEnv()->extensions->SendDiagnosticCommandToTargets(pluginId, diagFolder, elevation);
}
