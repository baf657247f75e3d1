// The service's MQTT connection (libmosquitto): connects as the device,
// subscribes to its notification topic with QoS 1, hands every message over,
// and reconnects with exponential back-off for as long as it runs. All of it
// happens on one network thread of its own.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "serve/Endpoint.h"
#include "serve/TlsPolicy.h"

struct mosquitto;
struct mosquitto_message;

namespace zepdiag::serve {

// The wait before connection attempt `failures` + 1: 1, 2, 4, 8, 16 s, then
// 30 s for good. Pure.
std::chrono::seconds ReconnectDelay(unsigned failures);

class MqttClient {
public:
    struct Handlers {
        // A message on the topic: its bytes, untrusted.
        std::function<void(std::string_view payload)> message;
        // A connection made after one was lost (not the first one).
        std::function<void()> restored;
    };

    // `tls` is used when `broker.tls` is set. The session is kept by the broker (no clean start), so QoS 1 requests
    // sent while the service was away arrive when it is back.
    MqttClient(Endpoint broker, std::string clientId, std::string topic, TlsPolicy tls, Handlers handlers);
    ~MqttClient();  // Stop()
    MqttClient(const MqttClient&) = delete;
    MqttClient& operator=(const MqttClient&) = delete;

    // Starts the network thread, which connects. False with `error` when the
    // client cannot be set up at all (TLS files, memory).
    bool Start(std::string& error);
    // Disconnects cleanly and ends the network thread; within about a second
    // unless a host name lookup is under way.
    void Stop();
    // Connected and acknowledged by the broker, now.
    bool IsConnected() const { return connected_; }

private:
    static void OnConnect(mosquitto*, void* self, int code);
    static void OnDisconnect(mosquitto*, void* self, int code);
    static void OnSubscribe(mosquitto*, void* self, int mid, int count, const int* granted);
    static void OnMessage(mosquitto*, void* self, const mosquitto_message* message);

    void Run();
    // One connection, from the attempt until it is lost or the client stops.
    void RunConnection();
    bool Stopping();
    // Waits `delay` unless Stop() comes first; false when stopping.
    bool Pause(std::chrono::seconds delay);

    const Endpoint broker_;
    const std::string clientId_;
    const std::string topic_;
    const TlsPolicy tls_;
    const Handlers handlers_;

    mosquitto* client_ = nullptr;
    std::atomic<bool> connected_{false};
    bool everConnected_ = false;  // network thread only
    unsigned failures_ = 0;       // network thread only
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace zepdiag::serve
