// The agent's policy and deploy agents as the module sees them.
#pragma once

#include <memory>
#include <string>

#include "platform/env/PolicyEnv.h"

using Package = zep::platform::Package;
using UpdatePolicy = zep::platform::UpdatePolicy;

// What a verifier of provisioning tokens asks the configuration agent.
class IConfigAgent {
public:
    virtual ~IConfigAgent() = default;
    virtual PlatformPolicy GetPlatformPolicy() = 0;
};

class ConfigPolicyAgent : public IConfigAgent {
public:
    static ConfigPolicyAgent* GetInstance();
    UpdatePolicy GetUpdatePolicy();
    PlatformPolicy GetPlatformPolicy() override;
};

class UpdateUtility {
public:
    // The package's repository folder, without a trailing separator.
    static std::wstring GetPackageRepositoryFolder(const Package& package, bool create);
};
