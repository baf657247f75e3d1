// What `zepdiag serve` connects to and how, from its command line and the
// device's platform policy; the command line wins.
#pragma once

#include <optional>
#include <string>

#include "DiagnosticScanner/PlatformPolicy.h"
#include "serve/Endpoint.h"
#include "serve/ServeOptions.h"
#include "serve/TlsPolicy.h"

namespace zepdiag::serve {

struct ServeSettings {
    Endpoint broker;
    std::string clientId;  // the device id
    std::string topic;     // zep/<device id>/notifications
    // Absent: uploads stay in the device folder's outbox.
    std::optional<std::string> uploadUrl;
    std::optional<Endpoint> uploads;
    TlsPolicy tls;  // both roads
};

// The broker is --broker, else the policy's mqtt_baseuri; the upload address
// --upload-url, else the policy's api_baseuri + "/diagnostics/upload", else
// none. Trust comes from --ca, else the policy's mqtt_chain_pem64 (base64 of
// PEM), else the system; the pin lists and allow_self_signed_cert from the
// policy. Nothing, with the reason in `error`, when something cannot be used.
// Pure.
std::optional<ServeSettings> ResolveServeSettings(const ServeOptions& options, const PlatformPolicy& policy,
                                                  const std::string& deviceId, std::string& error);

}  // namespace zepdiag::serve
