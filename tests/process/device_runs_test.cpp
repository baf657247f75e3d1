// More than one zepdiag on one device folder, and zepdiag killed half-way:
// runs never mix their documents, and a killed run leaves nothing torn and
// nothing that piles up.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <signal.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "platform/env/Env.h"
#include "support/posix/ChildProcess.h"
#include "support/TestPlatform.h"
#include "support/ZipReader.h"

namespace zep::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// The real zepdiag, run as a user or a second run would run it.
class Zepdiag : public ChildProcess {
public:
    Zepdiag(std::vector<std::string> args, const fs::path& output) : ChildProcess(Argv(std::move(args)), output) {}
    int Wait() { return ChildProcess::Wait(60s).value_or(-1); }
    bool Running() { return !ChildProcess::Wait(0ms).has_value(); }
    void Kill() {
        Signal(SIGKILL);
        ChildProcess::Wait(10s);
    }

private:
    static std::vector<std::string> Argv(std::vector<std::string> args) {
        args.insert(args.begin(), ZEPDIAG_PROGRAM);
        return args;
    }
};

int RunZepdiag(std::vector<std::string> args, const fs::path& output) { return Zepdiag(std::move(args), output).Wait(); }

class DeviceRunsTest : public ::testing::Test {
protected:
    DeviceRunsTest() : device(platform.rootPath / "device"), output(platform.rootPath / "zepdiag.out") {
        EXPECT_EQ(RunZepdiag({"init", "--device", device.string()}, output), 0) << ReadText(output);
    }

    fs::path Diagnostics() const { return device / "programdata" / "diagnostics"; }
    std::vector<fs::path> Uploads() const {
        std::vector<fs::path> folders;
        // Numbered folders only: an upload written aside is not one yet.
        for (const auto& entry : fs::directory_iterator(device / "outbox")) {
            const std::string name = entry.path().filename().string();
            if (entry.is_directory() && name.find_first_not_of("0123456789") == std::string::npos) {
                folders.push_back(entry.path());
            }
        }
        std::sort(folders.begin(), folders.end());
        return folders;
    }
    std::size_t HistoryLines() const { return Lines(ReadText(Diagnostics() / "scan-history.log")).size(); }

    // What the documents a run writes must be, whenever a run stops: absent,
    // or whole and valid.
    void ExpectNothingTorn() const {
        const fs::path scanResult = Diagnostics() / "latest" / "scan-result.json";
        if (fs::exists(scanResult)) {
            const Json::Value document = ParseJson(ReadText(scanResult));
            ASSERT_TRUE(document.isObject()) << "torn scan result";
            EXPECT_TRUE(document["components"].isArray());
        }
        for (const auto& line : Lines(ReadText(Diagnostics() / "scan-history.log"))) {
            EXPECT_EQ(std::count(line.begin(), line.end(), ','), 5) << "torn history line: " << line;
        }
        for (const auto& folder : Uploads()) {
            const Json::Value record = ParseJson(ReadText(folder / "upload.json"));
            ASSERT_TRUE(record.isObject()) << folder;
            const fs::path file = folder / record["file"].asString();
            EXPECT_EQ(fs::file_size(file), record["sizeInBytes"].asUInt64()) << folder;
            EXPECT_TRUE(ParseJson(ReadText(fs::path(file.string() + ".metadata.json"))).isObject()) << folder;
        }
    }

    // Files a scan leaves that are not the last scan's own documents.
    std::vector<std::string> Debris() const {
        std::vector<std::string> found;
        for (const auto& entry : fs::directory_iterator(Diagnostics() / "latest")) {
            const std::string name = entry.path().filename().string();
            // A partial archive ends in ".part", not in ".zip".
            if (name != "scan-result.json" && entry.path().extension() != ".zip") found.push_back(name);
        }
        const fs::path components = device / "temp" / "Quorin" / "Zep";
        if (fs::exists(components)) {
            for (const auto& entry : fs::directory_iterator(components)) found.push_back(entry.path().string());
        }
        if (fs::exists(device / "outbox" / ".incoming")) found.push_back("outbox/.incoming");
        return found;
    }

    TestPlatform platform;
    fs::path device;
    fs::path output;
};

// Runs on one device take its lock in turn: with --no-wait a second run leaves
// at once; two that wait each upload their own scan's result and history line.
TEST_F(DeviceRunsTest, RunsTakeTheDevicesLockInTurnAndNeverShareTheirDocuments) {
    const auto folder = platform::DefaultEnv().files->OpenFolder(device.wstring());
    ASSERT_NE(folder, nullptr);
    auto held = folder->Lock(L".zepdiag.lock", false);
    ASSERT_NE(held, nullptr);

    EXPECT_EQ(RunZepdiag({"scan", "--no-wait", "--device", device.string()}, output), 3);
    EXPECT_THAT(ReadText(output), ::testing::HasSubstr("is in use by another zepdiag run"));

    Zepdiag first({"scan", "--device", device.string()}, platform.rootPath / "first.out");
    Zepdiag second({"scan", "--device", device.string()}, platform.rootPath / "second.out");
    std::this_thread::sleep_for(300ms);
    EXPECT_TRUE(first.Running() && second.Running());
    EXPECT_FALSE(fs::exists(device / "outbox"));
    held.reset();
    ASSERT_EQ(first.Wait(), 0) << ReadText(platform.rootPath / "first.out");
    ASSERT_EQ(second.Wait(), 0) << ReadText(platform.rootPath / "second.out");

    const auto uploads = Uploads();
    ASSERT_EQ(uploads.size(), 2u);
    EXPECT_EQ(HistoryLines(), 2u);
    std::set<std::string> scans;
    for (const auto& upload : uploads) {
        const fs::path zip = upload / ParseJson(ReadText(upload / "upload.json"))["file"].asString();
        const Json::Value metadata = ParseJson(ReadText(fs::path(zip.string() + ".metadata.json")));
        const Json::Value packed = ParseJson(ZipRead(zip, "scan-result.json").value_or(""));
        ASSERT_TRUE(metadata.isObject() && packed.isObject()) << zip;
        const std::string id = metadata["context"]["id"].asString();
        EXPECT_EQ(packed["id"].asString(), id) << zip;
        EXPECT_NE(zip.filename().string().find(id), std::string::npos) << "the zip is named after its own scan";
        scans.insert(id);
    }
    EXPECT_EQ(scans.size(), 2u);
}

// SIGKILL at random moments of a scan, 200 times: whatever the moment,
// every document is absent, the old one, or whole; the next scan succeeds;
// and what killed scans leave does not pile up.
TEST_F(DeviceRunsTest, KilledScansLeaveNothingTornAndNothingThatPilesUp) {
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(RunZepdiag({"scan", "--device", device.string()}, output), 0);
    const auto scanTime = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);

    std::mt19937 random(20261123);
    std::uniform_int_distribution<long> moment(0, scanTime.count() * 5 / 4);
    constexpr int kKills = 200;
    std::size_t completed = 1;
    for (int kill = 1; kill <= kKills; ++kill) {
        SCOPED_TRACE("kill " + std::to_string(kill));
        Zepdiag scan({"scan", "--device", device.string()}, output);
        std::this_thread::sleep_for(std::chrono::microseconds(moment(random)));
        if (!scan.Running()) ++completed;  // finished before its moment came
        scan.Kill();
        ExpectNothingTorn();
        if (kill % 20 == 0) {
            ASSERT_EQ(RunZepdiag({"scan", "--device", device.string()}, output), 0) << ReadText(output);
            ++completed;
            ExpectNothingTorn();
            EXPECT_THAT(Debris(), ::testing::IsEmpty());
        }
        if (HasFatalFailure()) return;
    }
    // Every completed scan uploaded and wrote its line; killed ones at most that.
    EXPECT_GE(Uploads().size(), completed);
    EXPECT_GE(HistoryLines(), std::min<std::size_t>(completed, 100));
}

}  // namespace
}  // namespace zep::testing
