#include "platform/util/WindowsCommandLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/util/Strings.h"

namespace zep::platform {
namespace {

TEST(SplitWindowsCommandLine, FollowsCommandLineToArgvRules) {
    const struct {
        const wchar_t* line;
        std::vector<std::wstring> expected;
    } cases[] = {
        {L"prog  a\t\tb  ", {L"prog", L"a", L"b"}},
        // The program name: quotes only group, backslashes are literal.
        {LR"("C:\Program Files\x.exe" a)", {LR"(C:\Program Files\x.exe)", L"a"}},
        {LR"("C:\dir\" a)", {LR"(C:\dir\)", L"a"}},
        // Backslashes are literal unless they precede a quote.
        {LR"(p a\b\\c\)", {L"p", LR"(a\b\\c\)"}},
        {LR"(p a\\"b c")", {L"p", LR"(a\b c)"}},
        {LR"(p a\\\"b)", {L"p", LR"(a\"b)"}},
        {LR"(p "a""b")", {L"p", L"a\"b"}},
        {LR"(p "a b)", {L"p", L"a b"}},
        {LR"(p -outDir "C:\out\" -x)", {L"p", L"-outDir", LR"(C:\out" -x)"}},  // the backslash escapes the quote
    };
    for (const auto& c : cases) {
        EXPECT_THAT(SplitWindowsCommandLine(c.line), ::testing::ElementsAreArray(c.expected)) << text::ToUtf8(c.line);
    }
}

// What a child is meant to receive must be what it receives: every vector
// that can be spelt comes back out of its command line unchanged.
TEST(JoinWindowsCommandLine, SplitsBackIntoTheSameArguments) {
    const std::vector<std::vector<std::wstring>> vectors = {
        {L"prog"},
        {LR"(C:\Program Files\Quorin\plug in.exe)", L"get-diagnostics", LR"(C:\data dir\diag)", L"elevated"},
        {LR"(C:\dir\)", L"", L"a b", L"\t", L"x\ny"},
        {L"p", LR"(C:\out\)", LR"(C:\out dir\)", LR"(\\server\share\)", LR"(a\\b)"},
        {L"p", L"\"", L"a\"b", LR"(a\"b)", LR"(a\\"b)", L"\"quoted\"", LR"("C:\x y\")"},
    };
    for (const auto& argv : vectors) {
        const auto line = JoinWindowsCommandLine(argv);
        ASSERT_TRUE(line.has_value());
        EXPECT_THAT(SplitWindowsCommandLine(*line), ::testing::ElementsAreArray(argv)) << text::ToUtf8(*line);
    }
    // Plain arguments stay as they are: the line reads as it would be typed.
    EXPECT_EQ(JoinWindowsCommandLine({LR"(C:\p q\x.exe)", L"get-diagnostics", LR"(C:\d\e)", L"user"}),
              LR"("C:\p q\x.exe" get-diagnostics C:\d\e user)");
}

TEST(JoinWindowsCommandLine, RefusesWhatNoCommandLineCanCarry) {
    for (const auto& argv : std::vector<std::vector<std::wstring>>{
             {}, {L""}, {L"pro\"g", L"a"}, {L"p", std::wstring(L"a\0b", 3)}, {std::wstring(L"p\0", 2)}}) {
        EXPECT_FALSE(JoinWindowsCommandLine(argv).has_value()) << argv.size();
    }
}

}  // namespace
}  // namespace zep::platform
