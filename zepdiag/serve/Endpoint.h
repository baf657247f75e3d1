// The two addresses the service talks to: the MQTT broker and the upload
// endpoint, parsed with libcurl's URL parser.
#pragma once

#include <optional>
#include <string>

namespace zepdiag::serve {

struct Endpoint {
    std::string host;  // a name or an address, IPv6 without brackets
    int port = 0;
    bool tls = false;
};

// "mqtt://host[:1883]" or "mqtts://host[:8883]"; nothing else, and no user,
// path or query: they would be ignored silently otherwise.
std::optional<Endpoint> ParseBrokerUrl(const std::string& url, std::string& error);

// "https://host[:443]/path": uploads carry tokens, so never in clear text.
std::optional<Endpoint> ParseUploadUrl(const std::string& url, std::string& error);

// The upload address below an API base address ("https://api.example/v1/"
// gives "https://api.example/v1/diagnostics/upload").
std::string UploadUrlBelow(const std::string& apiBase);

}  // namespace zepdiag::serve
