#include "platform/agent/Log.h"

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

}  // namespace
