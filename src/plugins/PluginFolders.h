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
};

}  // namespace zep::plugins
