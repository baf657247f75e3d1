// The agent's publish/subscribe hub, as a subscriber sees it.
#pragma once

#include <functional>
#include <string>

#include "platform/agent/ZEPNotificationData.h"

namespace zep::platform {

using NotificationCallback = std::function<void(ZEPNotificationData&)>;

class HubEnv {
public:
    virtual ~HubEnv() = default;

    // Registers `callback`; the hub calls it on its own delivery thread, one
    // notification at a time. Returns a non-empty subscription id.
    virtual std::wstring Subscribe(NotificationCallback callback, bool qcpOnly) = 0;
    // Ends a subscription; unknown ids are ignored. After it returns the
    // callback is not running and will not be called again.
    virtual void Unsubscribe(const std::wstring& subscriptionId) = 0;
};

}  // namespace zep::platform
