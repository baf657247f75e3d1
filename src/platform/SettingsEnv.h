// Developer settings of the agent: switches that only test devices set.
#pragma once

namespace zep::platform {

class SettingsEnv {
public:
    virtual ~SettingsEnv() = default;
    // Lets registry values override built-in limits (the MQTT rate limit).
    virtual bool EnableCustomSettings() = 0;
    // Skips the verification of provisioning tokens.
    virtual bool DisableJwtValidation() = 0;
};

}  // namespace zep::platform
