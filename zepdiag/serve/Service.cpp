#include "serve/Service.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

#include <curl/curl.h>

#include "Module.h"
#include "platform/util/Strings.h"
#include "serve/Envelope.h"
#include "serve/ServeAgents.h"
#include "serve/HttpsStorage.h"
#include "serve/MqttClient.h"
#include "serve/ServeLog.h"
#include "serve/ServeNetwork.h"
#include "serve/ShutdownSignals.h"

namespace zepdiag::serve {
namespace {

constexpr auto kScanGrace = std::chrono::seconds(60);
constexpr int kUnusable = 2;
constexpr int kFailure = 1;

// Hands a message from the broker to the module, as `zepdiag notify` does.
void DeliverMessage(zep::platform::InProcessHub& hub, const std::atomic<bool>& taking, std::string_view bytes) {
    if (!taking) {
        LogLine("MQTT: message dropped: the service is stopping");
        return;
    }
    std::string error;
    std::optional<ZEPNotificationData> notification = ParseEnvelope(bytes, error);
    if (!notification) {
        LogLine("MQTT: message of " + std::to_string(bytes.size()) + " bytes dropped: " + error);
        return;
    }
    LogLine("MQTT: delivering " + zep::text::ToUtf8(notification->getMessageType()) + " (topic " +
            std::to_string(notification->getTopicId()) + ", state " + std::to_string(notification->getEventState()) +
            ")");
    hub.Publish(std::move(*notification));
}

void DeliverOnline(zep::platform::InProcessHub& hub, const std::atomic<bool>& taking) {
    if (!taking) return;
    LogLine("MQTT: connection restored: delivering device-online");
    hub.Publish(DeviceOnlineNotification());
}

// The device folder's platform with the service's roads in place of its own:
// uploads over HTTPS when there is an upload address, and the network and the
// MQTT connection as the service sees them.
void UseServiceRoads(zep::platform::Env& env, const ServeSettings& settings, std::shared_ptr<MqttClient> client) {
    if (settings.uploadUrl) {
        env.storage = std::make_shared<HttpsStorage>(*settings.uploadUrl, settings.tls, env.device);
    }
    env.network = std::make_shared<ServeNetwork>([client] { return client->IsConnected(); }, settings.uploads);
    env.agents = std::make_shared<ServeAgents>([client] { return client->IsConnected(); }, env.agents);
}

// Polls `fds` for input until `deadline` (none: no limit). The index of the
// first readable one, or -1 when the time is up.
int WaitReadable(std::initializer_list<int> fds, std::optional<std::chrono::steady_clock::time_point> deadline) {
    std::vector<pollfd> watched;
    for (const int fd : fds) watched.push_back(pollfd{fd, POLLIN, 0});
    for (;;) {
        int timeout = -1;
        if (deadline) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return -1;
            timeout = static_cast<int>(left.count());
        }
        const int ready = ::poll(watched.data(), watched.size(), timeout);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return -1;
        for (std::size_t i = 0; i < watched.size(); ++i) {
            if (watched[i].revents != 0) return static_cast<int>(i);
        }
    }
}

enum class Ending { Finished, TimedOut, Signalled };

// Lets the hub deliver what it holds and the running scan end, within the
// grace time; a signal cuts the wait short. The waiting thread is left behind
// unless the work finished: the process ends right after.
Ending FinishWork(const Session& session, ShutdownSignals& signals) {
    const auto done = std::make_shared<zep::platform::Fd>(::eventfd(0, EFD_CLOEXEC));
    std::thread waiter([hub = session.hub, manager = session.manager, done] {
        hub->WaitUntilIdle();
        manager->WaitForScanToFinish();
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(done->Get(), &one, sizeof one);
    });
    const int ready = WaitReadable({done->Get(), signals.Fd()}, std::chrono::steady_clock::now() + kScanGrace);
    if (ready == 0) {
        waiter.join();
        return Ending::Finished;
    }
    waiter.detach();
    return ready == 1 ? Ending::Signalled : Ending::TimedOut;
}

std::string SignalName(int signal) {
    return signal == SIGINT ? "SIGINT" : signal == SIGTERM ? "SIGTERM" : "signal " + std::to_string(signal);
}

}  // namespace

int RunServe(const ServeOptions& options, const std::filesystem::path& dir, std::ostream& err) {
    ShutdownSignals signals;  // before any thread starts
    if (!signals.Valid()) {
        err << "zepdiag: cannot watch for signals: " << std::strerror(errno) << '\n';
        return kFailure;
    }
    // A peer that closes its end must fail one write, not end the service.
    std::signal(SIGPIPE, SIG_IGN);
    static std::once_flag curlReady;
    std::call_once(curlReady, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });

    zep::platform::Env env = DeviceFolderEnv(dir, nullptr);
    std::string error;
    const std::optional<ServeSettings> settings = ResolveServeSettings(
        options, env.policy->GetPlatformPolicy(), zep::text::ToUtf8(env.device->DeviceId()), error);
    if (!settings) {
        err << "zepdiag: " << error << '\n';
        return kUnusable;
    }
    const auto hub = NewHub();
    env.hub = hub;

    const auto taking = std::make_shared<std::atomic<bool>>(true);
    MqttClient::Handlers handlers{[hub, taking](std::string_view bytes) { DeliverMessage(*hub, *taking, bytes); },
                                  [hub, taking] { DeliverOnline(*hub, *taking); }};
    const auto client = std::make_shared<MqttClient>(settings->broker, settings->clientId, settings->topic,
                                                     settings->tls, std::move(handlers));
    UseServiceRoads(env, *settings, client);
    const Session session = StartModule(dir, hub, std::move(env));
    if (!client->Start(error)) {
        err << "zepdiag: " << error << '\n';
        return kUnusable;
    }
    LogLine("serving " + dir.string() + ": requests from " + settings->topic + ", uploads to " +
            settings->uploadUrl.value_or((dir / "outbox").string()));

    WaitReadable({signals.Fd()}, std::nullopt);
    LogLine(SignalName(signals.Take()) + ": taking no more messages; a running scan may finish within " +
            std::to_string(kScanGrace.count()) + " s");
    *taking = false;
    const Ending ending = FinishWork(session, signals);
    if (ending == Ending::Signalled) {
        const int second = signals.Take();
        LogLine(SignalName(second) + " again: ending at once");
        std::_Exit(128 + second);
    }
    client->Stop();
    if (ending == Ending::TimedOut) {
        // The scan's thread cannot be joined; ending the process is the only
        // way past it.
        LogLine("the running scan did not finish in time: ending without it");
        std::_Exit(0);
    }
    LogLine("stopped");
    return 0;
}

}  // namespace zepdiag::serve
