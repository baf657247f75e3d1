#include "serve/ShutdownSignals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>

namespace zepdiag::serve {

ShutdownSignals::ShutdownSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    if (pthread_sigmask(SIG_BLOCK, &signals, &previous_) != 0) return;
    fd_ = zep::platform::Fd(::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
}

ShutdownSignals::~ShutdownSignals() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

int ShutdownSignals::Take() {
    signalfd_siginfo info{};
    for (;;) {
        const ssize_t got = ::read(fd_.Get(), &info, sizeof info);
        if (got == static_cast<ssize_t>(sizeof info)) return static_cast<int>(info.ssi_signo);
        if (got < 0 && errno == EINTR) continue;
        return 0;
    }
}

}  // namespace zepdiag::serve
