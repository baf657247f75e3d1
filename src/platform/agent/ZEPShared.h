// The agent's shared native library as the module sees it: the notification
// hub and the agent's own identity.
#pragma once

#include <string>

#include "platform/env/HubEnv.h"
#include "platform/agent/ZEPNotificationData.h"

class ZEPPublisherSubscriber {
public:
    static ZEPPublisherSubscriber* GetInstance();
    std::wstring Subscribe(zep::platform::NotificationCallback callback, bool qcpOnly);
    void Unsubscribe(const std::wstring& subscriptionId);
};

class ZepInfo {
public:
    static ZepInfo* GetInstance();
    std::wstring GetId();
    std::wstring GetZepServiceVersion();
};
