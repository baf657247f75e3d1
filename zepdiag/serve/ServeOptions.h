// The options of `zepdiag serve` as the command line gives them.
#pragma once

#include <string>

namespace zepdiag::serve {

// Empty means not given.
struct ServeOptions {
    std::string broker;     // --broker mqtt[s]://host:port
    std::string uploadUrl;  // --upload-url https://...
    std::string ca;         // --ca FILE
    std::string cert;       // --cert FILE (with --key)
    std::string key;        // --key FILE
};

}  // namespace zepdiag::serve
