#include "platform/windows/Win32.h"

#include "platform/windows/WindowsClock.h"

#include <bcrypt.h>

#include <algorithm>
#include <thread>

namespace zep::platform {

std::chrono::nanoseconds WindowsClock::SteadyNow() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch());
}

std::chrono::system_clock::time_point WindowsClock::SystemNow() { return std::chrono::system_clock::now(); }

void WindowsClock::SleepFor(std::chrono::milliseconds duration) { std::this_thread::sleep_for(duration); }

void WindowsRandom::Fill(std::uint8_t* bytes, std::size_t size) {
    while (size > 0) {
        const auto chunk = static_cast<ULONG>(std::min<std::size_t>(size, 1u << 20));
        // Fails only for bad arguments; the buffer stays usable.
        if (!BCRYPT_SUCCESS(::BCryptGenRandom(nullptr, bytes, chunk, BCRYPT_USE_SYSTEM_PREFERRED_RNG))) return;
        bytes += chunk;
        size -= chunk;
    }
}

}  // namespace zep::platform
