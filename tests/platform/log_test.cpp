#include "platform/agent/Log.h"

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "support/TestPlatform.h"

namespace {

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
