// SIGTERM and SIGINT as events to read rather than handlers to run: they are
// blocked in the constructing thread, and so in every thread it starts
// afterwards, and arrive on a signalfd instead.
#pragma once

#include <signal.h>

#include "platform/posix/Fd.h"

namespace zepdiag::serve {

class ShutdownSignals {
public:
    // Construct before any other thread starts: a thread started earlier
    // would still take the signals' default action (ending the process).
    ShutdownSignals();
    // Restores the previous signal mask.
    ~ShutdownSignals();
    ShutdownSignals(const ShutdownSignals&) = delete;
    ShutdownSignals& operator=(const ShutdownSignals&) = delete;

    bool Valid() const { return fd_.Valid(); }
    // Readable when a signal is pending.
    int Fd() const { return fd_.Get(); }
    // Takes one pending signal: its number, or 0 when none is pending.
    int Take();

private:
    sigset_t previous_{};
    zep::platform::Fd fd_;
};

}  // namespace zepdiag::serve
