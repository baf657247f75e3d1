#include "platform/agent/AgentPolicies.h"

#include "platform/env/Env.h"

ConfigPolicyAgent* ConfigPolicyAgent::GetInstance() {
    static ConfigPolicyAgent instance;
    return &instance;
}

UpdatePolicy ConfigPolicyAgent::GetUpdatePolicy() { return zep::platform::CurrentEnv()->policy->GetUpdatePolicy(); }

PlatformPolicy ConfigPolicyAgent::GetPlatformPolicy() { return zep::platform::CurrentEnv()->policy->GetPlatformPolicy(); }

std::wstring UpdateUtility::GetPackageRepositoryFolder(const Package& package, bool) {
    return zep::platform::CurrentEnv()->policy->GetPackageRepositoryFolder(package);
}
