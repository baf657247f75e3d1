// Whether the device can reach the cloud, as the service judges it when the
// module asks: the broker connection is up, and the upload endpoint's host
// accepts a TCP connection. A dead upload server thus defers the scan's
// upload, which the next reconnect completes.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "platform/env/DeviceEnv.h"
#include "serve/Endpoint.h"

namespace zepdiag::serve {

// True when a TCP connection to `host`:`port` (any of its addresses) is
// accepted within `timeout`. The connection is closed at once.
bool AcceptsTcp(const std::string& host, int port, std::chrono::milliseconds timeout);

class ServeNetwork : public zep::platform::NetworkEnv {
public:
    // `uploads` is absent when uploads stay on the device.
    ServeNetwork(std::function<bool()> brokerConnected, std::optional<Endpoint> uploads);

    bool IsInternetConnected(DWORD& flags) override;

private:
    const std::function<bool()> brokerConnected_;
    const std::optional<Endpoint> uploads_;
};

}  // namespace zepdiag::serve
