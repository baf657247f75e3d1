// Uploading a plug-in's zip: who may and with which token, and the uploads queued while
// offline (which folders are taken, how the history line changes, what is deleted).
#include <filesystem>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "DiagnosticScanner/PluginDiagnosticsProcessor.h"
#include "support/PluginProcessorPeer.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "support/ManagerFixture.h"
#include "support/TokenVectors.h"

namespace {

namespace fs = std::filesystem;
using zep::path::FromFs;
using namespace zep::testing;
using Peer = PluginDiagnosticsProcessorTestPeer;

const std::string kEarlierLine = std::string("2026-11-20T08:00:00Z,Mqtt,2,0,0,\"\"") + zep::testing::kHistoryLineEnd;

std::string Line(const char* statuses) {
    return std::string("2026-11-21T09:00:00Z,Mqtt,") + statuses + ",0,\"\"" + zep::testing::kHistoryLineEnd;
}

class DeferredUploadTest : public ManagerTest {
protected:
    // A plug-in folder as a request leaves it, its history ending with `statuses`.
    fs::path Queue(const fs::path& pluginFolder, const char* statuses = "2,0") {
        const fs::path diag = pluginFolder / "diagnostics";
        WriteText(diag / "scan-history.log", kEarlierLine + Line(statuses));
        WriteText(diag / "component-result.json", R"({"componentId":"acme"})");
        WriteText(diag / "context" / "info.txt", "x");
        WriteText(diag / "Log" / "plugin.log", "x");
        WriteText(diag / "latest" / "scan-result.json", R"({"id":"scan1"})");
        WriteText(ZipOf(diag), "PK\x03\x04");
        return diag;
    }
    static fs::path ZipOf(const fs::path& diag) {
        const std::string plugin = diag.parent_path().filename().string();
        return diag / "latest" / ("0f4c2d1e-aaaa-bbbb-cccc-000000000001_" + plugin + ".zip");
    }
    // How many of the four artifacts a deletion removes are still there.
    static int Remaining(const fs::path& diag) {
        return fs::exists(diag / "component-result.json") + fs::exists(diag / "context") + fs::exists(diag / "Log") +
               fs::exists(ZipOf(diag));
    }
    bool Process(const fs::path& diag) {
        return Peer::ProcessDeferredPluginUpload(*manager, FromFs(diag));
    }

    const fs::path agentRoot = platform.rootPath / "programdata" / "plugin-data";
};

TEST_F(DeferredUploadTest, OnlyAVerifiedBackupTokenIsSentAndWithoutIntentNothingIsSent) {
    platform.policy->platformPolicy.set_jws_pubkey({zep::text::FromUtf8(zep::testing::vectors::kTrustedRsaKey)});
    const std::string good = zep::testing::vectors::kProvisionToken;
    const std::string forged = zep::testing::vectors::kProvisionTokenByUnknownKey;
    const fs::path zip = ZipOf(Queue(agentRoot / "acme"));
    const fs::path backup = platform.rootPath / "programdata" / "zep-provision-backup.json";
    const struct {
        bool registered, intent;
        std::string token;  // in the backup; empty: no backup
        int result;
        std::string sentToken;
    } cases[] = {
        {true, true, good, 503, ""},  // the agent's result comes back unchanged
        {false, false, good, FileStorageAgent::Success, good},
        {false, true, "", FileStorageAgent::Success, ""},
        {false, true, forged, FileStorageAgent::Success, ""},
        {false, false, forged, FileStorageAgent::LocalRefusal, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.registered) + std::to_string(c.intent) + c.token.substr(c.token.size() / 2));
        platform.device->registered = c.registered;
        platform.device->commercialIntent = c.intent;
        fs::remove(backup);
        if (!c.token.empty()) WriteText(backup, R"({"provision_token":")" + c.token + R"("})");
        const bool sent = c.result != FileStorageAgent::LocalRefusal;
        if (sent) platform.storage->results.push_back(c.result);
        const std::size_t before = platform.storage->Uploads().size();

        EXPECT_EQ(static_cast<int>(Peer::UploadPluginDiagnosticsResult(*manager, FromFs(zip))),
                  c.result);

        const auto uploads = platform.storage->Uploads();
        ASSERT_EQ(uploads.size(), before + (sent ? 1 : 0));
        if (!sent) continue;
        EXPECT_EQ(uploads.back().filePath, zip.string());
        EXPECT_EQ(uploads.back().unregisteredDevice, !c.registered);
        EXPECT_EQ(uploads.back().provisionToken, c.sentToken);
    }
    for (const auto& line : platform.log->Lines()) EXPECT_EQ(line.find(good), std::string::npos) << line;
}

TEST_F(DeferredUploadTest, TakesOnlyQueuedFoldersAndDeletesByPreferenceUnlessStillOffline) {
    const struct {
        const char* statuses;
        int result;        // -1: nothing is sent
        const char* meta;  // nullptr: no preference saved
        const char* after;
        bool deleted;
    } cases[] = {
        {"1,0", -1, nullptr, "1,0", false},
        // The artifact field goes back to 0 whatever it was.
        {"2,1", 0, nullptr, "0,0", true},
        {"2,1", 10, nullptr, "2,0", false},
        {"2,1", 500, nullptr, "1,0", true},
        {"2,0", 0, R"({"deleteFilesOnUpload":false})", "0,0", false},
        // Not a boolean: the default.
        {"2,0", 0, R"({"deleteFilesOnUpload":"false"})", "0,0", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.statuses) + " " + std::to_string(c.result) + " " + (c.meta ? c.meta : ""));
        const fs::path diag = Queue(agentRoot / "acme", c.statuses);
        if (c.meta) WriteText(diag / "latest" / "plugin-upload-meta.json", c.meta);
        if (c.result >= 0) platform.storage->results.push_back(c.result);
        const std::size_t before = platform.storage->Uploads().size();

        EXPECT_EQ(Process(diag), c.result == 0);

        ASSERT_EQ(platform.storage->Uploads().size(), before + (c.result >= 0 ? 1 : 0));
        if (c.result >= 0) { EXPECT_EQ(platform.storage->Uploads().back().filePath, ZipOf(diag).string()); }
        EXPECT_EQ(ReadText(diag / "scan-history.log"), kEarlierLine + Line(c.after));
        EXPECT_EQ(Remaining(diag), c.deleted ? 0 : 4);
        EXPECT_TRUE(fs::exists(diag / "latest" / "scan-result.json"));
    }
}

TEST_F(DeferredUploadTest, NeedsARegularZipInLatest) {
    const fs::path diag = Queue(agentRoot / "acme");
    fs::remove(ZipOf(diag));
    fs::create_directories(diag / "latest" / "folder.zip");
    // A link in a folder that a user can write to must not send another file.
#ifndef _WIN32
    // (Wine shows a link to a file as the file itself.)
    WriteText(platform.rootPath / "outside" / "secret.bin", "secret");
    fs::create_symlink(platform.rootPath / "outside" / "secret.bin", diag / "latest" / "evil.zip");
#endif

    EXPECT_FALSE(Process(diag));

    EXPECT_TRUE(platform.storage->Uploads().empty());
    EXPECT_EQ(ReadText(diag / "scan-history.log"), kEarlierLine + Line("2,0"));
}

TEST_F(DeferredUploadTest, ComingOnlineVisitsThePluginFoldersOfTheAgentAndOfTheLoggedInUser) {
    const fs::path local = platform.rootPath / "users" / "alice" / "AppData" / "Local";
    const fs::path userRoot = local / "Quorin" / "Zep" / "plugin-data";
    const fs::path agentDiag = Queue(agentRoot / "acme");
    const fs::path userDiag = Queue(userRoot / "widget");
    const fs::path done = Queue(userRoot / "sent", "0,0");
    WriteText(agentRoot / "stray-file", "x");
    platform.system->loggedInUserSid = L"S-1-5-21-1";
    platform.registry->SetString(zep::platform::Hive::Users,
                                 L"S-1-5-21-1\\Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Shell Folders",
                                 L"Local AppData", FromFs(local));

    manager->DeviceHasComeOnline();

    std::multiset<std::string> uploaded;
    for (const auto& upload : platform.storage->Uploads()) uploaded.insert(upload.filePath);
    EXPECT_EQ(uploaded, (std::multiset<std::string>{ZipOf(agentDiag).string(), ZipOf(userDiag).string()}));
    EXPECT_EQ(ReadText(userDiag / "scan-history.log"), kEarlierLine + Line("0,0"));
    EXPECT_EQ(Remaining(done), 4);
}

}  // namespace
