#include "results/ResultFormat.h"

#include <cstdint>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

namespace zep::results {
namespace {

// ---- Execution time ------------------------------------------------------

struct ExecutionTimeCase {
    float seconds;
    const wchar_t* text;
};

void PrintTo(const ExecutionTimeCase& c, std::ostream* os) { *os << c.seconds << "s"; }

class FormatExecutionTimeTest : public ::testing::TestWithParam<ExecutionTimeCase> {};

TEST_P(FormatExecutionTimeTest, RoundsUpToTheNextWholeMillisecondWithThreeDecimals) {
    EXPECT_EQ(FormatExecutionTime(GetParam().seconds), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Values, FormatExecutionTimeTest,
    ::testing::Values(ExecutionTimeCase{0.0f, L"0.000"},
                      // Any measurable time shows as at least one millisecond.
                      ExecutionTimeCase{0.0001f, L"0.001"}, ExecutionTimeCase{0.0004f, L"0.001"},
                      // 0.001f lies a little above 0.001, but the single-precision
                      // product rounds back to exactly 1 ms, so it is not bumped to 0.002.
                      ExecutionTimeCase{0.001f, L"0.001"}, ExecutionTimeCase{0.0015f, L"0.002"},
                      ExecutionTimeCase{0.25f, L"0.250"}, ExecutionTimeCase{1.2344f, L"1.235"},
                      ExecutionTimeCase{0.9999f, L"1.000"}, ExecutionTimeCase{2.0f, L"2.000"},
                      ExecutionTimeCase{59.9991f, L"60.000"}, ExecutionTimeCase{12345.678f, L"12345.678"}));

// ---- Number texts ----------------------------------------------------------

TEST(Float2WstringTest, FormatsTheValueWithTheGivenFormat) {
    EXPECT_EQ(Float2Wstring(1.5f, L"%.3f"), L"1.500");
    EXPECT_EQ(Float2Wstring(0.0f, L"%.3f"), L"0.000");
    EXPECT_EQ(Float2Wstring(12345.678f, L"%.3f"), L"12345.678");
    EXPECT_EQ(Float2Wstring(2.0f, L"took %.1f s"), L"took 2.0 s");
}

TEST(Float2WstringTest, OutputLongerThanSixtyThreeCharactersIsCutAtSixtyThree) {
    const std::wstring filler(70, L'|');
    const std::wstring text = Float2Wstring(1.5f, L"%.3f" + filler);
    EXPECT_EQ(text, L"1.500" + std::wstring(58, L'|'));

    // Width-padded output is cut the same way.
    EXPECT_EQ(Float2Wstring(1.5f, L"%80.3f"), std::wstring(63, L' '));

    // Exactly 63 characters fit unchanged.
    const std::wstring fits = L"1.500" + std::wstring(58, L'|');
    EXPECT_EQ(Float2Wstring(1.5f, L"%.3f" + std::wstring(58, L'|')), fits);
}

struct DecimalPlacesCase {
    float value;
    int places;
    const wchar_t* text;
};

void PrintTo(const DecimalPlacesCase& c, std::ostream* os) { *os << c.value << " to " << c.places; }

class TruncateToDecimalPlacesTest : public ::testing::TestWithParam<DecimalPlacesCase> {};

// Despite its name it rounds the float's real value to nearest.
TEST_P(TruncateToDecimalPlacesTest, RoundsTheFloatToNearestInFixedNotation) {
    EXPECT_EQ(truncateToDecimalPlaces(GetParam().value, GetParam().places), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Values, TruncateToDecimalPlacesTest,
                         ::testing::Values(DecimalPlacesCase{1.2355f, 2, L"1.24"},
                                           DecimalPlacesCase{1.239f, 2, L"1.24"},  // not cut to 1.23
                                           // 1.005f is 1.00499999523..., below the half-way point.
                                           DecimalPlacesCase{1.005f, 2, L"1.00"},
                                           DecimalPlacesCase{2.0f, 0, L"2"}, DecimalPlacesCase{2.0f, 3, L"2.000"},
                                           DecimalPlacesCase{12345.678f, 1, L"12345.7"}));

// ---- Result and trigger words ----------------------------------------------

TEST(ResultTypeTextTest, NamesCompleteAndTimeOutAndEverythingElseIsAGeneralError) {
    const std::pair<int, const wchar_t*> cases[] = {
        {0, L"Complete"}, {1, L"ErrorTimeOut"}, {2, L"ErrorGeneral"}, {7, L"ErrorGeneral"}, {-1, L"ErrorGeneral"},
    };
    for (const auto& [type, text] : cases) EXPECT_EQ(ResultTypeText(type), text) << type;
}

TEST(TriggerTypeTextTest, NamesManualAndMqttAndEverythingElseIsScheduled) {
    const std::pair<std::uint32_t, const wchar_t*> cases[] = {
        {0, L"Manual"}, {1, L"Scheduled"}, {2, L"Mqtt"}, {3, L"Scheduled"}, {0xFFFFFFFFu, L"Scheduled"},
    };
    for (const auto& [type, text] : cases) EXPECT_EQ(TriggerTypeText(type), text) << type;
}

}  // namespace
}  // namespace zep::results
