// The pure parts of the scan summary: what the problem signature is hashed
// from, and how scan-history text is cut into lines and fields.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <json/json.h>

namespace zep::results {

// What a scan's component documents add up to.
struct ComponentSummary {
    // One "componentId,testId\n" line per failed test, ordered by component id
    // and then test id (plain byte order; equal component ids keep their
    // reading order). Empty when no test failed.
    std::string signatureInput;
    // Tests whose "result" is exactly the string "fail".
    std::int32_t failedTests = 0;
    // `executionSecondsSoFar` plus every component's "executionTimeSeconds",
    // added one by one in single precision.
    float executionSeconds = 0.0f;
};

// Walks the component documents in order. A non-numeric or out-of-range
// "executionTimeSeconds" throws std::invalid_argument or std::out_of_range
// (std::stof) and nothing is returned: the caller's totals stay untouched.
// Documents or tests that are not JSON objects carry no id and no failure.
ComponentSummary SummariseComponents(const std::vector<Json::Value>& components, float executionSecondsSoFar);

// Cuts a history line at every comma the way getline with ',' does: a
// trailing comma does not open a further, empty field; an empty line has none.
std::vector<std::wstring> SplitHistoryFields(const std::wstring& line);

// Cuts a file's text at line feeds, like getline: a final line feed does not
// add an empty line. One carriage return ending a line is dropped, so files
// written in Windows text mode read the same.
std::vector<std::string> SplitHistoryText(const std::string& text);

// The inverse: every line followed by the system's text-mode line break (CRLF
// on Windows, LF elsewhere).
std::string JoinHistoryText(const std::vector<std::string>& lines);

}  // namespace zep::results
