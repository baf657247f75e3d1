// The plug-in diagnostics folders as the module resolves them, for hosts that
// show where a plug-in's files went.
#pragma once

#include <string>

#include "DiagnosticScanner/AgentTypes.h"
#include "DiagnosticScanner/Export.h"

namespace zep::plugins {

class DIAGSCANNER_API PluginFolders {
public:
    // The folder of one instance; empty when it cannot be resolved.
    static std::wstring DiagFolder(zep::platform::ElevationType elevation, const std::wstring& pluginId);
    // The logged-in user's Local AppData folder; false when there is none.
    static bool LoggedInUserLocalAppData(std::wstring& out);
    // The plug-in zip of `diagFolder`: latest\<device id>_<plug-in id>.zip,
    // the name sanitised as the agent's own zip name is (the device id comes
    // from outside and must not lead the archive out of latest\).
    static std::wstring ZipPath(const std::wstring& diagFolder, const std::wstring& pluginId);
};

}  // namespace zep::plugins
