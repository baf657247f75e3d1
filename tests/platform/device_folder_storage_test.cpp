// The device folder's storage agent (outbox/, upload-results) and its
// critical-event log (events.log).
#include <stdlib.h>

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "platform/InProcessHub.h"
#include "platform/Strings.h"
#include "platform/posix/DeviceFolderEnv.h"

namespace zep::platform {
namespace {

namespace fs = std::filesystem;

const std::regex kIsoUtc("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ");

std::string Read(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

std::vector<std::string> Lines(const fs::path& path) {
    std::vector<std::string> lines;
    std::istringstream in(Read(path));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

Json::Value Parse(const std::string& text) {
    Json::Value root;
    std::istringstream in(text);
    EXPECT_NO_THROW(in >> root) << text;
    return root;
}

std::set<std::string> Names(const fs::path& folder) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.insert(entry.path().filename().string());
    return names;
}

Env FolderEnv(const fs::path& dir) {
    return MakeDeviceFolderEnv(text::DecodeFileName(dir.native()), std::make_shared<InProcessHub>());
}

class FolderStorageTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = ::testing::TempDir() + "device-storage-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        dir = pattern;
        env = FolderEnv(dir);
        zip = dir / "LD-1_scan-7.zip";
        std::ofstream(zip, std::ios::binary) << std::string("PK\x03\x04\0\xff", 6);
    }
    void TearDown() override { fs::remove_all(dir); }

    int Upload(const fs::path& file) { return env.storage->UploadDiagResult(file.string(), false, "{}", ""); }

    fs::path dir;
    fs::path zip;
    Env env;
};

TEST_F(FolderStorageTest, EachUploadGetsTheNextNumberedFolder) {
    const fs::path result = dir / "scan-result.json";
    std::ofstream(result) << R"({"id": "scan-7"})";
    ASSERT_EQ(Upload(zip), 0);
    ASSERT_EQ(Upload(result), 0);
    EXPECT_EQ(Names(dir / "outbox"), (std::set<std::string>{"0001", "0002"}));
    EXPECT_EQ(Read(dir / "outbox/0001/LD-1_scan-7.zip"), Read(zip));
    EXPECT_EQ(Names(dir / "outbox/0002"),
              (std::set<std::string>{"scan-result.json", "scan-result.json.metadata.json", "upload.json"}));

    // A gap is never filled: the number after the highest, whatever lies below.
    fs::remove_all(dir / "outbox/0001");
    fs::create_directory(dir / "outbox/0012");
    fs::create_directory(dir / "outbox/notes");
    ASSERT_EQ(Upload(result), 0);
    EXPECT_TRUE(fs::is_regular_file(dir / "outbox/0013/scan-result.json"));
}

// Envs of their own share no lock: only the exclusive creation keeps the
// folders apart.
TEST_F(FolderStorageTest, ConcurrentUploadsNeverShareAFolder) {
    constexpr int kThreads = 8, kEach = 25;
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const Env own = FolderEnv(dir);
            ready.fetch_add(1);
            while (ready.load() < kThreads) std::this_thread::yield();  // start together, so the numbering races
            for (int i = 0; i < kEach; ++i) {
                EXPECT_EQ(own.storage->UploadDiagResult(zip.string(), false, std::to_string(t * 100 + i), ""), 0);
            }
        });
    }
    for (auto& thread : threads) thread.join();

    std::set<std::string> metadata;
    for (const auto& folder : Names(dir / "outbox")) {
        metadata.insert(Read(dir / "outbox" / folder / "LD-1_scan-7.zip.metadata.json"));
    }
    EXPECT_EQ(metadata.size(), std::size_t{kThreads * kEach});
}

TEST_F(FolderStorageTest, MetadataIsKeptByteForByteAndTheTokenNever) {
    // Not re-serialised: CRLF, tabs, non-ASCII and no final line feed survive.
    const std::string metadata = "{\r\n\t\"name\": \"LD-1_scan-7.zip\",\r\n\t\"note\": \"Gr\xc3\xbc\xc3\x9f\"   }";
    ASSERT_EQ(env.storage->UploadDiagResult(zip.string(), true, metadata, "eyJ0.secret-payload.sig"), 0);

    EXPECT_EQ(Read(dir / "outbox/0001/LD-1_scan-7.zip.metadata.json"), metadata);
    const std::string record = Read(dir / "outbox/0001/upload.json");
    EXPECT_EQ(record.find("secret-payload"), std::string::npos);
    const Json::Value parsed = Parse(record);
    EXPECT_EQ(parsed["file"].asString(), "LD-1_scan-7.zip");
    EXPECT_EQ(parsed["sizeInBytes"].asUInt64(), fs::file_size(zip));
    EXPECT_TRUE(parsed["unregisteredDevice"].asBool());
    EXPECT_TRUE(parsed["provisionTokenUsed"].asBool());
    EXPECT_TRUE(std::regex_match(parsed["time"].asString(), kIsoUtc)) << record;
}

TEST_F(FolderStorageTest, ForcedResultsAreTakenOneLinePerUpload) {
    std::ofstream(dir / "upload-results") << "429\n\n0\n";

    EXPECT_EQ(Upload(zip), 429);
    EXPECT_FALSE(fs::exists(dir / "outbox/0001"));  // nothing was uploaded
    EXPECT_EQ(Read(dir / "upload-results"), "\n0\n");
    EXPECT_EQ(Upload(zip), 0);
    EXPECT_TRUE(fs::exists(dir / "outbox/0001/LD-1_scan-7.zip"));
    EXPECT_FALSE(fs::exists(dir / "upload-results"));

    // A typo must not pass for a success.
    std::ofstream(dir / "upload-results") << "busy\n";
    EXPECT_EQ(Upload(zip), 1);

    const std::vector<std::string> failed = Lines(dir / "outbox/failed.log");
    ASSERT_EQ(failed.size(), 2u);
    EXPECT_TRUE(std::regex_match(failed[0].substr(0, 20), kIsoUtc)) << failed[0];
    EXPECT_EQ(failed[0].substr(20), ",LD-1_scan-7.zip,429");
    EXPECT_EQ(failed[1].substr(20), ",LD-1_scan-7.zip,1");
}

// Refused before the service is asked: no forced result is used up.
TEST_F(FolderStorageTest, UnreadableFileIsALocalRefusal) {
    std::ofstream(dir / "upload-results") << "429\n";
    EXPECT_EQ(Upload(dir / "missing.zip"), 1);
    EXPECT_EQ(Upload(dir), 1);
    EXPECT_EQ(Read(dir / "upload-results"), "429\n");
    EXPECT_EQ(Names(dir / "outbox"), std::set<std::string>{"failed.log"});
    EXPECT_EQ(Lines(dir / "outbox/failed.log").at(0).substr(20), ",missing.zip,1");
}

TEST_F(FolderStorageTest, EventsAreOneJsonLineEachInOrder) {
    env.events->Log(1018, L"first");
    env.events->Log(1018, L"line one\nline two, \"quoted\", Gr\u00fc\u00df");
    env.events->Log(7, L"");

    EXPECT_NE(Read(dir / "events.log").find("Gr\xc3\xbc\xc3\x9f"), std::string::npos);  // UTF-8, not \u escapes
    const std::vector<std::string> lines = Lines(dir / "events.log");
    ASSERT_EQ(lines.size(), 3u);
    const Json::Value first = Parse(lines[0]);
    EXPECT_EQ(first["eventId"].asInt(), 1018);
    EXPECT_EQ(first["text"].asString(), "first");
    EXPECT_TRUE(std::regex_match(first["time"].asString(), kIsoUtc)) << lines[0];
    EXPECT_EQ(Parse(lines[1])["text"].asString(), "line one\nline two, \"quoted\", Gr\xc3\xbc\xc3\x9f");
    EXPECT_EQ(Parse(lines[2])["eventId"].asInt(), 7);
}

}  // namespace
}  // namespace zep::platform
