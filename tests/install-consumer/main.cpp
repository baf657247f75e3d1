// Uses the installed module the way the agent's service does: the manager's
// singleton and the platform policy record, from the public headers alone.
#include <DiagnosticScanner/DiagnosticsManager.h>
#include <DiagnosticScanner/PlatformPolicy.h>

#include <iostream>

int main() {
    PlatformPolicy policy;
    policy.set_api_baseuri(L"https://api.example");
    policy.set_tls_leaf_cn_list({L"broker.example", L"api.example"});
    if (policy.api_baseuri() != L"https://api.example" || policy.tls_leaf_cn_list().size() != 2) {
        std::cerr << "install consumer: the platform policy does not keep its fields\n";
        return 1;
    }
    if (DiagnosticsManager::GetInstance() == nullptr) {
        std::cerr << "install consumer: no diagnostics manager\n";
        return 1;
    }
    std::cout << "install consumer: ok\n";
    return 0;
}
