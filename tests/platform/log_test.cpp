#include "platform/Log.h"

#include <chrono>
#include <cstdint>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/WinTypes.h"
#include "support/TestPlatform.h"

namespace {

using ::testing::EndsWith;
using ::testing::StartsWith;

class LogTest : public ::testing::Test {
protected:
    // The message of the latest line.
    std::string Last() const {
        const auto messages = platform.log->Messages();
        return messages.empty() ? std::string("<nothing logged>") : messages.back();
    }

    zep::testing::TestPlatform platform;
};

TEST_F(LogTest, PercentSTakesNarrowAndWideStringsAlike) {
    const char* narrow = "narrow";
    g_log.d(L"[%s]", narrow);
    EXPECT_EQ(Last(), "[narrow]");

    g_log.d(L"[%s]", std::string("Z\xC3\xBCrich"));
    EXPECT_EQ(Last(), "[Z\xC3\xBCrich]");

    g_log.d(L"[%s]", std::wstring(L"wide \u65E5"));
    EXPECT_EQ(Last(), "[wide \xE6\x97\xA5]");

    g_log.d(L"[%s]", L"literal");
    EXPECT_EQ(Last(), "[literal]");

    g_log.d(L"[%s]", "narrow literal");
    EXPECT_EQ(Last(), "[narrow literal]");
}

TEST_F(LogTest, PercentLsTakesWideStrings) {
    g_log.d(L"%s: %ls", "Label", std::wstring(L"wide"));
    EXPECT_EQ(Last(), "Label: wide");

    g_log.d(L"%ls", L"literal");
    EXPECT_EQ(Last(), "literal");
}

TEST_F(LogTest, NumbersFormatByTheirOwnType) {
    g_log.d(L"%d/%d", true, false);
    EXPECT_EQ(Last(), "1/0");

    g_log.d(L"%d", -42);
    EXPECT_EQ(Last(), "-42");

    g_log.d(L"size is %d", std::size_t{12345});
    EXPECT_EQ(Last(), "size is 12345");

    // A count does not wrap at 32 bits.
    g_log.d(L"%d", std::size_t{5'000'000'000});
    EXPECT_EQ(Last(), "5000000000");

    g_log.d(L"%d", DWORD{60});
    EXPECT_EQ(Last(), "60");

    g_log.d(L"%.2f", 3.14159);
    EXPECT_EQ(Last(), "3.14");

    g_log.d(L"%.2f", 2.5f);
    EXPECT_EQ(Last(), "2.50");

    g_log.d(L"%llu", std::uint64_t{18446744073709551615u});
    EXPECT_EQ(Last(), "18446744073709551615");
}

TEST_F(LogTest, AFormatThatDoesNotFitItsArgumentsLogsTheRawFormat) {
    EXPECT_NO_THROW(g_log.d(L"count: %d", "text"));
    EXPECT_EQ(Last(), "[unformattable] count: %d");

    EXPECT_NO_THROW(g_log.e(L"%s and %s", "one"));
    EXPECT_EQ(Last(), "[unformattable] %s and %s");
}

TEST_F(LogTest, LinesStartWithTheUtcTimeAndTheLevel) {
    g_log.d(L"debug line");
    g_log.e(L"error line");
    platform.clock->Advance(std::chrono::milliseconds(1234));
    g_log.d(L"later");

    const auto lines = platform.log->Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_THAT(lines[0], StartsWith("2026-11-21T10:15:30.000Z [d] "));
    EXPECT_THAT(lines[0], EndsWith(" debug line\n"));
    EXPECT_THAT(lines[1], StartsWith("2026-11-21T10:15:30.000Z [e] "));
    EXPECT_THAT(lines[1], EndsWith(" error line\n"));
    EXPECT_THAT(lines[2], StartsWith("2026-11-21T10:15:31.234Z [d] "));
}

}  // namespace
