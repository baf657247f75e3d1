// `zepdiag serve`: the device's service. It runs the module on a device
// folder, takes the cloud's requests from the MQTT broker into the module's
// hub, uploads over HTTPS, and stops on SIGTERM or SIGINT: no more messages,
// a running scan may finish (up to 60 s), then it disconnects. A second
// signal ends it at once.
#pragma once

#include <filesystem>
#include <ostream>

#include "serve/ServeSettings.h"

namespace zepdiag::serve {

// Serves the device folder `dir` (a device folder already). Returns 0 after a
// requested stop, 2 when the settings cannot be used (the reason on `err`),
// 1 when the service cannot start. The service's log goes to standard error.
int RunServe(const ServeOptions& options, const std::filesystem::path& dir, std::ostream& err);

}  // namespace zepdiag::serve
