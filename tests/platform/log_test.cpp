#include "platform/agent/Log.h"

#include <algorithm>
#include <cstddef>
#include <string>

#include <gtest/gtest.h>

#include "support/TestPlatform.h"

namespace {

TEST(LogTest, PercentSTakesNarrowAndWideStringsAndAMismatchLogsTheRawFormat) {
    zep::testing::TestPlatform platform;
    const auto last = [&platform] {
        const auto messages = platform.log->Messages();
        return messages.empty() ? std::string("<nothing logged>") : messages.back();
    };
    const char* narrow = "narrow";
    g_log.d(L"[%s|%s|%s|%s|%ls]", narrow, std::string("Z\xC3\xBCrich"), std::wstring(L"wide \u65E5"), L"literal",
            L"ls");
    EXPECT_EQ(last(), "[narrow|Z\xC3\xBCrich|wide \xE6\x97\xA5|literal|ls]");
    g_log.d(L"%d", std::size_t{5'000'000'000});
    EXPECT_EQ(last(), "5000000000") << "a count does not wrap at 32 bits";

    EXPECT_NO_THROW(g_log.d(L"count: %d", "text"));
    EXPECT_EQ(last(), "[unformattable] count: %d");
    EXPECT_NO_THROW(g_log.e(L"%s and %s", "one"));
    EXPECT_EQ(last(), "[unformattable] %s and %s");
}

// Texts from outside reach the log as arguments: none of them may end the
// line or start a forged one, whatever its type.
TEST(LogTest, ControlCharactersInArgumentsAreEscapedSoEveryMessageIsOneLine) {
    zep::testing::TestPlatform platform;
    const std::string forged = "x\n2026-01-01T00:00:00.000Z [e] [00000] FORGED: upload succeeded";
    const std::wstring wide = L"tab\there\r\u2028\u0085\x7f\u00e9";
    const char* literal = "bell\a";
    g_log.e(L"%s|%s|%s|%ls", forged, wide, literal, std::wstring_view(L"v\nw"));
    const auto lines = platform.log->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(platform.log->Messages().back(),
              "x\\x0A2026-01-01T00:00:00.000Z [e] [00000] FORGED: upload succeeded|"
              "tab\\x09here\\x0D\\u2028\\x85\\x7F\xC3\xA9|bell\\x07|v\\x0Aw");
    EXPECT_EQ(std::count(lines[0].begin(), lines[0].end(), '\n'), 1);
}

}  // namespace
