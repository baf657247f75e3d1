// The agent's policy and deploy agents as the module sees them.
#pragma once

#include <string>

#include "platform/PolicyEnv.h"

using Package = zep::platform::Package;
using UpdatePolicy = zep::platform::UpdatePolicy;

class ConfigPolicyAgent {
public:
    static ConfigPolicyAgent* GetInstance();
    UpdatePolicy GetUpdatePolicy();
};

class UpdateUtility {
public:
    // The package's repository folder, without a trailing separator.
    static std::wstring GetPackageRepositoryFolder(const Package& package, bool create);
};
