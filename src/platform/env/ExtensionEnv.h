// The agent's extension module: the plug-ins installed on the device and the
// get-diagnostics command sent to their running instances.
#pragma once

#include <string>
#include <vector>

#include "DiagnosticScanner/AgentTypes.h"  // ElevationType

namespace zep::platform {

// The answer of one instance to a get-diagnostics command.
struct DiagnosticsOperationResult {
    bool isSuccess = false;
    bool deleteFilesOnUpload = false;  // the plug-in wants its files gone once uploaded
    bool timeout = false;
    bool delivered = false;
};

class ExtensionEnv {
public:
    virtual ~ExtensionEnv() = default;
    // False when `target` names no valid plug-in on this device or no running
    // instance of it; otherwise the plug-in's id and the elevations of its
    // running instances, in the order to ask them.
    virtual bool TryResolveGetDiagnosticsElevations(const std::wstring& target, std::wstring& pluginId,
                                                    std::vector<ElevationType>& elevations) = 0;
    // Delivers the command to the instance of that elevation, telling it the
    // folder to write into, and waits for its answer or a time-out.
    virtual DiagnosticsOperationResult SendDiagnosticCommandToTargets(const std::wstring& pluginId,
                                                                      const std::wstring& diagFolder,
                                                                      ElevationType elevation) = 0;
};

}  // namespace zep::platform
