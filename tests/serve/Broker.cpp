#include "Broker.h"

#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>

#include "Pki.h"
#include "serve/ServeNetwork.h"

namespace zep::testing {

int FreePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    ::close(fd);
    return port;
}

Broker::Broker(const std::filesystem::path& dir, Mode mode) : dir_(dir), mode_(mode), port_(FreePort()) {
    std::ofstream config(dir_ / "mosquitto.conf");
    // Started by root, the broker would drop to its own user, which cannot
    // read the test's key files; it stays the user who runs the test.
    const passwd* user = ::getpwuid(::getuid());
    config << "listener " << port_ << " 127.0.0.1\n"
           << "allow_anonymous true\npersistence false\n"
           << "user " << (user != nullptr ? user->pw_name : "root") << '\n';
    if (mode_ != Mode::Plain) {
        const Pki& pki = TestPki();
        config << "cafile " << pki.root.cert.string() << "\ncertfile " << pki.server.cert.string() << "\nkeyfile "
               << pki.server.key.string() << "\nrequire_certificate true\n";
    }
}

Broker::~Broker() { Stop(); }

bool Broker::Start() {
    // Debian keeps the broker in /usr/sbin, which a user's PATH may lack.
    const std::string program = access("/usr/sbin/mosquitto", X_OK) == 0 ? "/usr/sbin/mosquitto" : "mosquitto";
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{program, "-c", (dir_ / "mosquitto.conf").string()}, dir_ / "mosquitto.log");
    return process_->Started() && Eventually(
                                      [&] {
                                          return zepdiag::serve::AcceptsTcp("127.0.0.1", port_,
                                                                            std::chrono::milliseconds(200));
                                      },
                                      std::chrono::seconds(5));
}

void Broker::Stop() {
    if (!process_) return;
    process_->Signal(SIGTERM);
    process_->Wait(std::chrono::seconds(5));
    process_.reset();
}

std::string Broker::Url() const {
    return (mode_ == Mode::Plain ? "mqtt://127.0.0.1:" : "mqtts://127.0.0.1:") + std::to_string(port_);
}

bool Broker::Publish(const std::string& topic, const std::string& message) const {
    std::vector<std::string> args{"mosquitto_pub", "-h", "127.0.0.1", "-p", std::to_string(port_), "-q", "1",
                                  "-t", topic, "-m", message};
    if (mode_ != Mode::Plain) {
        const Pki& pki = TestPki();
        for (const std::string& arg : {std::string("--cafile"), pki.root.cert.string(), std::string("--cert"),
                                       pki.client.cert.string(), std::string("--key"), pki.client.key.string()}) {
            args.push_back(arg);
        }
    }
    return RunToEnd(args, dir_ / "publish.log", std::chrono::seconds(10)) == 0;
}

}  // namespace zep::testing
