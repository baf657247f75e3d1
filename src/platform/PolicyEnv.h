// The agent's policies as the module reads them: the update policy with the
// installed packages, and where the deploy agent keeps each package.
#pragma once

#include <string>
#include <vector>

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
};

}  // namespace zep::platform
