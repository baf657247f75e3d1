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
    // An upper bound on the random delay before retrying an upload, for
    // demonstrations; 0 keeps the caller's range.
    virtual unsigned int MaxJitterSeconds() { return 0; }
};

}  // namespace zep::platform
