// The agent's parts as the service has them. Its MQTT connection is the
// service's own, so the health test reports the connection the device really
// has; the registered certificate stays the device folder's.
#pragma once

#include <functional>
#include <memory>

#include "platform/env/AgentEnv.h"

namespace zepdiag::serve {

class ServeAgents : public zep::platform::AgentEnv {
public:
    ServeAgents(std::function<bool()> connected, std::shared_ptr<zep::platform::AgentEnv> device);

    std::shared_ptr<zep::platform::NotificationAgent> GetNotificationAgent() override { return notification_; }
    std::shared_ptr<zep::platform::CoreAdapter> GetCoreAdapter() override { return device_->GetCoreAdapter(); }

private:
    std::shared_ptr<zep::platform::NotificationAgent> notification_;
    std::shared_ptr<zep::platform::AgentEnv> device_;
};

}  // namespace zepdiag::serve
