#include "plugins/PluginFolders.h"

#include "DiagnosticScanner/PluginDiagnosticsProcessor.h"

namespace zep::plugins {

std::wstring PluginFolders::DiagFolder(zep::platform::ElevationType elevation, const std::wstring& pluginId) {
    return PluginDiagnosticsProcessor::ResolvePluginDiagFolder(elevation, pluginId);
}

bool PluginFolders::LoggedInUserLocalAppData(std::wstring& out) {
    return PluginDiagnosticsProcessor::GetLoggedInUserLocalAppData(out);
}

}  // namespace zep::plugins
