#include "platform/posix/NativeCollection.h"

#include <fcntl.h>
#include <sys/mman.h>
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

#include "platform/util/MemoryRegistry.h"
#include "platform/util/Paths.h"
#include "support/TestPlatform.h"

namespace zep::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using zep::testing::ReadText;
using zep::testing::WriteText;

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
    NativeCollection collection;
};

TEST_F(NativeCollectionTest, CopyLogsTakesTheNewestFiftyMebibytesWithTheirTimesButNoArchivesLinksOrFifos) {
    Make(source / "current.log", 30 * kMiB, 10s);
    Make(source / "sub" / "rotated.log", 20 * kMiB, 20s);  // fills the 50 MiB exactly
    Make(source / "oldest.log", 1, 30s);
    Make(source / "sub" / "newest.ZIP", 100, 1s);

    WithTraps(source, [&] { EXPECT_EQ(collection.CopyLogs(W(source), W(destination), 52428800), 1); });

    EXPECT_EQ(Tree(destination), (std::set<std::string>{"current.log", "sub/", "sub/rotated.log"}));
    EXPECT_EQ(fs::file_size(destination / "sub" / "rotated.log"), 20 * kMiB);
    EXPECT_EQ(fs::last_write_time(destination / "current.log"), fs::last_write_time(source / "current.log"));
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
    WriteText(destination / "agent.log", "peer=\"10.1.2.3\"\r\nVersion \"10.1.2.3\"\r\nlast \"10.1.2.4\"");
    WriteText(destination / "sub" / "nested.log", "peer=\"10.1.2.3\"\n");
    // UTF-16LE, as Windows software writes its logs: "a=\"1.2.3.4\"".
    const auto utf16 = [](const std::string& ascii) {
        std::string bytes = "\xFF\xFE";
        for (const char c : ascii) bytes += std::string{c, '\0'};
        return bytes;
    };
    WriteText(destination / "service.log", utf16("a=\"1.2.3.4\""));
    const auto time = now - 1h;
    fs::last_write_time(destination / "agent.log", time);

    WithTraps(destination, [&] { EXPECT_EQ(collection.ScrubLogs(W(destination)), 1); });

    EXPECT_EQ(ReadText(destination / "service.log"), utf16("a=\"[REDACTED_IP]\""));
    EXPECT_EQ(ReadText(destination / "agent.log"),
              "peer=\"[REDACTED_IP]\"\r\nVersion \"10.1.2.3\"\r\nlast \"[REDACTED_IP]\"");
    EXPECT_EQ(fs::last_write_time(destination / "agent.log"), time);
    EXPECT_EQ(ReadText(destination / "sub" / "nested.log"), "peer=\"10.1.2.3\"\n");
    EXPECT_EQ(ReadText(outside / "secret.txt"), "peer=\"10.1.2.3\"\n");
    EXPECT_TRUE(fs::is_symlink(destination / "secret-link.log"));
}

TEST_F(NativeCollectionTest, ExportRegistryWritesTheKeyAndSubKeysAsTheRegistryEditorDoes) {
    platform.registry->SetDword(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP", L"Interval", 60);
    platform.registry->SetString(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport", L"Mode", L"auto");
    platform.registry->SetDword(Hive::LocalMachine, L"SOFTWARE\\Quorin\\Other", L"Left", 1);
    const fs::path file = platform.rootPath / "zep.reg";

    ASSERT_EQ(collection.ExportRegistry(L"SOFTWARE\\Quorin\\ZEP", W(file)), 1);

    const std::string bytes = ReadText(file);
    EXPECT_EQ(bytes.substr(0, 2), "\xFF\xFE");
    EXPECT_EQ(DecodeRegFile(bytes),
              L"Windows Registry Editor Version 5.00\r\n\r\n"
              L"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP]\r\n\"Interval\"=dword:0000003c\r\n\r\n"
              L"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP\\DeviceSupport]\r\n\"Mode\"=\"auto\"\r\n\r\n");
}

TEST_F(NativeCollectionTest, CompressFolderPacksRelativeNamesWithoutLinksAndNeverReplacesATarget) {
    const fs::path staging = platform.rootPath / "latest" / "LD_scan";
    WriteText(staging / "scan-result.json", "{}");
    WriteText(staging / "zep" / "context" / "zepVersion.txt", "4.12");
    const fs::path zip = platform.rootPath / "latest" / "LD_scan.zip";
    WriteText(zip, "earlier");
    EXPECT_EQ(collection.CompressFolder(W(staging), W(zip)), 0);
    EXPECT_EQ(ReadText(zip), "earlier");
    fs::remove(zip);

    WithTraps(staging, [&] { EXPECT_EQ(collection.CompressFolder(W(staging), W(zip)), 1); });

    std::map<std::string, std::string> entries;  // name -> content, "" for folders
    zip_t* archive = zip_open(zip.c_str(), ZIP_RDONLY, nullptr);
    ASSERT_NE(archive, nullptr);
    for (zip_uint64_t i = 0; i < static_cast<zip_uint64_t>(zip_get_num_entries(archive, 0)); ++i) {
        zip_stat_t st;
        zip_stat_index(archive, i, 0, &st);
        std::string content(st.size, '\0');
        if (zip_file_t* entry = st.size > 0 ? zip_fopen_index(archive, i, 0) : nullptr) {
            EXPECT_EQ(zip_fread(entry, content.data(), st.size), static_cast<zip_int64_t>(st.size));
            zip_fclose(entry);
        }
        entries[st.name] = content;
    }
    zip_close(archive);
    EXPECT_EQ(entries, (std::map<std::string, std::string>{{"scan-result.json", "{}"}, {"zep/", ""},
                                                           {"zep/context/", ""},
                                                           {"zep/context/zepVersion.txt", "4.12"}}));
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
