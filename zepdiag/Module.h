// The module running on one device folder: the platform installed, the
// manager initialised, and the hub through which notifications reach it.
#pragma once

#include <filesystem>
#include <memory>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/env/Env.h"
#include "platform/device/InProcessHub.h"
#include "platform/agent/ZEPNotificationData.h"

namespace zepdiag {

struct Session {
    std::filesystem::path dir;
    std::shared_ptr<zep::platform::InProcessHub> hub;
    DiagnosticsManager* manager = nullptr;
};

// The hub's device-online notification (topic 6, state 0): it completes the
// uploads deferred while offline.
ZEPNotificationData DeviceOnlineNotification();

// A new hub, kept until the process ends: the manager is a process-wide
// singleton that never unsubscribes from the hub it was initialised with.
std::shared_ptr<zep::platform::InProcessHub> NewHub();

// The device folder's own platform, with `hub` as its notification hub.
zep::platform::Env DeviceFolderEnv(const std::filesystem::path& dir, std::shared_ptr<zep::platform::InProcessHub> hub);

// Installs `env` (whose hub is `hub`) and initialises the module on it. May
// be called several times in one process.
Session StartModule(const std::filesystem::path& dir, std::shared_ptr<zep::platform::InProcessHub> hub,
                    zep::platform::Env env);

}  // namespace zepdiag
