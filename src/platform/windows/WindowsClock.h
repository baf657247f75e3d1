// The system's clocks, and CNG's random number generator.
#pragma once

#include "platform/env/ClockEnv.h"

namespace zep::platform {

class WindowsClock : public ClockEnv {
public:
    std::chrono::nanoseconds SteadyNow() override;
    std::chrono::system_clock::time_point SystemNow() override;
    void SleepFor(std::chrono::milliseconds duration) override;
};

// BCryptGenRandom with the system's preferred generator.
class WindowsRandom : public RandomEnv {
public:
    void Fill(std::uint8_t* bytes, std::size_t size) override;
};

}  // namespace zep::platform
