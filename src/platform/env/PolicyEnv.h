// The agent's policies as the module reads them: the update policy with the
// installed packages, where the deploy agent keeps each package, and the
// platform policy (service addresses, TLS lists, token-signing keys).
#pragma once

#include <string>
#include <vector>

#include "DiagnosticScanner/PlatformPolicy.h"

namespace zep::platform {

// One installed package of the update policy.
struct Package {
    std::wstring id;    // the package's identifier, such as com.quorin.vpnclient
    std::wstring name;  // its display name
};

struct UpdatePolicy {
    std::vector<Package> packages;  // in the policy's order
};

class PolicyEnv {
public:
    virtual ~PolicyEnv() = default;
    // The current update policy; no packages when there is none.
    virtual UpdatePolicy GetUpdatePolicy() = 0;
    // The deploy agent's repository folder of `package`, without a trailing
    // separator (its script lies in its "temp" sub-folder).
    virtual std::wstring GetPackageRepositoryFolder(const Package& package) = 0;
    // The current platform policy; an empty record when there is none.
    virtual PlatformPolicy GetPlatformPolicy() = 0;
};

}  // namespace zep::platform
