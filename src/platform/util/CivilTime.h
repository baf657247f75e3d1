// Conversions between system_clock time points and UTC calendar fields,
// without the C library's locale- and time-zone-dependent calls.
#pragma once

#include <chrono>
#include <optional>
#include <string_view>

#include "platform/agent/CommonBase.h"

namespace zep::civil {

GmtDateTime ToGmt(std::chrono::system_clock::time_point time);
std::chrono::system_clock::time_point FromGmt(const GmtDateTime& time);
// Accepts YYYY-MM-DDTHH:MM:SSZ (fractions of a second are ignored).
std::optional<std::chrono::system_clock::time_point> ParseIso8601Utc(std::string_view text);

}  // namespace zep::civil
