#include "platform/posix/PosixProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <set>
#include <stdexcept>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/Strings.h"

namespace zep::platform {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

ProcessRequest Command(std::vector<std::wstring> argv, bool capture = false,
                    std::chrono::milliseconds timeout = 0ms) {
    ProcessRequest request;
    request.argv = std::move(argv);
    request.captureOutput = capture;
    request.timeout = timeout;
    return request;
}

// State and parent of a process, from /proc ("pid (comm) S ppid ...").
std::optional<std::pair<char, long>> ReadStat(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line) || line.rfind(')') == std::string::npos) return std::nullopt;
    std::istringstream rest(line.substr(line.rfind(')') + 1));
    std::pair<char, long> stat{'?', 0};
    rest >> stat.first >> stat.second;
    return stat;
}

// Every process (running or zombie) whose parent is this test process.
std::vector<pid_t> ChildrenOfThisProcess() {
    std::vector<pid_t> children;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", ec)) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        const auto pid = static_cast<pid_t>(std::stol(name));
        const auto stat = ReadStat(pid);
        if (stat && stat->second == ::getpid()) children.push_back(pid);
    }
    return children;
}

// Gone, or a zombie waiting for whoever adopted it.
bool IsDead(pid_t pid) {
    const auto stat = ReadStat(pid);
    return !stat || stat->first == 'Z' || stat->first == 'X';
}

bool Eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = 2s) {
    const auto end = Clock::now() + limit;
    while (Clock::now() < end) {
        if (condition()) return true;
        std::this_thread::sleep_for(10ms);
    }
    return condition();
}

std::set<int> InheritableFdsOfThisProcess() {
    std::set<int> fds;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename().string());
        const int flags = ::fcntl(fd, F_GETFD);
        if (flags >= 0 && (flags & FD_CLOEXEC) == 0) fds.insert(fd);
    }
    return fds;
}

struct TempDir {
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "zep-proc-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path = std::filesystem::canonical(pattern);
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
    std::wstring Wide() const { return text::DecodeFileName(path.native()); }
    std::filesystem::path path;
};

// ---------------------------------------------------------------------------
// SplitWindowsCommandLine

struct SplitCase {
    const wchar_t* line;
    std::vector<std::wstring> expected;
};

TEST(SplitWindowsCommandLine, FollowsCommandLineToArgvRules) {
    const std::vector<SplitCase> cases = {
        {L"", {}},
        {L" \t ", {}},
        {L"prog", {L"prog"}},
        {L"prog  a\t\tb  ", {L"prog", L"a", L"b"}},
        // The program name: quoted, it may hold blanks and end in a backslash.
        {LR"("C:\Program Files\x.exe" a)", {LR"(C:\Program Files\x.exe)", L"a"}},
        {LR"("C:\dir\" a)", {LR"(C:\dir\)", L"a"}},
        {LR"(C:\a\b\c.exe x)", {LR"(C:\a\b\c.exe)", L"x"}},
        {LR"("a"b c)", {L"a", L"b", L"c"}},
        {LR"(C:\a"b c)", {LR"(C:\a"b)", L"c"}},
        // Backslashes: literal unless they precede a quote.
        {LR"(p a\b\\c\)", {L"p", LR"(a\b\\c\)"}},
        {LR"(p a\\"b c")", {L"p", LR"(a\b c)"}},
        {LR"(p a\\\"b)", {L"p", LR"(a\"b)"}},
        {LR"(p \")", {L"p", L"\""}},
        {LR"(p "a\\" b)", {L"p", LR"(a\)", L"b"}},
        // Quotes.
        {LR"(p a"b c"d)", {L"p", L"ab cd"}},
        {LR"(p "a""b")", {L"p", L"a\"b"}},
        {LR"(p """a")", {L"p", L"\"a"}},
        {LR"(p a""b)", {L"p", L"ab"}},
        {LR"(p "" x "")", {L"p", L"", L"x", L""}},
        {LR"(p "a b)", {L"p", L"a b"}},
        {L"p \"a\tb\"\tc", {L"p", L"a\tb", L"c"}},
        // A directory argument ending in a backslash swallows the quote.
        {LR"(p -outDir "C:\out\" -x)", {L"p", L"-outDir", LR"(C:\out" -x)"}},
        // Command lines the agent builds.
        {LR"(C:\Windows\System32\WindowsPowerShell\v1.0\powershell.exe -ExecutionPolicy bypass -NoProfile )"
         LR"(-NonInteractive -WindowStyle Hidden -Command "Compress-Archive -Path 'C:\a b\*' )"
         LR"(-DestinationPath 'C:\o''k.zip'")",
         {LR"(C:\Windows\System32\WindowsPowerShell\v1.0\powershell.exe)", L"-ExecutionPolicy", L"bypass",
          L"-NoProfile", L"-NonInteractive", L"-WindowStyle", L"Hidden", L"-Command",
          LR"(Compress-Archive -Path 'C:\a b\*' -DestinationPath 'C:\o''k.zip')"}},
        {LR"("C:\Windows\System32\WindowsPowerShell\v1.0\powershell.exe" /f "C:\pkg\temp\install.ps1" )"
         LR"(-command "get-diagnostics" -outDir "C:\out")",
         {LR"(C:\Windows\System32\WindowsPowerShell\v1.0\powershell.exe)", L"/f", LR"(C:\pkg\temp\install.ps1)",
          L"-command", L"get-diagnostics", L"-outDir", LR"(C:\out)"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(text::ToUtf8(c.line));
        EXPECT_THAT(SplitWindowsCommandLine(c.line), ElementsAreArray(c.expected));
    }
}

// ---------------------------------------------------------------------------
// Spawn: start, exit status, arguments, output

TEST(PosixProcessSpawn, ReportsExitStatus) {
    PosixProcess process;
    const struct {
        std::vector<std::wstring> argv;
        int exitCode;
    } cases[] = {
        {{L"/bin/true"}, 0},
        {{L"/bin/false"}, 1},
        {{L"/bin/sh", L"-c", L"exit 42"}, 42},
        {{L"/bin/sh", L"-c", L"kill -KILL $$"}, -1},  // death by a signal
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(text::ToUtf8(c.argv.back()));
        const ProcessResult result = process.Spawn(Command(c.argv));
        EXPECT_TRUE(result.started);
        EXPECT_FALSE(result.timedOut);
        EXPECT_EQ(result.exitCode, c.exitCode);
    }
}

TEST(PosixProcessSpawn, PassesArgumentsByteForByteWithoutAShell) {
    PosixProcess process;
    const std::string latin1("caf\xe9", 4);  // not UTF-8
    // "printf" has no slash: found through PATH.
    const ProcessResult result = process.Spawn(Command(
        {L"printf", L"<%s>", L"a  b", L"\"q\" 'x'", L"*", L"$HOME", L"", L"back\\slash", L"a;b|c",
         text::DecodeFileName(latin1)},
        true));
    ASSERT_TRUE(result.started);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "<a  b><\"q\" 'x'><*><$HOME><><back\\slash><a;b|c><" + latin1 + ">");
}

TEST(PosixProcessSpawn, CapturesOnlyStandardOutputAndReadsWhileWaiting) {
    PosixProcess process;
    // More than a pipe holds: the child would block if nobody read.
    ProcessResult result =
        process.Spawn(Command({L"/bin/sh", L"-c", L"head -c 300000 /dev/zero"}, true, 5s));
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, std::string(300000, '\0'));

    // Standard input is empty; standard error stays this process's own.
    result = process.Spawn(Command({L"/bin/sh", L"-c", L"readlink /proc/$$/fd/0 /proc/$$/fd/2"}, true));
    EXPECT_EQ(result.output, "/dev/null\n" + std::filesystem::read_symlink("/proc/self/fd/2").string() + "\n");

    result = process.Spawn(Command({L"/bin/true"}, false));
    EXPECT_TRUE(result.started);
    EXPECT_THAT(result.output, IsEmpty());
}

TEST(PosixProcessSpawn, HonoursWorkingDirectory) {
    PosixProcess process;
    const TempDir dir;
    ProcessRequest request = Command({L"/bin/pwd"}, true);
    request.workingDirectory = dir.Wide();
    const ProcessResult result = process.Spawn(request);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, dir.path.string() + "\n");

    request.workingDirectory = dir.Wide() + L"/missing";
    EXPECT_FALSE(process.Spawn(request).started);
}

TEST(PosixProcessSpawn, ReportsNotStartedWithoutThrowing) {
    PosixProcess process;
    const std::vector<std::vector<std::wstring>> cases = {
        {},
        {L""},
        {L"/nonexistent/zep-program"},
        {L"zep-no-such-program-on-path"},
        {L"/bin/echo", std::wstring(L"a\0b", 3)},  // would be cut short at the NUL
    };
    for (const auto& argv : cases) {
        SCOPED_TRACE(argv.empty() ? "(empty)" : text::ToUtf8(argv.front()));
        ProcessResult result;
        ASSERT_NO_THROW(result = process.Spawn(Command(argv, true)));
        EXPECT_FALSE(result.started);
        EXPECT_EQ(result.exitCode, -1);
    }
}

TEST(PosixProcessSpawn, LeaksNoDescriptorIntoChildrenOfOtherThreads) {
    PosixProcess process;
    std::set<int> expected = InheritableFdsOfThisProcess();
    expected.insert({0, 1, 2});

    // Another spawn holds a pipe and a pidfd open meanwhile.
    std::thread other([&process] { process.Spawn(Command({L"/bin/sleep", L"0.2"}, true)); });
    std::this_thread::sleep_for(50ms);
    const ProcessResult result = process.Spawn(Command({L"/bin/sh", L"-c", L"ls /proc/$$/fd; :"}, true));
    other.join();

    std::set<int> seen;
    std::istringstream lines(result.output);
    for (std::string line; std::getline(lines, line);) seen.insert(std::stoi(line));
    EXPECT_EQ(seen, expected);
}

// ---------------------------------------------------------------------------
// Spawn: time-outs

TEST(PosixProcessTimeout, KillsTheWholeGroupEvenWhileTheChildKeepsWriting) {
    PosixProcess process;
    const auto start = Clock::now();
    const ProcessResult result = process.Spawn(
        Command({L"/bin/sh", L"-c", L"sleep 30 & echo $!; while :; do echo x; done"}, true, 200ms));
    EXPECT_LT(Clock::now() - start, 5s);
    EXPECT_TRUE(result.started);
    EXPECT_TRUE(result.timedOut);
    EXPECT_EQ(result.exitCode, -1);
    EXPECT_THAT(result.output, ::testing::HasSubstr("\nx\nx\n"));

    const pid_t grandchild = static_cast<pid_t>(std::atol(result.output.c_str()));
    ASSERT_GT(grandchild, 0) << result.output.substr(0, 20);
    EXPECT_TRUE(Eventually([grandchild] { return IsDead(grandchild); }));
    EXPECT_THAT(ChildrenOfThisProcess(), IsEmpty());
}

TEST(PosixProcessTimeout, CeilingBoundsEveryWait) {
    PosixProcess process(200ms);
    for (const auto timeout : {0ms, 60000ms}) {
        SCOPED_TRACE(timeout.count());
        const auto start = Clock::now();
        const ProcessResult result = process.Spawn(Command({L"/bin/sleep", L"30"}, false, timeout));
        EXPECT_LT(Clock::now() - start, 5s);
        EXPECT_TRUE(result.timedOut);
        EXPECT_EQ(result.exitCode, -1);
    }

    PosixProcess unbounded(0ms);  // 0: no ceiling at all, not "no time"
    const ProcessResult result = unbounded.Spawn(Command({L"/bin/sleep", L"0.1"}));
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, 0);
}

TEST(PosixProcessTimeout, LeftoverBackgroundProcessDoesNotHoldTheWait) {
    PosixProcess process(5s);
    const auto start = Clock::now();
    const ProcessResult result = process.Spawn(Command({L"/bin/sh", L"-c", L"sleep 30 & echo $!"}, true));
    EXPECT_LT(Clock::now() - start, 2s);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, 0);
    const pid_t leftover = static_cast<pid_t>(std::atol(result.output.c_str()));
    ASSERT_GT(leftover, 0) << result.output;
    ::kill(leftover, SIGKILL);
}

// ---------------------------------------------------------------------------
// LaunchCommandLine

TEST(PosixProcessLaunchCommandLine, WaitingReturnsOneOnlyForExitZero) {
    PosixProcess process;
    const struct {
        const wchar_t* commandLine;
        const wchar_t* arguments;
        int expected;
    } cases[] = {
        {L"/bin/true", L"", 1},
        {L"/bin/false", L"", 0},
        {L"/bin/sh -c \"exit 3\"", L"", 0},
        {L"/bin/test a", L"= a", 1},  // the arguments follow after a blank
        {L"/bin/test", L"a = b", 0},
        {L"\"/bin/sh\" -c \"test \\\"$0\\\" = 'x y'\" \"x y\"", L"", 1},
        {L"/nonexistent/zep-program", L"", 0},
        {L"", L"", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(text::ToUtf8(c.commandLine));
        EXPECT_EQ(process.LaunchCommandLine(c.commandLine, c.arguments, true, nullptr), c.expected);
    }

    PosixProcess bounded(200ms);
    EXPECT_EQ(bounded.LaunchCommandLine(L"/bin/sleep 30", L"", true, nullptr), 0);
}

TEST(PosixProcessLaunchCommandLine, WithoutWaitingRunsAndReapsInTheBackground) {
    PosixProcess process;
    const TempDir dir;
    const auto marker = dir.path / "ran";
    const std::wstring line = L"/bin/sh -c \"echo > '" + text::DecodeFileName(marker.native()) + L"'\"";
    EXPECT_EQ(process.LaunchCommandLine(line, L"", false, nullptr), 1);
    EXPECT_TRUE(Eventually([&marker] { return std::filesystem::exists(marker); }));
    EXPECT_TRUE(Eventually([] { return ChildrenOfThisProcess().empty(); }));

    EXPECT_EQ(process.LaunchCommandLine(L"/nonexistent/zep-program", L"", false, nullptr), 0);

    // The ceiling reaches processes nobody waits for.
    PosixProcess bounded(200ms);
    EXPECT_EQ(bounded.LaunchCommandLine(L"/bin/sleep 30", L"", false, nullptr), 1);
    EXPECT_TRUE(Eventually([] { return ChildrenOfThisProcess().empty(); }, 3s));
}

}  // namespace
}  // namespace zep::platform
