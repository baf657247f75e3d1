#include "platform/posix/PosixProcess.h"

#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/util/Strings.h"

namespace zep::platform {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

ProcessRequest Command(std::vector<std::wstring> argv, bool capture = false, std::chrono::milliseconds timeout = 0ms) {
    ProcessRequest request;
    request.argv = std::move(argv);
    request.captureOutput = capture;
    request.timeout = timeout;
    return request;
}

// Gone, or a zombie waiting for whoever adopted it ("pid (comm) S ...").
bool IsDead(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line) || line.rfind(')') + 2 >= line.size()) return true;
    const char state = line[line.rfind(')') + 2];
    return state == 'Z' || state == 'X';
}

TEST(PosixProcessSpawn, ReportsStartAndExitStatusWithoutThrowing) {
    PosixProcess process;
    const struct {
        std::vector<std::wstring> argv;
        bool started;
        int exitCode;
    } cases[] = {
        {{L"/bin/true"}, true, 0},
        {{L"/bin/sh", L"-c", L"exit 42"}, true, 42},
        {{L"/bin/sh", L"-c", L"kill -KILL $$"}, true, -1},  // death by a signal
        {{}, false, -1},
        {{L"zep-no-such-program-on-path"}, false, -1},
        {{L"/bin/echo", std::wstring(L"a\0b", 3)}, false, -1},  // would be cut short at the NUL
    };
    for (const auto& c : cases) {
        ProcessResult result;
        ASSERT_NO_THROW(result = process.Spawn(Command(c.argv, true)));
        EXPECT_EQ(result.started, c.started) << (c.argv.empty() ? "" : text::ToUtf8(c.argv.back()));
        EXPECT_FALSE(result.timedOut);
        EXPECT_EQ(result.exitCode, c.exitCode);
    }
}

TEST(PosixProcessSpawn, PassesArgumentsByteForByteWithoutAShell) {
    const std::string latin1("caf\xe9", 4);  // not UTF-8
    // "printf" has no slash: found through PATH.
    const ProcessResult result = PosixProcess().Spawn(Command({L"printf", L"<%s>", L"a  b", L"\"q\" 'x'", L"*",
                                                               L"$HOME", L"", L"back\\slash", L"a;b|c",
                                                               text::DecodeFileName(latin1)},
                                                              true));
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "<a  b><\"q\" 'x'><*><$HOME><><back\\slash><a;b|c><" + latin1 + ">");
}

TEST(PosixProcessTimeout, KillsTheWholeGroupEvenWhileTheChildKeepsWriting) {
    const auto start = Clock::now();
    const ProcessResult result = PosixProcess().Spawn(
        Command({L"/bin/sh", L"-c", L"sleep 30 & echo $!; while :; do echo x; done"}, true, 200ms));
    EXPECT_LT(Clock::now() - start, 5s);
    EXPECT_TRUE(result.started && result.timedOut);
    EXPECT_EQ(result.exitCode, -1);

    const pid_t grandchild = static_cast<pid_t>(std::atol(result.output.c_str()));
    ASSERT_GT(grandchild, 0) << result.output.substr(0, 20);
    const auto end = Clock::now() + 2s;
    while (!IsDead(grandchild) && Clock::now() < end) std::this_thread::sleep_for(10ms);
    EXPECT_TRUE(IsDead(grandchild));
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);  // the child itself was reaped
}

TEST(PosixProcessTimeout, CommandLineCeilingEndsTheRunButZeroMeansNone) {
    PosixProcess process;
    const auto start = Clock::now();
    EXPECT_EQ(process.LaunchCommandLine(L"/bin/sleep 30", L"", true, nullptr, 200ms), 0);
    EXPECT_LT(Clock::now() - start, 5s);
    EXPECT_EQ(process.LaunchCommandLine(L"/bin/sleep", L"0.1", true, nullptr, 0ms), 1);
}

}  // namespace
}  // namespace zep::platform
