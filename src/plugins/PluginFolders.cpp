#include "plugins/PluginFolders.h"

#include "DiagnosticScanner/PluginDiagnosticsProcessor.h"
#include "artifacts/ZipNames.h"
#include "platform/agent/CommonBase.h"
#include "platform/util/Paths.h"

namespace zep::plugins {

std::wstring PluginFolders::DiagFolder(zep::platform::ElevationType elevation, const std::wstring& pluginId) {
    return PluginDiagnosticsProcessor::ResolvePluginDiagFolder(elevation, pluginId);
}

bool PluginFolders::LoggedInUserLocalAppData(std::wstring& out) {
    return PluginDiagnosticsProcessor::GetLoggedInUserLocalAppData(out);
}

std::wstring PluginFolders::ZipPath(const std::wstring& diagFolder, const std::wstring& pluginId) {
    return diagFolder + zep::path::NativePath(L"\\latest\\") +
           zep::artifacts::ZipFolderName(CoreUtility::GetInstance()->GetDeviceID(), pluginId) + L".zip";
}

}  // namespace zep::plugins
