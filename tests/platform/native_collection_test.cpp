#include "platform/posix/NativeCollection.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <set>
#include <string>
#include <thread>

#include "platform/MemoryRegistry.h"
#include "platform/Paths.h"
#include "platform/posix/PosixProcess.h"
#include "support/TestPlatform.h"

namespace zep::platform {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using zep::testing::ReadText;
using zep::testing::WriteText;

constexpr std::uint64_t kMiB = 1024 * 1024;

class NativeCollectionTest : public ::testing::Test {
protected:
    // A file of `size` bytes whose last write was `age` ago. Sizes above a
    // few kilobytes are sparse.
    fs::path Make(const fs::path& file, std::uint64_t size, std::chrono::seconds age, char fill = 'x') {
        fs::create_directories(file.parent_path());
        if (size > 4096) {
            WriteText(file, "");
            fs::resize_file(file, size);
        } else {
            WriteText(file, std::string(size, fill));
        }
        fs::last_write_time(file, now - age);
        return file;
    }

    static std::wstring W(const fs::path& path) { return path::FromFs(path); }

    // Relative paths of everything below `dir`, folders with a trailing '/'.
    static std::set<std::string> Tree(const fs::path& dir) {
        std::set<std::string> out;
        for (const auto& entry : fs::recursive_directory_iterator(dir)) {
            const std::string rel = entry.path().lexically_relative(dir).generic_string();
            out.insert(entry.is_directory() && !entry.is_symlink() ? rel + "/" : rel);
        }
        return out;
    }

    // A link to a file and a link to a folder outside, and a FIFO.
    void AddTraps(const fs::path& dir) {
        Make(outside / "secret.txt", 5, std::chrono::seconds(0));
        fs::create_symlink(outside / "secret.txt", dir / "secret-link.log");
        fs::create_symlink(outside, dir / "folder-link");
        ASSERT_EQ(::mkfifo((dir / "pipe.log").c_str(), 0600), 0);
    }

    // Runs `body`, failing the test instead of hanging when something blocks
    // on the FIFO `dir`/pipe.log: opening its other end releases the body.
    void WithoutHanging(const fs::path& dir, const std::function<void()>& body) {
        std::promise<void> done;
        auto finished = done.get_future();
        std::thread runner([&] {
            body();
            done.set_value();
        });
        if (finished.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            ADD_FAILURE() << "blocked on a FIFO";
            const int fd = ::open((dir / "pipe.log").c_str(), O_RDWR | O_NONBLOCK);
            finished.wait_for(std::chrono::seconds(2));
            ::close(fd);
        }
        runner.join();
    }

    testing::TestPlatform platform;
    const fs::file_time_type now = fs::file_time_type::clock::now();
    const fs::path source = platform.rootPath / "programdata" / "Log";
    const fs::path destination = platform.rootPath / "staging" / "zep" / "Log";
    const fs::path outside = platform.rootPath / "outside";
    NativeCollection collection;
};

// ---- CopyLogs ------------------------------------------------------------

using NativeCopyLogsTest = NativeCollectionTest;

TEST_F(NativeCopyLogsTest, CopiesTheNewestFilesThatFitWithTheirTimes) {
    Make(source / "new.log", 400, std::chrono::seconds(10), 'n');
    Make(source / "sub" / "mid.log", 400, std::chrono::seconds(20), 'm');
    Make(source / "old.log", 400, std::chrono::seconds(30));
    Make(source / "sub" / "newest.ZIP", 100, std::chrono::seconds(1));
    Make(source / "a.Zip", 100, std::chrono::seconds(1));
    fs::create_directories(source / "sub" / "empty");

    ASSERT_EQ(collection.CopyLogs(W(source), W(destination), 1000), 1);

    EXPECT_EQ(Tree(destination), (std::set<std::string>{"new.log", "sub/", "sub/empty/", "sub/mid.log"}));
    EXPECT_EQ(ReadText(destination / "sub" / "mid.log"), std::string(400, 'm'));
    EXPECT_EQ(fs::last_write_time(destination / "new.log"), fs::last_write_time(source / "new.log"));
    EXPECT_EQ(fs::last_write_time(destination / "sub" / "mid.log"), fs::last_write_time(source / "sub" / "mid.log"));
    // What follows the copy finds nothing left to do.
    EXPECT_EQ(collection.RemoveArchives(W(destination)), 1);
    EXPECT_EQ(collection.LimitLogSize(W(destination), 1000), 1);
    EXPECT_EQ(Tree(destination).size(), 4u);
}

TEST_F(NativeCopyLogsTest, KeepsFilesWhileTheRunningTotalStaysWithinTheBudget) {
    Make(source / "empty.log", 0, std::chrono::seconds(5));
    Make(source / "a.log", 400, std::chrono::seconds(10));
    Make(source / "b.log", 400, std::chrono::seconds(20));
    Make(source / "c.log", 400, std::chrono::seconds(30));
    const std::map<std::uint64_t, std::set<std::string>> expected = {
        {0, {"empty.log"}},
        {399, {"empty.log"}},
        {400, {"empty.log", "a.log"}},
        {800, {"empty.log", "a.log", "b.log"}},
        {1199, {"empty.log", "a.log", "b.log"}},
        {1200, {"empty.log", "a.log", "b.log", "c.log"}},
    };
    for (const auto& [budget, files] : expected) {
        fs::remove_all(destination);
        ASSERT_EQ(collection.CopyLogs(W(source), W(destination), budget), 1);
        EXPECT_EQ(Tree(destination), files) << "budget " << budget;
    }
}

TEST_F(NativeCopyLogsTest, CopiesUpToFiftyMebibytesOfTheNewestFiles) {
    Make(source / "current.log", 30 * kMiB, std::chrono::seconds(10));
    Make(source / "rotated.log", 20 * kMiB, std::chrono::seconds(20));
    Make(source / "oldest.log", 1, std::chrono::seconds(30));

    ASSERT_EQ(collection.CopyLogs(W(source), W(destination), 52428800), 1);

    EXPECT_EQ(Tree(destination), (std::set<std::string>{"current.log", "rotated.log"}));
    EXPECT_EQ(fs::file_size(destination / "current.log"), 30 * kMiB);
    EXPECT_EQ(fs::file_size(destination / "rotated.log"), 20 * kMiB);
}

TEST_F(NativeCopyLogsTest, LeavesOutLinksAndSpecialFiles) {
    Make(source / "agent.log", 10, std::chrono::seconds(10));
    AddTraps(source);

    WithoutHanging(source, [&] { EXPECT_EQ(collection.CopyLogs(W(source), W(destination), 1000), 1); });

    EXPECT_EQ(Tree(destination), (std::set<std::string>{"agent.log"}));
}

TEST_F(NativeCopyLogsTest, FailsForAMissingSource) {
    EXPECT_EQ(collection.CopyLogs(W(source), W(destination), 1000), 0);
    EXPECT_TRUE(platform.log->Contains("NativeCollection::CopyLogs: cannot open"));
}

// ---- RemoveArchives and LimitLogSize on a folder of their own ------------

using NativeRemoveArchivesTest = NativeCollectionTest;

TEST_F(NativeRemoveArchivesTest, RemovesZipsInAnyCaseAtAnyDepthOnly) {
    for (const char* name : {"a.zip", "B.ZIP", "sub/deep/c.Zip", "notes.zip.txt", "zip", "sub/x.zipx"}) {
        Make(destination / name, 3, std::chrono::seconds(1));
    }
    Make(outside / "kept.zip", 3, std::chrono::seconds(1));
    fs::create_symlink(outside / "kept.zip", destination / "link.zip");

    EXPECT_EQ(collection.RemoveArchives(W(destination)), 1);

    EXPECT_EQ(Tree(destination), (std::set<std::string>{"link.zip", "notes.zip.txt", "sub/", "sub/deep/",
                                                        "sub/x.zipx", "zip"}));
    EXPECT_TRUE(fs::exists(outside / "kept.zip"));
    EXPECT_EQ(collection.RemoveArchives(W(platform.rootPath / "missing")), 0);
}

using NativeLimitLogSizeTest = NativeCollectionTest;

TEST_F(NativeLimitLogSizeTest, DropsTheFileThatCrossesTheLimitAndEveryOlderOne) {
    Make(destination / "newest.log", 600, std::chrono::seconds(10));
    Make(destination / "sub" / "crossing.log", 500, std::chrono::seconds(20));
    Make(destination / "tiny.log", 10, std::chrono::seconds(30));
    // A link counts for nothing and its target stays.
    Make(outside / "huge.log", 5000, std::chrono::seconds(0));
    fs::create_symlink(outside / "huge.log", destination / "huge-link.log");

    EXPECT_EQ(collection.LimitLogSize(W(destination), 1000), 1);

    EXPECT_EQ(Tree(destination), (std::set<std::string>{"huge-link.log", "newest.log", "sub/"}));
    EXPECT_EQ(fs::file_size(outside / "huge.log"), 5000u);
}

TEST_F(NativeLimitLogSizeTest, KeepsFilesThatFillTheFiftyMebibytesExactly) {
    Make(destination / "current.log", 30 * kMiB, std::chrono::seconds(10));
    Make(destination / "rotated.log", 20 * kMiB, std::chrono::seconds(20));
    Make(destination / "oldest.log", 1, std::chrono::seconds(30));

    EXPECT_EQ(collection.LimitLogSize(W(destination), 52428800), 1);

    EXPECT_EQ(Tree(destination), (std::set<std::string>{"current.log", "rotated.log"}));
}

// ---- ScrubLogs -----------------------------------------------------------

using NativeScrubLogsTest = NativeCollectionTest;

TEST_F(NativeScrubLogsTest, RedactsOnlyTheFilesDirectlyInTheFolder) {
    WriteText(destination / "agent.log", "peer=\"10.1.2.3\"\r\nVersion \"10.1.2.3\"\r\nlast \"10.1.2.4\"");
    WriteText(destination / "clean.log", "nothing \"here\"\n");
    WriteText(destination / "sub" / "nested.log", "peer=\"10.1.2.3\"\n");
    const auto time = now - std::chrono::hours(1);
    fs::last_write_time(destination / "agent.log", time);

    EXPECT_EQ(collection.ScrubLogs(W(destination)), 1);

    EXPECT_EQ(ReadText(destination / "agent.log"),
              "peer=\"[REDACTED_IP]\"\r\nVersion \"10.1.2.3\"\r\nlast \"[REDACTED_IP]\"");
    EXPECT_EQ(fs::last_write_time(destination / "agent.log"), time);
    EXPECT_EQ(ReadText(destination / "sub" / "nested.log"), "peer=\"10.1.2.3\"\n");
    EXPECT_EQ(Tree(destination), (std::set<std::string>{"agent.log", "clean.log", "sub/", "sub/nested.log"}));
}

TEST_F(NativeScrubLogsTest, LeavesLinkTargetsAndFifosAlone) {
    fs::create_directories(destination);
    AddTraps(destination);
    WriteText(outside / "secret.txt", "peer=\"10.1.2.3\"\n");

    WithoutHanging(destination, [&] { EXPECT_EQ(collection.ScrubLogs(W(destination)), 1); });

    EXPECT_EQ(ReadText(outside / "secret.txt"), "peer=\"10.1.2.3\"\n");
    EXPECT_TRUE(fs::is_symlink(destination / "secret-link.log"));
}

// ---- ExportRegistry ------------------------------------------------------

using NativeExportRegistryTest = NativeCollectionTest;

TEST_F(NativeExportRegistryTest, WritesTheKeyAndItsSubKeysAsTheRegistryEditorDoes) {
    platform.registry->SetDword(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP", L"Interval", 60);
    platform.registry->SetString(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport", L"Mode", L"auto");
    platform.registry->SetDword(Hive::LocalMachine, L"SOFTWARE\\Quorin\\Other", L"Left", 1);
    const fs::path file = platform.rootPath / "zep.reg";

    ASSERT_EQ(collection.ExportRegistry(L"SOFTWARE\\Quorin\\ZEP", W(file)), 1);

    const std::string bytes = ReadText(file);
    ASSERT_GE(bytes.size(), 2u);
    EXPECT_EQ(bytes.substr(0, 2), "\xFF\xFE");
    EXPECT_EQ(DecodeRegFile(bytes),
              L"Windows Registry Editor Version 5.00\r\n\r\n"
              L"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP]\r\n\"Interval\"=dword:0000003c\r\n\r\n"
              L"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP\\DeviceSupport]\r\n\"Mode\"=\"auto\"\r\n\r\n");
}

TEST_F(NativeExportRegistryTest, FailsForAMissingKeyWithoutWritingAFile) {
    const fs::path file = platform.rootPath / "zep.reg";
    EXPECT_EQ(collection.ExportRegistry(L"SOFTWARE\\Quorin\\ZEP", W(file)), 0);
    EXPECT_FALSE(fs::exists(file));
}

// ---- CompressFolder ------------------------------------------------------

using NativeCompressFolderTest = NativeCollectionTest;

// Entry name -> content ("" for folders), read back with libzip.
std::map<std::string, std::string> ReadZip(const fs::path& file, bool* allDeflated) {
    std::map<std::string, std::string> entries;
    int error = 0;
    zip_t* archive = zip_open(file.c_str(), ZIP_RDONLY, &error);
    if (archive == nullptr) {
        ADD_FAILURE() << "cannot open " << file << ": " << error;
        return entries;
    }
    *allDeflated = true;
    for (zip_int64_t i = 0; i < zip_get_num_entries(archive, 0); ++i) {
        const auto index = static_cast<zip_uint64_t>(i);
        zip_stat_t st;
        zip_stat_index(archive, index, 0, &st);
        std::string content(st.size, '\0');
        if (st.size > 0) {
            zip_file_t* entry = zip_fopen_index(archive, index, 0);
            EXPECT_EQ(zip_fread(entry, content.data(), st.size), static_cast<zip_int64_t>(st.size));
            zip_fclose(entry);
            *allDeflated = *allDeflated && st.comp_method == ZIP_CM_DEFLATE;
        }
        entries[st.name] = content;
    }
    zip_close(archive);
    return entries;
}

TEST_F(NativeCompressFolderTest, PacksTheTreeWithRelativeNamesAndNoLinks) {
    const fs::path staging = platform.rootPath / "latest" / "LD_scan";
    std::string big;
    for (int i = 0; big.size() < 300000; ++i) big += "line " + std::to_string(i) + "\n";
    WriteText(staging / "scan-result.json", "{}");
    WriteText(staging / "zep" / "Log" / "agent.log", big);
    WriteText(staging / "zep" / "context" / "zepVersion.txt", "4.12");
    fs::create_directories(staging / "empty");
    AddTraps(staging);
    const fs::path zip = platform.rootPath / "latest" / "LD_scan.zip";

    WithoutHanging(staging, [&] { EXPECT_EQ(collection.CompressFolder(W(staging), W(zip)), 1); });

    bool deflated = false;
    auto entries = ReadZip(zip, &deflated);
    // Compared apart: a failure must not print 300 KB.
    EXPECT_TRUE(entries["zep/Log/agent.log"] == big);
    entries.erase("zep/Log/agent.log");
    const std::map<std::string, std::string> expected = {
        {"empty/", ""},   {"scan-result.json", "{}"}, {"zep/", ""}, {"zep/Log/", ""},
        {"zep/context/", ""}, {"zep/context/zepVersion.txt", "4.12"},
    };
    EXPECT_EQ(entries, expected);
    EXPECT_TRUE(deflated);
    // No temporary file is left beside the archive.
    EXPECT_EQ(Tree(platform.rootPath / "latest").count("LD_scan.zip"), 1u);
    EXPECT_EQ(Tree(platform.rootPath / "latest").size(), Tree(staging).size() + 2);
}

TEST_F(NativeCompressFolderTest, FailsWithoutAnArchiveForNothingToPack) {
    const fs::path staging = platform.rootPath / "staging";
    fs::create_directories(staging);
    const fs::path zip = platform.rootPath / "out.zip";
    EXPECT_EQ(collection.CompressFolder(W(staging), W(zip)), 0);

    Make(outside / "secret.txt", 5, std::chrono::seconds(0));
    fs::create_symlink(outside / "secret.txt", staging / "only-a-link");
    EXPECT_EQ(collection.CompressFolder(W(staging), W(zip)), 0);
    EXPECT_FALSE(fs::exists(zip));
}

TEST_F(NativeCompressFolderTest, NeverReplacesOrHalfWritesTheTarget) {
    const fs::path staging = platform.rootPath / "staging";
    WriteText(staging / "a.txt", "a");
    WriteText(platform.rootPath / "taken.zip", "earlier");

    EXPECT_EQ(collection.CompressFolder(W(staging), W(platform.rootPath / "taken.zip")), 0);
    EXPECT_EQ(ReadText(platform.rootPath / "taken.zip"), "earlier");
    EXPECT_EQ(collection.CompressFolder(W(staging), W(platform.rootPath / "missing" / "out.zip")), 0);
    EXPECT_FALSE(fs::exists(platform.rootPath / "missing"));
}

// ---- Package scripts -----------------------------------------------------

using NativePackageScriptTest = NativeCollectionTest;

TEST_F(NativePackageScriptTest, RunsTheScriptWithTheShellAsAnArgumentVector) {
    EXPECT_EQ(collection.PackageScriptName(), L"install.sh");
    EXPECT_EQ(collection.RunPackageScript(L"/pkg/it's here/install.sh", L"/tmp/out dir"), 1);
    ASSERT_EQ(platform.processes->Spawns().size(), 1u);
    EXPECT_THAT(platform.processes->Spawns()[0].argv,
                ElementsAre(L"/bin/sh", L"/pkg/it's here/install.sh", L"-command", L"get-diagnostics", L"-outDir",
                            L"/tmp/out dir"));
}

TEST_F(NativePackageScriptTest, SucceedsOnlyForAScriptThatEndsWellInTime) {
    for (const auto& [started, timedOut, exitCode] :
         {std::tuple{false, false, -1}, std::tuple{true, false, 3}, std::tuple{true, true, -1}}) {
        platform.processes->onSpawn = [started = started, timedOut = timedOut, exitCode = exitCode](
                                          const ProcessRequest&) { return ProcessResult{started, timedOut, exitCode, ""}; };
        EXPECT_EQ(collection.RunPackageScript(L"/pkg/install.sh", L"/tmp/out"), 0) << exitCode;
    }
}

TEST_F(NativePackageScriptTest, TheRealShellSeesTheCommandAndTheFolder) {
    platform.env.processes = std::make_shared<PosixProcess>();
    platform.Reinstall();
    const fs::path script = platform.rootPath / "install.sh";
    const fs::path out = platform.rootPath / "out dir";
    WriteText(script, "mkdir -p \"$4\" && printf '%s %s' \"$1\" \"$2\" > \"$4/ran.txt\"\n");

    EXPECT_EQ(collection.RunPackageScript(W(script), W(out)), 1);
    EXPECT_EQ(ReadText(out / "ran.txt"), "-command get-diagnostics");
}

}  // namespace
}  // namespace zep::platform
