#include "Module.h"

#include <mutex>
#include <vector>

#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "platform/device/DeviceFolder.h"

namespace zepdiag {

ZEPNotificationData DeviceOnlineNotification() {
    constexpr int kTopicNetwork = 6;
    constexpr int kStateNone = 0;
    return ZEPNotificationData(kTopicNetwork, kStateNone, L"", L"", L"");
}

std::shared_ptr<zep::platform::InProcessHub> NewHub() {
    static std::mutex mutex;
    static std::vector<std::shared_ptr<zep::platform::InProcessHub>> hubs;
    auto hub = std::make_shared<zep::platform::InProcessHub>();
    std::lock_guard<std::mutex> lock(mutex);
    hubs.push_back(hub);
    return hub;
}

zep::platform::Env DeviceFolderEnv(const std::filesystem::path& dir, std::shared_ptr<zep::platform::InProcessHub> hub) {
    return zep::platform::MakeDeviceFolderEnv(zep::path::FromFs(dir), std::move(hub));
}

Session StartModule(const std::filesystem::path& dir, std::shared_ptr<zep::platform::InProcessHub> hub,
                    zep::platform::Env env) {
    Session session{dir, std::move(hub), nullptr};
    zep::platform::InstallEnv(std::move(env));
    session.manager = DiagnosticsManager::GetInstance();
    // Init again on every call: it subscribes to the hub just installed and
    // opens the log of this device folder.
    session.manager->Init(nullptr);
    return session;
}

}  // namespace zepdiag
