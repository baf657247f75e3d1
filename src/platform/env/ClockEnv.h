// Time and randomness. Tests replace both to make scans deterministic.
#pragma once

#include <chrono>
#include <cstdint>

namespace zep::platform {

class ClockEnv {
public:
    virtual ~ClockEnv() = default;

    // Monotonic time since an arbitrary epoch; never goes backwards.
    virtual std::chrono::nanoseconds SteadyNow() = 0;
    // Wall-clock time (UTC).
    virtual std::chrono::system_clock::time_point SystemNow() = 0;
    // Blocks the calling thread for `duration` (a fake clock advances instead).
    virtual void SleepFor(std::chrono::milliseconds duration) = 0;
};

class RandomEnv {
public:
    virtual ~RandomEnv() = default;

    // Fills `size` bytes from a cryptographically strong source.
    virtual void Fill(std::uint8_t* bytes, std::size_t size) = 0;
};

}  // namespace zep::platform
