// The agent's own components that the health tests ask: the notification agent
// (the MQTT connection) and the core adapter (the registered certificate).
#pragma once

#include <memory>
#include <string>

namespace zep::platform {

// The MQTT side of the agent. The health test asks, in this order: whether MQTT
// is enabled; when it is, the connection state (2 = connected); when not
// connected, whether the disconnection is expected (a deliberate pause, so not
// a fault); and for a fault, whether the reconnection retries are exhausted.
class NotificationAgent {
public:
    virtual ~NotificationAgent() = default;
    virtual bool IsMqttEnabled() = 0;
    virtual int GetMqttConnectionState() = 0;
    virtual bool IsMqttDisconnectExpected() = 0;
    virtual bool AreMqttRetriesExceeded() = 0;
};

// The certificate the device registered with: whether there is one, and the
// two texts that CoreUtility::IsCertificateExpired judges (its thumbprint and
// its expiry as ISO 8601 UTC, for example 2027-01-31T00:00:00Z).
struct RegisteredCertificate {
    bool isPresent = false;
    std::string thumbprint;
    std::string notAfter;
};

class CoreAdapter {
public:
    virtual ~CoreAdapter() = default;
    virtual RegisteredCertificate GetRegisteredCertificate() = 0;
};

class AgentEnv {
public:
    virtual ~AgentEnv() = default;
    // Null when the agent runs without that component.
    virtual std::shared_ptr<NotificationAgent> GetNotificationAgent() = 0;
    virtual std::shared_ptr<CoreAdapter> GetCoreAdapter() = 0;
};

}  // namespace zep::platform
