#include "platform/posix/PosixClock.h"

#include <sys/random.h>

#include <cerrno>
#include <thread>

namespace zep::platform {

std::chrono::nanoseconds PosixClock::SteadyNow() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch());
}

std::chrono::system_clock::time_point PosixClock::SystemNow() { return std::chrono::system_clock::now(); }

void PosixClock::SleepFor(std::chrono::milliseconds duration) { std::this_thread::sleep_for(duration); }

void PosixRandom::Fill(std::uint8_t* bytes, std::size_t size) {
    while (size > 0) {
        const ssize_t got = ::getrandom(bytes, size, 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            // getrandom only fails for bad arguments; keep the buffer usable.
            return;
        }
        bytes += got;
        size -= static_cast<std::size_t>(got);
    }
}

}  // namespace zep::platform
