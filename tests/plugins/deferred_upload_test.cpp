// The uploads that plug-ins queued while the device was offline: which
// folders are taken, how the history line changes, the one retry after a 429,
// what is deleted, and the two roots that are searched.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "DiagnosticScanner/PluginDiagnosticsProcessor.h"
#include "platform/Paths.h"
#include "platform/Strings.h"
#include "support/ManagerFixture.h"

namespace {

namespace fs = std::filesystem;
using zep::path::FromFs;
using zep::testing::ReadText;
using zep::testing::WriteText;

constexpr const char* kEarlierLine = "2026-11-20T08:00:00Z,Mqtt,2,0,0,\"\"\n";
constexpr const char* kQueuedLine = "2026-11-21T09:00:00Z,Mqtt,2,0,0,\"\"\n";
constexpr const char* kSid = "S-1-5-21-1004336348-1177238915-682003330-1001";

// Randomness that always draws the same number.
class FixedRandom : public zep::platform::RandomEnv {
public:
    explicit FixedRandom(std::uint64_t value) : value_(value) {}
    void Fill(std::uint8_t* bytes, std::size_t size) override {
        for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(value_ >> (8 * (i % 8)));
    }

private:
    std::uint64_t value_;
};

class DeferredUploadTest : public zep::testing::ManagerTest {
protected:
    // A plug-in folder as an offline request leaves it: history, result,
    // context, logs, and in latest the scan result and the zip.
    fs::path Queue(const fs::path& pluginFolder, const std::string& lastLine = kQueuedLine) {
        const fs::path diag = pluginFolder / "diagnostics";
        WriteText(diag / "scan-history.log", std::string(kEarlierLine) + lastLine);
        WriteText(diag / "component-result.json", R"({"componentId":"acme"})");
        WriteText(diag / "context" / "info.txt", "x");
        WriteText(diag / "Log" / "plugin.log", "x");
        WriteText(diag / "latest" / "scan-result.json", R"({"id":"scan1"})");
        WriteText(ZipOf(diag), "PK\x03\x04");
        return diag;
    }
    static fs::path ZipOf(const fs::path& diag) {
        return diag / "latest" / ("0f4c2d1e-aaaa-bbbb-cccc-000000000001_" + diag.parent_path().filename().string() +
                                  ".zip");
    }
    bool Process(const fs::path& diag) {
        return PluginDiagnosticsProcessor::ProcessDeferredPluginUpload(*manager, FromFs(diag));
    }
    static std::string LastLine(const fs::path& diag) {
        std::string text = ReadText(diag / "scan-history.log");
        if (!text.empty() && text.back() == '\n') text.pop_back();
        return text.substr(text.rfind('\n') + 1);
    }
    static bool ArtifactsDeleted(const fs::path& diag) {
        return !fs::exists(diag / "component-result.json") && !fs::exists(diag / "context") &&
               !fs::exists(diag / "Log") && !fs::exists(ZipOf(diag));
    }
    static bool ArtifactsKept(const fs::path& diag) {
        return fs::exists(diag / "component-result.json") && fs::exists(diag / "context") &&
               fs::exists(diag / "Log") && fs::exists(ZipOf(diag));
    }
    void LogInUser(const fs::path& localAppData) {
        platform.system->loggedInUserSid = zep::text::FromUtf8(kSid);
        platform.registry->SetString(
            zep::platform::Hive::Users,
            zep::text::FromUtf8(kSid) + L"\\Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Shell Folders",
            L"Local AppData", FromFs(localAppData));
    }
    std::vector<std::string> UploadedFiles() const {
        std::vector<std::string> files;
        for (const auto& upload : platform.storage->Uploads()) files.push_back(upload.filePath);
        return files;
    }

    const fs::path appDataRoot = platform.rootPath / "programdata" / "plugin-data";
    const fs::path userLocalAppData = platform.rootPath / "users" / "alice" / "AppData" / "Local";
    const fs::path userRoot = userLocalAppData / "Quorin" / "Zep" / "plugin-data";
};

// ---- One folder ------------------------------------------------------------------

TEST_F(DeferredUploadTest, OnlyAFolderWhoseLastLineIsQueuedIsTaken) {
    for (const char* line : {"2026-11-21T09:00:00Z,Mqtt,1,0,0,\"\"\n", "2026-11-21T09:00:00Z,Mqtt,0,0,0,\"\"\n",
                             "not a history line\n", "2026-11-21T09:00:00Z,Rebooted,2,0,0,\"\"\n"}) {
        const fs::path diag = Queue(appDataRoot / "acme", line);

        EXPECT_FALSE(Process(diag)) << line;

        EXPECT_EQ(ReadText(diag / "scan-history.log"), std::string(kEarlierLine) + line);
        EXPECT_TRUE(ArtifactsKept(diag)) << line;
    }
    EXPECT_TRUE(platform.storage->Uploads().empty());
}

TEST_F(DeferredUploadTest, NeedsARegularZipInLatest) {
    const fs::path diag = Queue(appDataRoot / "acme");
    fs::remove(ZipOf(diag));
    WriteText(diag / "latest" / "notes.txt", "x");
    fs::create_directories(diag / "latest" / "folder.zip");
    // A link in a folder that a user can write to must not send another file.
    WriteText(platform.rootPath / "outside" / "secret.bin", "secret");
    fs::create_symlink(platform.rootPath / "outside" / "secret.bin", diag / "latest" / "evil.zip");

    EXPECT_FALSE(Process(diag));

    EXPECT_TRUE(platform.storage->Uploads().empty());
    EXPECT_EQ(LastLine(diag) + "\n", kQueuedLine);
}

TEST_F(DeferredUploadTest, TheOutcomeSetsTheLineAndDeletesByDefaultUnlessStillOffline) {
    struct Case {
        int result;
        const char* status;
        bool deleted;
    };
    for (const Case& c : {Case{0, "0", true}, Case{10, "2", false}, Case{500, "1", true}}) {
        // The artifact field goes back to 0 whatever it was.
        const fs::path diag = Queue(appDataRoot / "acme", "2026-11-21T09:00:00Z,Mqtt,2,1,0,\"\"\n");
        platform.storage->results.push_back(c.result);
        const std::size_t uploadsBefore = platform.storage->Uploads().size();

        EXPECT_EQ(Process(diag), c.result == 0);

        EXPECT_EQ(platform.storage->Uploads().size(), uploadsBefore + 1);
        EXPECT_EQ(platform.storage->Uploads().back().filePath, ZipOf(diag).string());
        EXPECT_EQ(ReadText(diag / "scan-history.log"),
                  std::string(kEarlierLine) + "2026-11-21T09:00:00Z,Mqtt," + c.status + ",0,0,\"\"\n");
        EXPECT_EQ(ArtifactsDeleted(diag), c.deleted) << c.result;
        EXPECT_EQ(ArtifactsKept(diag), !c.deleted) << c.result;
        EXPECT_TRUE(fs::exists(diag / "latest" / "scan-result.json"));
    }
}

TEST_F(DeferredUploadTest, DeletionFollowsThePreferenceAndTheDefaultWhenItIsNotABoolean) {
    struct Case {
        const char* meta;
        bool deleted;
    };
    for (const Case& c : {Case{R"({"deleteFilesOnUpload":false})", false}, Case{R"({"deleteFilesOnUpload":"false"})", true}}) {
        const fs::path diag = Queue(appDataRoot / "acme");
        WriteText(diag / "latest" / "plugin-upload-meta.json", c.meta);

        EXPECT_TRUE(Process(diag));

        EXPECT_EQ(ArtifactsDeleted(diag), c.deleted) << c.meta;
        EXPECT_EQ(ArtifactsKept(diag), !c.deleted) << c.meta;
    }
}

TEST_F(DeferredUploadTest, TooManyRequestsIsRetriedOnceAfterTheJitter) {
    // Below the five-minute range, so the draw is the delay itself.
    platform.env.random = std::make_shared<FixedRandom>(123);
    platform.Reinstall();
    struct Case {
        std::vector<int> results;
        const char* status;
    };
    for (const Case& c : {Case{{429, 0}, "0"}, Case{{429, 429}, "1"}}) {
        const fs::path diag = Queue(appDataRoot / "acme");
        platform.storage->results.insert(platform.storage->results.end(), c.results.begin(), c.results.end());
        const auto before = platform.clock->SteadyNow();
        const std::size_t uploadsBefore = platform.storage->Uploads().size();

        Process(diag);

        EXPECT_EQ(platform.clock->SteadyNow() - before, std::chrono::seconds(123));
        EXPECT_EQ(platform.storage->Uploads().size() - uploadsBefore, 2u);
        EXPECT_EQ(LastLine(diag), std::string("2026-11-21T09:00:00Z,Mqtt,") + c.status + ",0,0,\"\"");
    }
    EXPECT_TRUE(platform.log->Contains("plugin upload received 429. retrying once after 123 seconds."));
}

// ---- The pass over both roots ----------------------------------------------------------

TEST_F(DeferredUploadTest, VisitsThePluginFoldersOfTheAgentAndOfTheLoggedInUser) {
    const fs::path agentDiag = Queue(appDataRoot / "acme");
    const fs::path userDiag = Queue(userRoot / "widget");
    const fs::path done = Queue(userRoot / "sent", "2026-11-21T09:00:00Z,Mqtt,0,0,0,\"\"\n");
    fs::create_directories(appDataRoot / "no-diagnostics" / "other");
    WriteText(appDataRoot / "stray-file", "x");
    LogInUser(userLocalAppData);

    // The way in: the device reporting that it is online again.
    manager->DeviceHasComeOnline();

    std::vector<std::string> uploaded = UploadedFiles();
    std::sort(uploaded.begin(), uploaded.end());
    std::vector<std::string> expected{ZipOf(agentDiag).string(), ZipOf(userDiag).string()};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(uploaded, expected);
    EXPECT_EQ(LastLine(agentDiag), "2026-11-21T09:00:00Z,Mqtt,0,0,0,\"\"");
    EXPECT_EQ(LastLine(userDiag), "2026-11-21T09:00:00Z,Mqtt,0,0,0,\"\"");
    EXPECT_TRUE(ArtifactsKept(done));
}

TEST_F(DeferredUploadTest, MissingRootsAreSkipped) {
    // Nobody logged in, and no plug-in folders under the agent's root.
    PluginDiagnosticsProcessor::ProcessDeferredPluginUploads(*manager);
    // A user without plug-in folders, while the agent's root has a queued zip.
    LogInUser(userLocalAppData);
    const fs::path agentDiag = Queue(appDataRoot / "acme");
    PluginDiagnosticsProcessor::ProcessDeferredPluginUploads(*manager);

    EXPECT_EQ(UploadedFiles(), std::vector<std::string>{ZipOf(agentDiag).string()});
    EXPECT_FALSE(platform.log->Contains("deferred plugin upload scan failed"));
}

}  // namespace
