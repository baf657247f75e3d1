// Where a scan's files lie: the persistent diagnostics tree under the agent's
// data root and the temporary component tree.
#include "DiagnosticScanner/DiagnosticsManager.h"
#include "artifacts/ZipNames.h"
#include "platform/agent/CommonBase.h"
#include "platform/util/Paths.h"

using zep::path::NativePath;

void DiagnosticsManager::GetScanFolderPath(std::wstring& out) {
    std::wstring root;
    utility::GetZepAppDataRootPath(root);
    out = root + NativePath(L"\\diagnostics\\latest\\");
}

void DiagnosticsManager::GetComponentFolderPath(std::wstring& out) {
    // The temporary folder ends with a separator, so none is inserted.
    out = FileSystem::GetTempFolderPath() + NativePath(L"Quorin\\Zep");
}

void DiagnosticsManager::GetZipFolderName(std::wstring& out) {
    // Sanitised once, here: staging, packing and upload must agree on it.
    out = zep::artifacts::ZipFolderName(CoreUtility::GetInstance()->GetLogicalDeviceID(), scanID);
}
