#include "platform/agent/ZEPShared.h"

#include "platform/env/Env.h"

using zep::platform::CurrentEnv;

ZEPPublisherSubscriber* ZEPPublisherSubscriber::GetInstance() {
    static ZEPPublisherSubscriber instance;
    return &instance;
}
std::wstring ZEPPublisherSubscriber::Subscribe(zep::platform::NotificationCallback callback, bool qcpOnly) {
    return CurrentEnv()->hub->Subscribe(std::move(callback), qcpOnly);
}
void ZEPPublisherSubscriber::Unsubscribe(const std::wstring& subscriptionId) {
    CurrentEnv()->hub->Unsubscribe(subscriptionId);
}

ZepInfo* ZepInfo::GetInstance() {
    static ZepInfo instance;
    return &instance;
}
std::wstring ZepInfo::GetId() { return CurrentEnv()->device->AgentId(); }
std::wstring ZepInfo::GetZepServiceVersion() { return CurrentEnv()->device->ServiceVersion(); }
