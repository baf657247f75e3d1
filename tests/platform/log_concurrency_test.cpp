#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Log.h"
#include "support/TestPlatform.h"

namespace {

TEST(LogConcurrencyTest, LinesFromSeveralThreadsStayWhole) {
    constexpr int kThreads = 4;
    constexpr int kLinesPerThread = 500;
    zep::testing::TestPlatform platform;

    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLinesPerThread; ++i) {
                g_log.d(L"writer %d line %d %s", t, i, std::wstring(40, static_cast<wchar_t>(L'a' + t)));
            }
        });
    }
    for (auto& thread : threads) thread.join();

    const auto lines = platform.log->Lines();
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLinesPerThread));

    const std::regex whole(
        R"(2026-11-21T10:15:30\.000Z \[d\] \[\d+\] writer ([0-3]) line (\d+) ([a-d])\3{39}\n)");
    std::vector<int> next(kThreads, 0);
    for (const auto& line : lines) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, whole)) << line;
        const int writer = std::stoi(match[1].str());
        // Each writer's own lines arrive in the order it wrote them.
        EXPECT_EQ(std::stoi(match[2].str()), next[static_cast<std::size_t>(writer)]) << line;
        EXPECT_EQ(match[3].str()[0], static_cast<char>('a' + writer)) << line;
        ++next[static_cast<std::size_t>(writer)];
    }
    for (int count : next) EXPECT_EQ(count, kLinesPerThread);
}

}  // namespace
