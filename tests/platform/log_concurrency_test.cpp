#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/agent/Log.h"
#include "support/TestPlatform.h"

namespace {

TEST(LogConcurrencyTest, LinesFromSeveralThreadsStayWholeAndInEachWritersOrder) {
    constexpr int kThreads = 4, kLinesPerThread = 500;
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

    const std::regex whole(R"(2026-11-21T10:15:30\.000Z \[d\] \[\d+\] writer ([0-3]) line (\d+) ([a-d])\3{39}\n)");
    std::vector<int> next(kThreads, 0);
    for (const auto& line : platform.log->Lines()) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, whole)) << line;
        const auto writer = static_cast<std::size_t>(std::stoi(match[1].str()));
        EXPECT_EQ(std::stoi(match[2].str()), next[writer]++) << line;
        EXPECT_EQ(match[3].str()[0], static_cast<char>('a' + static_cast<int>(writer))) << line;
    }
    for (int count : next) EXPECT_EQ(count, kLinesPerThread);
}

}  // namespace
