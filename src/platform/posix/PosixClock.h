// The system's clocks and its random source.
#pragma once

#include "platform/env/ClockEnv.h"

namespace zep::platform {

class PosixClock : public ClockEnv {
public:
    std::chrono::nanoseconds SteadyNow() override;
    std::chrono::system_clock::time_point SystemNow() override;
    void SleepFor(std::chrono::milliseconds duration) override;
};

// getrandom(2), the kernel's cryptographically strong source.
class PosixRandom : public RandomEnv {
public:
    void Fill(std::uint8_t* bytes, std::size_t size) override;
};

}  // namespace zep::platform
