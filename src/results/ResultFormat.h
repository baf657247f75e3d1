// Pure helpers of the result documents: number texts, result and trigger
// words, the tests array and the documents' JSON layout.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <json/json.h>

#include "DiagnosticScanner/Tests.h"

namespace zep::results {

// Formats `value` (widened to double) with a wide printf-style format into at
// most 63 characters, as a 64-character buffer would hold.
std::wstring Float2Wstring(float value, const std::wstring& format);

// Seconds as text with three decimals, rounded up to the next whole
// millisecond (so 0.0004 gives 0.001): a component that ran at all never
// reports 0.000 unless it took no measurable time. The multiplication is in
// single precision and the division in double, on purpose.
std::wstring FormatExecutionTime(float seconds);

// Fixed notation with `places` decimals; the stream rounds to nearest.
std::wstring truncateToDecimalPlaces(float value, int places);

// "Complete" (0), "ErrorTimeOut" (1), "ErrorGeneral" (anything else).
std::wstring ResultTypeText(int resultType);
// "Manual" (0), "Mqtt" (2), "Scheduled" (anything else).
std::wstring TriggerTypeText(std::uint32_t triggerType);

// The "tests" array of a component result: one object per test with "id",
// "friendlyName", "expected", "actual" and "result" ("pass" when actual
// equals expected exactly, else "fail"). Always an array, possibly empty.
Json::Value TestsToJson(const std::vector<zep::diagnostics::Tests>& tests);

// A result document as the agent writes it: JsonCpp's default stream writer
// (tab indentation, keys in ascending byte order).
std::string WriteDocument(const Json::Value& document);

}  // namespace zep::results
