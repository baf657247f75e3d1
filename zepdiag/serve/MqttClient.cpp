#include "serve/MqttClient.h"

#include <mosquitto.h>

#include <cerrno>
#include <cstring>

#include "serve/ServeLog.h"

namespace zepdiag::serve {
namespace {

constexpr int kKeepAliveSeconds = 30;
constexpr int kLoopMilliseconds = 200;  // how soon the thread notices Stop()
constexpr auto kConnackTimeout = std::chrono::seconds(30);
constexpr unsigned kDoublings = 5;  // 1 s doubled five times passes the cap
constexpr auto kMaxDelay = std::chrono::seconds(30);

std::string Reason(int code) {
    return code == MOSQ_ERR_ERRNO ? std::string(std::strerror(errno)) : std::string(mosquitto_strerror(code));
}

}  // namespace

std::chrono::seconds ReconnectDelay(unsigned failures) {
    return failures < kDoublings ? std::chrono::seconds(1u << failures) : kMaxDelay;
}

MqttClient::MqttClient(Endpoint broker, std::string clientId, std::string topic, TlsPolicy tls, Handlers handlers)
    : broker_(std::move(broker)), clientId_(std::move(clientId)), topic_(std::move(topic)), tls_(std::move(tls)),
      handlers_(std::move(handlers)) {}

MqttClient::~MqttClient() { Stop(); }

bool MqttClient::Start(std::string& error) {
    static std::once_flag initialized;
    std::call_once(initialized, [] { mosquitto_lib_init(); });  // for the process; never cleaned up

    client_ = mosquitto_new(clientId_.c_str(), false, this);
    if (client_ == nullptr) {
        error = std::string("cannot create the MQTT client: ") + std::strerror(errno);
        return false;
    }
    mosquitto_int_option(client_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);  // long client ids
    if (broker_.tls) {
        const SslContext context = NewClientContext(tls_, broker_.host, error);
        if (!context) return false;
        // Our context as it is, without libmosquitto's defaults; the client
        // keeps a reference of its own.
        mosquitto_int_option(client_, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0);
        mosquitto_void_option(client_, MOSQ_OPT_SSL_CTX, context.get());
    }
    mosquitto_connect_callback_set(client_, OnConnect);
    mosquitto_disconnect_callback_set(client_, OnDisconnect);
    mosquitto_subscribe_callback_set(client_, OnSubscribe);
    mosquitto_message_callback_set(client_, OnMessage);
    thread_ = std::thread([this] { Run(); });
    return true;
}

void MqttClient::Stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
    if (client_ != nullptr) mosquitto_destroy(client_);
    client_ = nullptr;
}

void MqttClient::Run() {
    for (;;) {
        RunConnection();
        const std::chrono::seconds delay = ReconnectDelay(failures_++);
        if (Stopping()) break;
        LogLine("MQTT: next attempt in " + std::to_string(delay.count()) + " s");
        if (!Pause(delay)) break;
    }
    if (connected_) {
        mosquitto_disconnect(client_);
        mosquitto_loop(client_, kLoopMilliseconds, 1);
        LogLine("MQTT: disconnected");
    }
    connected_ = false;
}

void MqttClient::RunConnection() {
    const std::string broker = broker_.host + ":" + std::to_string(broker_.port);
    int code = mosquitto_connect_async(client_, broker_.host.c_str(), broker_.port, kKeepAliveSeconds);
    if (code != MOSQ_ERR_SUCCESS) {
        LogLine("MQTT: cannot connect to " + broker + ": " + Reason(code));
        return;
    }
    const auto deadline = std::chrono::steady_clock::now() + kConnackTimeout;
    while (!Stopping()) {
        code = mosquitto_loop(client_, kLoopMilliseconds, 1);
        if (code != MOSQ_ERR_SUCCESS) {
            LogLine("MQTT: connection to " + broker + " lost: " + Reason(code));
            connected_ = false;
            return;
        }
        if (!connected_ && std::chrono::steady_clock::now() > deadline) {
            LogLine("MQTT: no answer from " + broker + " within " + std::to_string(kConnackTimeout.count()) + " s");
            return;
        }
    }
}

bool MqttClient::Stopping() {
    std::lock_guard<std::mutex> lock(mutex_);
    return stopping_;
}

bool MqttClient::Pause(std::chrono::seconds delay) {
    std::unique_lock<std::mutex> lock(mutex_);
    return !wake_.wait_for(lock, delay, [this] { return stopping_; });
}

// libmosquitto calls these on the network thread, from C: nothing may be
// thrown through them.

void MqttClient::OnConnect(mosquitto*, void* self, int code) {
    auto& client = *static_cast<MqttClient*>(self);
    try {
        if (code != 0) {
            LogLine(std::string("MQTT: the broker refused the connection: ") + mosquitto_connack_string(code));
            return;
        }
        client.connected_ = true;
        client.failures_ = 0;
        LogLine("MQTT: connected to " + client.broker_.host + ":" + std::to_string(client.broker_.port) + " as " +
                client.clientId_);
        const int subscribed = mosquitto_subscribe(client.client_, nullptr, client.topic_.c_str(), 1);
        if (subscribed != MOSQ_ERR_SUCCESS) LogLine("MQTT: cannot subscribe: " + Reason(subscribed));
        if (client.everConnected_ && client.handlers_.restored) client.handlers_.restored();
        client.everConnected_ = true;
    } catch (...) {
        LogLine("MQTT: the connection could not be handled");
    }
}

void MqttClient::OnDisconnect(mosquitto*, void* self, int) { static_cast<MqttClient*>(self)->connected_ = false; }

void MqttClient::OnSubscribe(mosquitto*, void* self, int, int count, const int* granted) {
    const auto& client = *static_cast<const MqttClient*>(self);
    try {
        const bool refused = count < 1 || granted[0] > 2;  // 0x80 is a refusal
        LogLine((refused ? "MQTT: the broker refused the subscription to " : "MQTT: subscribed to ") + client.topic_);
    } catch (...) {
    }
}

void MqttClient::OnMessage(mosquitto*, void* self, const mosquitto_message* message) {
    const auto& client = *static_cast<const MqttClient*>(self);
    try {
        if (client.handlers_.message && message->payloadlen >= 0) {
            client.handlers_.message(std::string_view(static_cast<const char*>(message->payload),
                                                      static_cast<std::size_t>(message->payloadlen)));
        }
    } catch (...) {
        LogLine("MQTT: a message could not be handled");
    }
}

}  // namespace zepdiag::serve
