#include "platform/collect/NativeCollection.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/agent/CommonBase.h"
#include "platform/collect/LogScrub.h"
#include "platform/posix/ShellPackageScript.h"
#include "platform/util/Crypto.h"
#include "platform/util/MemoryRegistry.h"
#include "platform/util/Paths.h"
#include "support/FullDisk.h"
#include "support/TestPlatform.h"
#include "support/ZipReader.h"
#include "support/posix/ChildProcess.h"

namespace zep::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using zep::testing::ReadText;
using zep::testing::Utf16Le;
using zep::testing::WriteText;
using zep::testing::ZipEntries;
using zep::testing::ZipRead;

constexpr std::uint64_t kMiB = 1024 * 1024;

class NativeCollectionTest : public ::testing::Test {
protected:
    // A file of `size` bytes last written `age` ago; big ones are sparse.
    void Make(const fs::path& file, std::uint64_t size, std::chrono::seconds age) {
        WriteText(file, "");
        fs::resize_file(file, size);
        fs::last_write_time(file, now - age);
    }

    static std::wstring W(const fs::path& path) { return path::FromFs(path); }

    // Relative paths below `dir`, folders with a trailing '/'.
    static std::set<std::string> Tree(const fs::path& dir) {
        std::set<std::string> out;
        for (const auto& entry : fs::recursive_directory_iterator(dir)) {
            const std::string rel = entry.path().lexically_relative(dir).generic_string();
            out.insert(entry.is_directory() && !entry.is_symlink() ? rel + "/" : rel);
        }
        return out;
    }

    // Links to a file and a folder outside, and a FIFO; `body` must not block
    // on the FIFO (opening its other end releases it and fails the test).
    void WithTraps(const fs::path& dir, const std::function<void()>& body) {
        WriteText(outside / "secret.txt", "peer=\"10.1.2.3\"\n");
        fs::create_directories(dir);
        fs::create_symlink(outside / "secret.txt", dir / "secret-link.log");
        fs::create_symlink(outside, dir / "folder-link");
        ASSERT_EQ(::mkfifo((dir / "pipe.log").c_str(), 0600), 0);
        auto finished = std::async(std::launch::async, body);
        if (finished.wait_for(10s) != std::future_status::ready) {
            ADD_FAILURE() << "blocked on a FIFO";
            const int fd = ::open((dir / "pipe.log").c_str(), O_RDWR | O_NONBLOCK);
            finished.wait();
            ::close(fd);
        }
    }

    zep::testing::TestPlatform platform;
    const fs::file_time_type now = fs::file_time_type::clock::now();
    const fs::path source = platform.rootPath / "programdata" / "Log";
    const fs::path destination = platform.rootPath / "staging" / "zep" / "Log";
    const fs::path outside = platform.rootPath / "outside";
    collect::NativeCollection collection{ShellPackageScript()};
};

// The copy is planned, not made: the archive holds the logs read from where
// they are, beside the staging folder's own files; links and FIFOs in either
// place stay out, and an existing archive is never replaced.
TEST_F(NativeCollectionTest, CopyLogsPlansTheNewestFiftyMebibytesAndThePackerSkipsArchivesLinksAndFifos) {
    Make(source / "current.log", 30 * kMiB, 10s);
    Make(source / "sub" / "rotated.log", 20 * kMiB, 20s);  // fills the 50 MiB exactly
    Make(source / "oldest.log", 1, 30s);
    Make(source / "sub" / "newest.ZIP", 100, 1s);
    fs::create_directories(source / "empty");
    WithTraps(source, [&] { EXPECT_EQ(collection.CopyLogs(W(source), W(destination), 52428800), 1); });
    EXPECT_EQ(Tree(destination), std::set<std::string>{}) << "nothing copied yet";

    const fs::path staging = destination.parent_path().parent_path();
    WriteText(staging / "scan-result.json", "{}");
    const fs::path zip = platform.rootPath / "staging.zip";
    WriteText(zip, "earlier");
    EXPECT_EQ(collection.CompressFolder(W(staging), W(zip)), 0);
    EXPECT_EQ(ReadText(zip), "earlier");
    fs::remove(zip);
    WithTraps(staging, [&] { ASSERT_EQ(collection.CompressFolder(W(staging), W(zip)), 1); });
    EXPECT_EQ(ZipEntries(zip), (std::set<std::string>{"scan-result.json", "zep/", "zep/Log/", "zep/Log/current.log",
                                                      "zep/Log/empty/", "zep/Log/sub/", "zep/Log/sub/rotated.log"}));
    EXPECT_EQ(ZipRead(zip, "scan-result.json"), "{}");
    EXPECT_EQ(ZipRead(zip, "zep/Log/sub/rotated.log"), std::string(20 * kMiB, '\0'));
}

TEST_F(NativeCollectionTest, LimitLogSizeDropsTheFileThatCrossesAndEveryOlderOneButNoLinkTarget) {
    Make(destination / "newest.log", 600, 10s);
    Make(destination / "sub" / "crossing.log", 500, 20s);
    Make(destination / "tiny.log", 10, 30s);  // would still fit
    Make(outside / "huge.log", 5000, 0s);
    fs::create_symlink(outside / "huge.log", destination / "huge-link.log");
    EXPECT_EQ(collection.LimitLogSize(W(destination), 1000), 1);
    EXPECT_EQ(Tree(destination), (std::set<std::string>{"huge-link.log", "newest.log", "sub/"}));
    EXPECT_EQ(fs::file_size(outside / "huge.log"), 5000u);
}

TEST_F(NativeCollectionTest, ScrubLogsRedactsOnlyFilesDirectlyInTheFolderKeepingTheirTimes) {
    WriteText(destination / "agent.log", "peer=\"10.1.2.3\"\r\n");
    WriteText(destination / "sub" / "nested.log", "peer=\"10.1.2.3\"\n");
    const auto time = now - 1h;
    fs::last_write_time(destination / "agent.log", time);

    WithTraps(destination, [&] { EXPECT_EQ(collection.ScrubLogs(W(destination)), 1); });

    EXPECT_EQ(ReadText(destination / "agent.log"), "peer=\"[REDACTED_IP]\"\r\n");
    EXPECT_EQ(fs::last_write_time(destination / "agent.log"), time);
    EXPECT_EQ(ReadText(destination / "sub" / "nested.log"), "peer=\"10.1.2.3\"\n");
    EXPECT_EQ(ReadText(outside / "secret.txt"), "peer=\"10.1.2.3\"\n");
    EXPECT_TRUE(fs::is_symlink(destination / "secret-link.log"));
}

// Fails past `room` bytes.
class FailingInput : public zep::testing::InputFileWrapper {
public:
    FailingInput(std::unique_ptr<InputFile> file, std::size_t room) : InputFileWrapper(std::move(file)), room_(room) {}
    bool Read(char* buffer, std::size_t size, std::size_t& got, FsStatus* status = nullptr) override {
        if (size > room_) {
            if (status) *status = FsStatus{FsError::Failed, "Input/output error"};
            return false;
        }
        if (!InputFileWrapper::Read(buffer, size, got, status)) return false;
        room_ -= got;
        return true;
    }

private:
    std::size_t room_;
};

bool EndsWith(const std::wstring& name, const std::wstring& tail) {
    return name.size() >= tail.size() && name.compare(name.size() - tail.size(), tail.size(), tail) == 0;
}

// The agent's logs as the scan collects them: planned, thinned, scrubbed, packed.
class CollectedLogsTest : public NativeCollectionTest {
protected:
    void SetUp() override {
        WriteText(source / "agent.log", kAgent);
        WriteText(source / "service.log", Utf16Le("a=\"1.2.3.4\""));
        WriteText(source / "sub" / "nested.log", "peer=\"10.1.2.3\"\n");
        WriteText(source / "old.log", std::string(600, 'o'));
        WriteText(source / "stale.zip", "PK");
        int age = 0;
        for (const char* name : {"stale.zip", "agent.log", "service.log", "sub/nested.log", "old.log"}) {
            fs::last_write_time(source / name, now - std::chrono::minutes(++age));
        }
        // Hooks: onOpen, failAfter, a full disk for ".part".
        auto files = std::make_shared<zep::testing::HookedFiles>(platform.env.files);
        files->beforeOpen = [this](const std::wstring& name) { onOpen(name); };
        files->input = [this](const std::wstring& name, std::unique_ptr<InputFile> file) -> std::unique_ptr<InputFile> {
            const auto limit = failAfter.find(name);
            return std::make_unique<FailingInput>(std::move(file), limit == failAfter.end() ? SIZE_MAX : limit->second);
        };
        files->output = [this](const std::wstring& name, std::unique_ptr<OutputFile> file) -> std::unique_ptr<OutputFile> {
            if (!EndsWith(name, L".part")) return file;
            return std::make_unique<zep::testing::LimitedOutput>(std::move(file), archiveRoom);
        };
        platform.env.files = files;
        platform.Reinstall();
    }

    // The four steps of the scan's log collection, as AddZEPLog runs them.
    void Collect() {
        EXPECT_EQ(collection.CopyLogs(W(source), W(destination), 52428800), 1);
        EXPECT_EQ(collection.RemoveArchives(W(destination)), 1);
        EXPECT_EQ(collection.LimitLogSize(W(destination), 500), 1);  // old.log crosses it
        EXPECT_EQ(collection.ScrubLogs(W(destination)), 1);
    }

    static constexpr const char* kAgent = "peer=\"10.1.2.3\"\r\nVersion \"10.1.2.3\"\r\n";
    static constexpr const char* kAgentScrubbed = "peer=\"[REDACTED_IP]\"\r\nVersion \"10.1.2.3\"\r\n";
    std::function<void(const std::wstring& name)> onOpen = [](const std::wstring&) {};
    std::map<std::wstring, std::size_t> failAfter;
    std::size_t archiveRoom = SIZE_MAX;
    const fs::path staging = platform.rootPath / "staging";
    const fs::path zip = platform.rootPath / "staging.zip";
};

// The upload may take the hash made while the archive was written, but never
// for an archive changed since.
TEST_F(CollectedLogsTest, TheArchiveHoldsWhatTheStepsLeftAndItsHashIsOfItsBytes) {
    Collect();
    ASSERT_EQ(collection.CompressFolder(W(staging), W(zip)), 1);
    EXPECT_EQ(utility::GetFileHash(W(zip), L"SHA-256"), text::FromUtf8(crypto::Sha256Hex(ReadText(zip))));

    EXPECT_EQ(ZipEntries(zip),
              (std::set<std::string>{"zep/", "zep/Log/", "zep/Log/agent.log", "zep/Log/service.log", "zep/Log/sub/",
                                     "zep/Log/sub/nested.log"}));
    EXPECT_EQ(ZipRead(zip, "zep/Log/agent.log"), kAgentScrubbed);
    EXPECT_EQ(ZipRead(zip, "zep/Log/service.log"), Utf16Le("a=\"[REDACTED_IP]\""));
    EXPECT_EQ(ZipRead(zip, "zep/Log/sub/nested.log"), "peer=\"10.1.2.3\"\n");
    EXPECT_EQ(ReadText(source / "agent.log"), kAgent) << "the agent's own log is left as it is";
    EXPECT_EQ(Tree(staging), (std::set<std::string>{"zep/", "zep/Log/"})) << "no copy, no temporary file";

    std::string changed = ReadText(zip);
    changed.back() ^= 1;  // the same size, rewritten
    fs::remove(zip);
    WriteText(zip, changed);
    EXPECT_EQ(utility::GetFileHash(W(zip), L"SHA-256"), text::FromUtf8(crypto::Sha256Hex(changed)));
}

TEST_F(CollectedLogsTest, AnArchiveThatCannotBeWrittenLeavesTheStagingFolderAsACopyWouldHave) {
    archiveRoom = 100;
    Collect();
    EXPECT_EQ(collection.CompressFolder(W(staging), W(zip)), 0);

    EXPECT_FALSE(fs::exists(zip));
    for (const auto& entry : fs::directory_iterator(platform.rootPath)) {
        EXPECT_NE(entry.path().extension(), ".part") << "a temporary archive is left";
    }
    EXPECT_EQ(Tree(destination), (std::set<std::string>{"agent.log", "service.log", "sub/", "sub/nested.log"}));
    EXPECT_EQ(ReadText(destination / "agent.log"), kAgentScrubbed);
    EXPECT_EQ(fs::last_write_time(destination / "sub" / "nested.log"), fs::last_write_time(source / "sub" / "nested.log"));
}

// Files change while they are packed: the archive stays whole and holds
// each as it could be read, at most as large as it was listed.
TEST_F(CollectedLogsTest, FilesThatChangeOrVanishWhilePackedLeaveAWholeArchive) {
    const std::string big(3 * kMiB, 'b');
    WriteText(staging / "grows.log", "as listed\n");
    WriteText(staging / "shrinks.log", std::string(5000, 's'));
    WriteText(staging / "gone.log", "gone");
    WriteText(staging / "broken.log", big);
    failAfter[L"broken.log"] = 1536 * 1024;  // a read error midway, after pieces were written
    onOpen = [&](const std::wstring& name) {
        if (name == L"grows.log") std::ofstream(staging / "grows.log", std::ios::app) << "written since\n";
        if (name == L"shrinks.log") fs::resize_file(staging / "shrinks.log", 10);
        if (name == L"gone.log") fs::remove(staging / "gone.log");
    };

    ASSERT_EQ(collection.CompressFolder(W(staging), W(zip)), 1);
    EXPECT_EQ(ZipEntries(zip),
              (std::set<std::string>{"broken.log", "grows.log", "shrinks.log"}));
    EXPECT_EQ(ZipRead(zip, "grows.log"), "as listed\n");
    EXPECT_EQ(ZipRead(zip, "shrinks.log"), std::string(10, 's'));
    EXPECT_EQ(ZipRead(zip, "broken.log"), big.substr(0, 1536 * 1024));
    EXPECT_EQ(zep::testing::RunToEnd({"unzip", "-tq", zip.string()}, platform.rootPath / "unzip.out"), 0);
}

// Large logs are deflated in pieces on several threads, small ones in batches:
// the scrub runs across piece boundaries and the CRCs combine. A folder big
// enough to be looked at from two threads loses no entry, and the files come
// in name order, once each, the planned log winning over a staged one.
TEST_F(CollectedLogsTest, PiecesOfLargeLogsAndBatchesOfSmallOnesJoinIntoTheSameContent) {
    std::string large;
    for (int i = 0; large.size() < 3 * kMiB; ++i) {
        large += "line " + std::to_string(i) + " peer=\"10." + std::to_string(i % 256) + ".0.1\"\n";
    }
    WriteText(source / "large.log", large);
    WriteText(source / "sub" / "large.log", large);
    constexpr int kSmall = 1100;
    for (int i = 0; i < kSmall; ++i) WriteText(source / "small" / (std::to_string(i) + ".log"), std::to_string(i) + "\n");
    WriteText(source / "small.log", "peer=\"10.9.9.9\"\n");  // read and scrubbed by a deflate thread
    collect::NativeCollection pieces{ShellPackageScript(), collect::PackOptions{2, 64 * 1024, {}}};
    EXPECT_EQ(pieces.CopyLogs(W(source), W(destination), 52428800), 1);
    EXPECT_EQ(pieces.ScrubLogs(W(destination)), 1);
    WriteText(destination / "small.log", "staged\n");
    ASSERT_EQ(pieces.CompressFolder(W(staging), W(zip)), 1);

    EXPECT_EQ(ZipRead(zip, "zep/Log/large.log"), collect::ScrubText(large));
    EXPECT_EQ(ZipRead(zip, "zep/Log/sub/large.log"), large);
    for (int i = 0; i < kSmall; i += 97) {
        EXPECT_EQ(ZipRead(zip, "zep/Log/small/" + std::to_string(i) + ".log"), std::to_string(i) + "\n");
    }
    EXPECT_EQ(ZipRead(zip, "zep/Log/small.log"), "peer=\"[REDACTED_IP]\"\n");
    std::vector<std::string> files;
    for (const auto& name : zep::testing::ZipNames(zip)) {
        if (name.back() != '/') files.push_back(name);
    }
    EXPECT_EQ(files.size(), kSmall + 7u);
    EXPECT_TRUE(std::adjacent_find(files.begin(), files.end(), std::greater_equal<>()) == files.end())
        << "not in name order, or a name twice";
    EXPECT_EQ(zep::testing::RunToEnd({"unzip", "-tq", zip.string()}, platform.rootPath / "unzip.out"), 0);
}

TEST_F(NativeCollectionTest, PackageScriptRunsThroughTheShellAsAnArgumentVector) {
    EXPECT_EQ(collection.RunPackageScript(L"/pkg/it's here/install.sh", L"/tmp/out dir"), 1);
    ASSERT_EQ(platform.processes->Spawns().size(), 1u);
    EXPECT_THAT(platform.processes->Spawns()[0].argv,
                ::testing::ElementsAre(L"/bin/sh", L"/pkg/it's here/install.sh", L"-command", L"get-diagnostics",
                                       L"-outDir", L"/tmp/out dir"));
}

}  // namespace
}  // namespace zep::platform
