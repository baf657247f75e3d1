// Child processes on Windows: exit codes, the exact command line, the job
// that ends a whole tree at the ceiling, captured output.
#include "platform/windows/Win32.h"
#include <shellapi.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "platform/util/WindowsCommandLine.h"
#include "platform/windows/WindowsProcess.h"
#include "support/Programs.h"
#include "support/TempFolder.h"
#include "support/TestPlatform.h"

namespace zep::platform {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::wstring Child() { return testing::ProgramBesideTests("test-child").native(); }
std::wstring Quoted(const std::wstring& path) { return L"\"" + path + L"\""; }

ProcessRequest Request(std::vector<std::wstring> argv, bool capture = false, std::chrono::milliseconds timeout = 0ms) {
    ProcessRequest request;
    request.argv = std::move(argv);
    request.captureOutput = capture;
    request.timeout = timeout;
    return request;
}

// True once the process `pid` has ended (or never was), within `wait`.
bool Ended(DWORD pid, std::chrono::milliseconds wait) {
    const HANDLE process = ::OpenProcess(SYNCHRONIZE, FALSE, pid);
    if (process == nullptr) return true;
    const bool ended = ::WaitForSingleObject(process, static_cast<DWORD>(wait.count())) == WAIT_OBJECT_0;
    ::CloseHandle(process);
    return ended;
}

// The pids a "tree" child wrote: its own and its child's.
std::pair<DWORD, DWORD> TreePids(const std::filesystem::path& file) {
    for (int i = 0; i < 200; ++i) {
        std::ifstream in(file);
        unsigned long child = 0, grandchild = 0;
        if (in >> child >> grandchild) return {static_cast<DWORD>(child), static_cast<DWORD>(grandchild)};
        std::this_thread::sleep_for(50ms);
    }
    return {0, 0};
}

TEST(WindowsProcessTest, ExitCodesDecideAndWhatCannotStartFails) {
    WindowsProcess process;
    ProcessResult result = process.Spawn(Request({Child(), L"exit", L"42"}));
    EXPECT_TRUE(result.started);
    EXPECT_EQ(result.exitCode, 42);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(process.LaunchCommandLine(Quoted(Child()) + L" exit 0", L"", true, nullptr, 0ms), 1);
    EXPECT_EQ(process.LaunchCommandLine(Quoted(Child()) + L" exit", L"3", true, nullptr, 0ms), 0);
    EXPECT_EQ(process.LaunchCommandLine(L"C:\\no\\such\\program.exe", L"", true, nullptr, 0ms), 0);
    EXPECT_FALSE(process.Spawn(Request({L"C:\\no\\such\\program.exe"})).started);
    EXPECT_FALSE(process.Spawn(Request({})).started);
}

// The ceiling ends the child and everything it started, through its job.
TEST(WindowsProcessTest, TheCeilingAndTheTimeOutEndTheWholeTree) {
    const std::filesystem::path folder = testing::MakeTempFolder("zep-tree-");
    WindowsProcess process;
    const auto tree = folder / "launched.txt";
    const auto start = Clock::now();
    EXPECT_EQ(process.LaunchCommandLine(Quoted(Child()) + L" tree " + Quoted(tree.native()), L"", true, nullptr, 1500ms),
              0);
    EXPECT_LT(Clock::now() - start, 30s);
    auto [child, grandchild] = TreePids(tree);
    ASSERT_NE(grandchild, 0u);
    EXPECT_TRUE(Ended(child, 5s));
    EXPECT_TRUE(Ended(grandchild, 5s)) << "the grandchild outlived the ceiling";

    const auto spawned = folder / "spawned.txt";
    const ProcessResult result = process.Spawn(Request({Child(), L"tree", spawned.native()}, true, 1500ms));
    EXPECT_TRUE(result.started && result.timedOut);
    EXPECT_EQ(result.exitCode, -1);
    std::tie(child, grandchild) = TreePids(spawned);
    ASSERT_NE(grandchild, 0u);
    EXPECT_TRUE(Ended(grandchild, 5s));
    std::filesystem::remove_all(folder);
}

// An argument vector arrives as itself, through the command line that
// Windows' own parser splits back.
TEST(WindowsProcessTest, ArgumentsArriveExactlyAndOutputIsCapturedAndBounded) {
    const std::vector<std::wstring> arguments = {
        L"command-line", L"a b", L"", L"\"quoted\"", LR"(C:\dir\)", LR"(C:\dir with blanks\)", L"caf\u00e9 \U0001F600",
        L"%PATH%", L"a&b|c<d>e^f"};
    std::vector<std::wstring> argv = {Child()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    const ProcessResult result = WindowsProcess().Spawn(Request(argv, true));
    ASSERT_EQ(result.exitCode, 0);
    const std::wstring received = text::FromUtf8(result.output);
    EXPECT_EQ(received, JoinWindowsCommandLine(argv).value());
    int count = 0;
    wchar_t** split = ::CommandLineToArgvW(received.c_str(), &count);
    ASSERT_NE(split, nullptr);
    const std::vector<std::wstring> parsed(split, split + count);
    ::LocalFree(split);
    EXPECT_EQ(parsed, argv) << "Windows' parser disagrees with ours";

    ProcessRequest bounded = Request(argv, true);
    bounded.maxOutputBytes = 10;
    const ProcessResult tail = WindowsProcess().Spawn(bounded);
    EXPECT_TRUE(tail.outputTruncated);
    EXPECT_EQ(tail.output, result.output.substr(result.output.size() - 10));
}

TEST(WindowsProcessTest, AChildRunsInItsWorkingDirectory) {
    const std::filesystem::path folder = testing::MakeTempFolder("zep-cwd-");
    testing::WriteText(folder / "behaviour", "answer");
    testing::WriteText(folder / "answer", "{\"deleteFilesOnUpload\": true}");
    ProcessRequest request = Request({Child(), L"get-diagnostics", L"folder", L"user"}, true);
    request.workingDirectory = folder.native();
    const ProcessResult result = WindowsProcess().Spawn(request);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "{\"deleteFilesOnUpload\": true}");
    std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace zep::platform
