// A mosquitto broker of the test's own: 127.0.0.1, a free port, its own
// configuration file and log in the test's folder; plain, or TLS with the
// test PKI's server certificate that requires a client certificate.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "support/posix/ChildProcess.h"

namespace zep::testing {

// A port on 127.0.0.1 that was free a moment ago.
int FreePort();

class Broker {
public:
    enum class Mode { Plain, MutualTls };

    Broker(const std::filesystem::path& dir, Mode mode);
    ~Broker();

    // Starts it and waits (at most 5 s) until its port accepts connections.
    bool Start();
    // Ends it (SIGTERM) and waits for it; its clients see the connection go.
    void Stop();

    std::string Url() const;  // mqtt://127.0.0.1:<port>, or mqtts://
    // Publishes one message with QoS 1 through mosquitto_pub.
    bool Publish(const std::string& topic, const std::string& message) const;

private:
    std::filesystem::path dir_;
    Mode mode_;
    int port_;
    std::unique_ptr<ChildProcess> process_;
};

}  // namespace zep::testing
