// The device's identity, its state with the cloud, and network reachability,
// as the agent's platform knows them. Thread-safe; never throws.
#pragma once

#include <string>

#include "platform/agent/WinTypes.h"

namespace zep::platform {

class DeviceEnv {
public:
    virtual ~DeviceEnv() = default;

    virtual std::wstring DeviceId() = 0;         // the cloud's device id
    virtual std::wstring LogicalDeviceId() = 0;  // names the scan's zip
    virtual std::wstring AgentId() = 0;          // the agent's own GUID text
    virtual std::wstring ServiceVersion() = 0;   // the agent service's version
    virtual bool IsRegistered() = 0;             // registered with the cloud
    virtual bool IsProvisioned() = 0;            // holds a device subscription
    virtual bool HasCommercialIntent() = 0;      // meant for an organisation
};

class NetworkEnv {
public:
    virtual ~NetworkEnv() = default;

    // True when the internet is reachable; `flags` receives the connection
    // kind the system reports (0 when it reports none).
    virtual bool IsInternetConnected(DWORD& flags) = 0;
};

}  // namespace zep::platform
