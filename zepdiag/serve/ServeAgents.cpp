#include "serve/ServeAgents.h"

namespace zepdiag::serve {
namespace {

constexpr int kConnected = 2;  // the agent's MQTT state for an open connection
constexpr int kDisconnected = 0;

// MQTT is always on in the service, and it reconnects without end.
class ServiceConnection : public zep::platform::NotificationAgent {
public:
    explicit ServiceConnection(std::function<bool()> connected) : connected_(std::move(connected)) {}
    bool IsMqttEnabled() override { return true; }
    int GetMqttConnectionState() override { return connected_() ? kConnected : kDisconnected; }
    bool IsMqttDisconnectExpected() override { return false; }
    bool AreMqttRetriesExceeded() override { return false; }

private:
    std::function<bool()> connected_;
};

}  // namespace

ServeAgents::ServeAgents(std::function<bool()> connected, std::shared_ptr<zep::platform::AgentEnv> device)
    : notification_(std::make_shared<ServiceConnection>(std::move(connected))), device_(std::move(device)) {}

}  // namespace zepdiag::serve
