#include "manager/ScanLock.h"

#include <string>

#include "platform/agent/CommonBase.h"
#include "platform/util/Paths.h"

namespace zep::manager {

std::unique_ptr<platform::FileLock> LockDeviceScans() {
    constexpr const char* kLabel = "DiagnosticsManager::LockDeviceScans";
    std::wstring root;
    if (!utility::GetZepAppDataRootPath(root) || root.empty()) return nullptr;
    const auto folder = FileSystem::openFolder(root + path::NativePath(L"\\diagnostics"), true);
    platform::FsStatus status;
    auto lock = folder ? folder->Lock(L".scan.lock", true, &status) : nullptr;
    if (!lock) g_log.e(L"%s: cannot take the device's scan lock: %s", kLabel, status.message);
    return lock;
}

}  // namespace zep::manager
