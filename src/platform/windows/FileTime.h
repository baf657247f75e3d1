// Windows file times (100-nanosecond ticks since 1601-01-01 UTC) and the
// seam's nanoseconds since 1970, both ways. Times beyond what either side can
// hold are clamped rather than wrapped.
#pragma once

#include <cstdint>
#include <limits>

namespace zep::platform::win32 {

// Ticks from 1601-01-01 to 1970-01-01.
inline constexpr std::uint64_t kUnixEpochTicks = 116444736000000000ull;

constexpr std::int64_t TicksToUnixNs(std::uint64_t ticks) {
    constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
    constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
    if (ticks >= kUnixEpochTicks) {
        const std::uint64_t after = ticks - kUnixEpochTicks;
        return after > static_cast<std::uint64_t>(kMax / 100) ? kMax : static_cast<std::int64_t>(after) * 100;
    }
    const std::uint64_t before = kUnixEpochTicks - ticks;  // below 2^57: no overflow
    return before > static_cast<std::uint64_t>(kMax / 100) ? kMin : -static_cast<std::int64_t>(before) * 100;
}

constexpr std::uint64_t UnixNsToTicks(std::int64_t ns) {
    // Floor division, so that a time before 1970 rounds to the earlier tick.
    const std::int64_t ticks = ns / 100 - (ns % 100 < 0 ? 1 : 0);
    if (ticks >= 0) return kUnixEpochTicks + static_cast<std::uint64_t>(ticks);
    const std::uint64_t before = static_cast<std::uint64_t>(-(ticks + 1)) + 1;
    return before > kUnixEpochTicks ? 0 : kUnixEpochTicks - before;
}

}  // namespace zep::platform::win32
