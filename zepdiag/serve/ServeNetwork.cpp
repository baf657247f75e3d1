#include "serve/ServeNetwork.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>

#include "platform/posix/Fd.h"
#include "serve/ServeLog.h"

namespace zepdiag::serve {
namespace {

constexpr auto kUploadHostTimeout = std::chrono::seconds(5);

struct AddressesDeleter {
    void operator()(addrinfo* addresses) const { freeaddrinfo(addresses); }
};

bool Connects(const addrinfo& address, std::chrono::steady_clock::time_point deadline) {
    const zep::platform::Fd socket(
        ::socket(address.ai_family, address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, address.ai_protocol));
    if (!socket.Valid()) return false;
    if (::connect(socket.Get(), address.ai_addr, address.ai_addrlen) == 0) return true;
    if (errno != EINPROGRESS) return false;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd watched{socket.Get(), POLLOUT, 0};
        const int ready = ::poll(&watched, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        int error = 0;
        socklen_t length = sizeof error;
        return ::getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
    }
}

}  // namespace

bool AcceptsTcp(const std::string& host, int port, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) return false;
    const std::unique_ptr<addrinfo, AddressesDeleter> addresses(found);
    for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
        if (Connects(*address, deadline)) return true;
    }
    return false;
}

ServeNetwork::ServeNetwork(std::function<bool()> brokerConnected, std::optional<Endpoint> uploads)
    : brokerConnected_(std::move(brokerConnected)), uploads_(std::move(uploads)) {}

bool ServeNetwork::IsInternetConnected(DWORD& flags) {
    flags = 0;
    if (!brokerConnected_()) {
        LogLine("network: the broker connection is down");
        return false;
    }
    if (uploads_ && !AcceptsTcp(uploads_->host, uploads_->port, kUploadHostTimeout)) {
        LogLine("network: " + uploads_->host + ":" + std::to_string(uploads_->port) + " accepts no connection");
        return false;
    }
    flags = 1;
    return true;
}

}  // namespace zepdiag::serve
