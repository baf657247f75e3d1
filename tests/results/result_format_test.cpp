#include "results/ResultFormat.h"

#include <gtest/gtest.h>

namespace zep::results {
namespace {

TEST(FormatExecutionTimeTest, RoundsUpToTheNextWholeMillisecondWithThreeDecimals) {
    struct Case {
        float seconds;
        const wchar_t* text;
    };
    const Case cases[] = {
        {0.0f, L"0.000"},
        // Any measurable time shows as at least one millisecond.
        {0.0001f, L"0.001"}, {0.0004f, L"0.001"},
        // 0.001f lies a little above 0.001, but its single-precision product is exactly 1 ms.
        {0.001f, L"0.001"}, {0.0015f, L"0.002"}, {0.25f, L"0.250"}, {1.2344f, L"1.235"},
        {0.9999f, L"1.000"}, {2.0f, L"2.000"}, {59.9991f, L"60.000"}, {12345.678f, L"12345.678"},
    };
    for (const Case& c : cases) EXPECT_EQ(FormatExecutionTime(c.seconds), c.text) << c.seconds;
}

}  // namespace
}  // namespace zep::results
