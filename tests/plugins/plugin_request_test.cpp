#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <json/json.h>

#include "DiagnosticScanner/PluginDiagnosticsProcessor.h"
#include "support/PluginProcessorPeer.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "support/Links.h"
#include "support/ManagerFixture.h"
#include "support/TokenVectors.h"
#include "support/ZipReader.h"

namespace {

namespace fs = std::filesystem;
using zep::platform::DiagnosticsOperationResult;
using zep::platform::ElevationType;
using namespace zep::testing;
using zep::path::FromFs;
using Processor = PluginDiagnosticsProcessor;
using Peer = PluginDiagnosticsProcessorTestPeer;

constexpr const wchar_t* kPluginId = L"com.quorin.pluginx";
constexpr const char* kZipName = "0f4c2d1e-aaaa-bbbb-cccc-000000000001_com.quorin.pluginx.zip";
constexpr std::uint8_t kJitterSeconds = 40;

class FixedRandom : public zep::platform::RandomEnv {
public:
    void Fill(std::uint8_t* bytes, std::size_t size) override {
        std::fill(bytes, bytes + size, std::uint8_t{0});
        if (size > 0) bytes[0] = kJitterSeconds;
    }
};

class SmallDisk : public zep::platform::FileSystemEnvWrapper {
public:
    using FileSystemEnvWrapper::FileSystemEnvWrapper;
    // One byte short of the plug-in zip's floor.
    std::optional<std::uint64_t> FreeSpace(const std::wstring&) override { return 52428799; }
};

std::string Line(const char* statuses, const char* time = "10:15:30") {
    return std::string("2026-11-21T") + time + "Z,Mqtt," + statuses + ",0,\"\"" + zep::testing::kHistoryLineEnd;
}

class PluginRequestTest : public ManagerTest {
protected:
    fs::path AgentPluginData() const { return platform.rootPath / "programdata" / "plugin-data"; }
    fs::path LocalAppData() const { return platform.rootPath / "users" / "alice" / "AppData" / "Local"; }
    fs::path UserPluginData() const { return LocalAppData() / "Quorin" / "Zep" / "plugin-data"; }
    void LogInUser() {
        platform.system->loggedInUserSid = L"S-1-5-21-1";
        platform.registry->SetString(zep::platform::Hive::Users,
                                     L"S-1-5-21-1\\Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Shell Folders",
                                     L"Local AppData", FromFs(LocalAppData()));
    }
    PluginRequestTest() {
        peer->triggerType() = 2;
        peer->scanID() = L"req-7";
        platform.env.random = std::make_shared<FixedRandom>();
        platform.Reinstall();
        platform.extensions->plugins[L"pluginx"] = {kPluginId, {ElevationType::Elevated}};
        platform.extensions->onSend = [this](const ScriptedExtensions::Command& command) {
            const fs::path folder = zep::path::ToFs(command.diagFolder);
            if (!pluginResult.empty()) WriteText(folder / "component-result.json", pluginResult);
            WriteText(folder / "context" / "info.txt", "context");
            WriteText(folder / "Log" / "plugin.log", "log");
        };
    }

    void Request(const std::wstring& target = L"pluginx") {
        Processor::GeneratePluginDiagnosticsForMqttTarget(*manager, target);
    }
    fs::path ElevatedFolder() const { return AgentPluginData() / "com.quorin.pluginx" / "diagnostics"; }
    fs::path ZipFile() const { return ElevatedFolder() / "latest" / kZipName; }
    void InstallSmallDisk() {
        platform.env.files = std::make_shared<SmallDisk>(zep::platform::DefaultEnv().files);
        platform.Reinstall();
    }
    bool Zip() {
        std::wstring zipPath;
        const bool zipped = Peer::CreatePluginZip(*manager, FromFs(ElevatedFolder()), kPluginId, zipPath);
        if (zipped) { EXPECT_EQ(zipPath, FromFs(ZipFile())); }
        return zipped;
    }
    fs::path UserFolder() const { return UserPluginData() / "com.quorin.pluginx" / "diagnostics"; }

    std::string pluginResult = R"({"componentId":"com.quorin.pluginx","resultType":"Complete","isProblematic":false})";
};

struct OutcomeCase {
    const char* name;
    DiagnosticsOperationResult answer;  // the plug-in always asks for its files to go
    bool online;
    std::vector<int> uploadResults;
    bool smallDisk;
    std::size_t uploads;  // 2: retried after a 429
    const char* statuses;  // history: sent to cloud, artifacts
    const char* resultType;
    bool isProblematic;
    bool zipped;         // a zip was made and the preference saved
    bool deletes;        // the plug-in's wish is honoured
};

const DiagnosticsOperationResult kGood{true, false, false, true};

const OutcomeCase kOutcomes[] = {
    {"TimeOut", {true, false, true, true}, true, {}, false, 0, "1,1", "ErrorTimeOut", false, false, false},
    {"NotDelivered", {true, false, false, false}, true, {}, false, 0, "1,1", "ErrorGeneral", true, false, false},
    {"Unsuccessful", {false, false, false, true}, true, {}, false, 0, "1,1", "ErrorGeneral", true, false, false},
    {"ZipFailure", kGood, true, {}, true, 0, "1,1", "Complete", false, false, false},
    {"Offline", kGood, false, {}, false, 0, "2,0", "NetworkNotConnected", false, true, false},
    {"TooManyRequestsTwice", kGood, true, {429, 429, 0}, false, 2, "1,0", "Complete", false, true, true},
    {"NetworkNotConnected", kGood, true, {10}, false, 1, "2,0", "NetworkNotConnected", false, true, false},
    {"Uploaded", kGood, true, {0}, false, 1, "0,0", "Complete", false, true, true},
    {"UploadError", kGood, true, {3}, false, 1, "1,0", "Complete", false, true, true},
};

class PluginOutcomeTest : public PluginRequestTest, public ::testing::WithParamInterface<OutcomeCase> {};

TEST_P(PluginOutcomeTest, LeavesTheDocumentsHistoryAndFilesOfItsOutcome) {
    const OutcomeCase& c = GetParam();
    DiagnosticsOperationResult answer = c.answer;
    answer.deleteFilesOnUpload = true;
    platform.extensions->answers[ElevationType::Elevated] = answer;
    platform.device->online = c.online;
    platform.storage->results = c.uploadResults;
    if (c.smallDisk) InstallSmallDisk();
    const auto before = platform.clock->SteadyNow();

    Request();

    const fs::path folder = ElevatedFolder();
    const fs::path zip = ZipFile();
    ASSERT_EQ(platform.extensions->Commands().size(), 1u);
    const auto uploads = platform.storage->Uploads();
    ASSERT_EQ(uploads.size(), c.uploads);
    for (const auto& upload : uploads) EXPECT_EQ(upload.filePath, zip.string());
    const bool retried = c.uploads == 2;
    EXPECT_EQ(platform.clock->SteadyNow() - before, std::chrono::seconds(retried ? kJitterSeconds : 0));
    EXPECT_EQ(ReadText(folder / "scan-history.log"), Line(c.statuses, retried ? "10:16:10" : "10:15:30"));
    EXPECT_EQ(platform.log->Contains("plugin upload received 429. retrying once after 40 seconds."), retried);

    // The scan result outlives a deletion and carries the final result type.
    const Json::Value scanResult = ParseJson(ReadText(folder / "latest" / "scan-result.json"));
    EXPECT_EQ(scanResult["components"][0]["resultType"].asString(), c.resultType);
    EXPECT_EQ(scanResult["components"][0]["isProblematic"].asBool(), c.isProblematic);
    EXPECT_EQ(scanResult.isMember("artifactSize"), c.zipped);

    const bool deleted = c.deletes;
    EXPECT_EQ(fs::exists(zip), c.zipped && !deleted);
    EXPECT_EQ(fs::exists(folder / "component-result.json"), !deleted);
    EXPECT_EQ(fs::exists(folder / "context"), !deleted);
    EXPECT_EQ(fs::exists(folder / "Log"), !deleted);
    const fs::path meta = folder / "latest" / "plugin-upload-meta.json";
    EXPECT_EQ(fs::exists(meta), c.zipped);
    if (c.zipped) { EXPECT_EQ(ParseJson(ReadText(meta))["deleteFilesOnUpload"].asBool(), true); }
}

INSTANTIATE_TEST_SUITE_P(Outcomes, PluginOutcomeTest, ::testing::ValuesIn(kOutcomes),
                         [](const auto& p) { return std::string(p.param.name); });

TEST(PluginFailedTestsTest, CountsObjectsWhoseActualAndExpectedTextsDiffer) {
    const struct {
        const char* component;
        int failed;
    } cases[] = {
        {R"({"tests":[{"actual":"1","expected":"01"},{"actual":"x","expected":"x"}]})", 1},
        {R"({"tests":[{"actual":"pass","expected":"Pass"},{"actual":"","expected":"a"}]})", 2},
        {R"({"tests":[{"actual":1,"expected":"1"},{"actual":"1"},"1",[],null]})", 0},
        {R"({"tests":{"a":{"actual":"1","expected":"2"}}})", 0},
        {R"([{"actual":"1","expected":"2"}])", 0},
    };
    for (const auto& c : cases) EXPECT_EQ(Peer::CountFailedTests(ParseJson(c.component)), c.failed) << c.component;
}

TEST_F(PluginRequestTest, ElevatedAndUserInstancesHaveFoldersZipsAndUploadsOfTheirOwn) {
    LogInUser();
    pluginResult.clear();
    platform.extensions->plugins[L"pluginx"].elevations = {ElevationType::Elevated, ElevationType::User};
    platform.extensions->answers[ElevationType::User] = {true, true, false, true};  // wants its files gone

    Request();

    ASSERT_EQ(platform.extensions->Commands().size(), 2u);
    const auto uploads = platform.storage->Uploads();
    ASSERT_EQ(uploads.size(), 2u);
    EXPECT_EQ(uploads[0].filePath, ZipFile().string());
    EXPECT_EQ(uploads[1].filePath, (UserFolder() / "latest" / kZipName).string());
    for (const auto& [folder, context] : {std::pair{ElevatedFolder(), "system"}, std::pair{UserFolder(), "user"}}) {
        EXPECT_EQ(ReadText(folder / "scan-history.log"), Line("0,0")) << folder;
        const Json::Value scan = ParseJson(ReadText(folder / "latest" / "scan-result.json"));
        EXPECT_EQ(scan["components"][0]["executionContext"].asString(), context) << folder;
    }
    EXPECT_TRUE(fs::exists(ElevatedFolder() / "context"));
    EXPECT_FALSE(fs::exists(UserFolder() / "context"));
}

// The user owns these folders; the agent has more rights and must not follow their links.
TEST_F(PluginRequestTest, ALinkInTheUsersPluginFolderLeadsTheAgentNowhere) {
    LogInUser();
    platform.extensions->plugins[L"pluginx"].elevations = {ElevationType::User};
    platform.extensions->answers[ElevationType::User] = {true, true, false, true};  // wants its files gone
    const fs::path victim = platform.rootPath / "victim";
    WriteText(victim / "context" / "secret.txt", "secret");
    WriteText(victim / "Log" / "secret.log", "secret");
    WriteText(victim / "component-result.json", R"({"componentId":"victim"})");
    const auto victimState = [&] {
        std::set<std::string> state;
        for (const auto& entry : fs::recursive_directory_iterator(victim)) {
            state.insert(entry.path().string() + "=" + ReadText(entry.path()));
        }
        return state;
    };
    const auto before = victimState();
    const auto plantLink = [&] {
        zep::testing::RemoveTree(UserFolder());
        fs::create_directories(UserFolder().parent_path());
        ASSERT_TRUE(zep::testing::MakeFolderLink(UserFolder(), victim));
    };

    plantLink();
    Request();
    EXPECT_TRUE(platform.extensions->Commands().empty());
    EXPECT_EQ(platform.log->Count("elevation : 2, folder creation failed"), 1u);

    zep::testing::RemoveLink(UserFolder());
    platform.extensions->onSend = [&](const ScriptedExtensions::Command&) { plantLink(); };
    Request();
    EXPECT_EQ(platform.extensions->Commands().size(), 1u);

    EXPECT_EQ(victimState(), before);
    EXPECT_TRUE(platform.storage->Uploads().empty());
    EXPECT_TRUE(platform.log->Contains("zip creation failed for plugin=com.quorin.pluginx elev=:User"));
}

// The device id names the plug-in's zip but comes from outside.
TEST_F(PluginRequestTest, ADeviceIdWithSeparatorsKeepsTheZipInLatest) {
    platform.device->deviceId = L"../../up/evil:id";
    Request();
    const auto uploads = platform.storage->Uploads();
    ASSERT_EQ(uploads.size(), 1u);
    const fs::path zip = uploads[0].filePath;
    EXPECT_EQ(zip.parent_path(), ElevatedFolder() / "latest");
    EXPECT_TRUE(fs::is_regular_file(zip));
    EXPECT_FALSE(fs::exists(platform.rootPath / "programdata" / "plugin-data" / "up"));
    const Json::Value scan = ParseJson(ReadText(ElevatedFolder() / "latest" / "scan-result.json"));
    EXPECT_EQ(scan["artifactSize"].asUInt64(), fs::file_size(zip));
}

TEST_F(PluginRequestTest, TargetsAndIdsThatReachNoSafeFolderAskNobody) {
    Request(L"forged\nline");
    EXPECT_TRUE(platform.log->Contains("Ignoring target 'forged\\x0Aline'"));
    EXPECT_TRUE(platform.extensions->Commands().empty());
    for (const wchar_t* id : {L"", L"..", L"a/b", L"a\nb"}) {
        EXPECT_EQ(Peer::ResolvePluginDiagFolder(ElevationType::Elevated, id), L"") << id;
    }
}

TEST_F(PluginRequestTest, TheZipPacksTheTopLevelAndLatestScanResultButNotHistoryPreferenceArchivesOrLinks) {
    const fs::path diag = ElevatedFolder();
    WriteText(diag / "plugin.log", "trace");
    WriteText(diag / "traces" / "run1" / "trace.etl", "etl");
    WriteText(diag / "traces" / "inner.zip", "PK");  // below the top level nothing is filtered
    WriteText(diag / "scan-history.log", Line("1,1"));
    WriteText(diag / "plugin-upload-meta.json", R"({"deleteFilesOnUpload":true})");
    WriteText(diag / "b.ZIP", "PK");
    // The plug-in's own file of that name gives way to the agent's scan result.
    WriteText(diag / "scan-result.json", "plugin's own");
    WriteText(diag / "latest" / "scan-result.json", R"({"id":"scan1"})");
    WriteText(diag / "latest" / "notes.txt", "latest's other files stay out");
    WriteText(platform.rootPath / "outside" / "secret.txt", "secret");
    // Wine shows a Unix link to a file as the file itself.
    if (!zep::testing::RunningUnderWine()) {
        ASSERT_TRUE(zep::testing::MakeFileLink(diag / "secret-link.txt", platform.rootPath / "outside" / "secret.txt"));
    }
    WriteText(ZipFile(), "stale");  // replaced, not merged into

    ASSERT_TRUE(Zip());

    EXPECT_EQ(ZipEntries(ZipFile()),
              (std::set<std::string>{"plugin.log", "scan-result.json", "traces/", "traces/inner.zip", "traces/run1/",
                                     "traces/run1/trace.etl"}));
    EXPECT_EQ(ZipRead(ZipFile(), "scan-result.json"), std::optional<std::string>(R"({"id":"scan1"})"));
}

TEST_F(PluginRequestTest, TheWindowsZipRunsThisLineAndNeedsAGoodRunAndANewZip) {
    platform.env.collection = nullptr;
    platform.Reinstall();
    int hostContext = 0;
    peer->SetHostContext(&hostContext);
    WriteText(ElevatedFolder() / "plugin.log", "trace");
    const struct {
        int exitResult;
        bool writesZip, zipped;
    } cases[] = {{1, true, true}, {1, false, false}, {0, true, false}};
    for (const auto& c : cases) {
        WriteText(ZipFile(), "stale");  // an earlier request's zip must not pass for this one's
        platform.processes->onLaunch = [&](const std::wstring&) {
            if (c.writesZip) WriteText(ZipFile(), "PK");
            return c.exitResult;
        };

        EXPECT_EQ(Zip(), c.zipped) << c.exitResult << c.writesZip;

        const std::wstring d = FromFs(ElevatedFolder());
        EXPECT_EQ(platform.processes->CommandLines().back(),
                  L"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe -ExecutionPolicy bypass "
                  L"-NoProfile -NonInteractive -WindowStyle Hidden -Command \"$root='" + d +
                      L"';$items=@();$items += Get-ChildItem -Path $root -Force | Where-Object { $_.Name -ne "
                      L"'scan-history.log' -and $_.Name -ne 'latest' };$scanResult='" + d +
                      L"\\latest\\scan-result.json';if (Test-Path $scanResult) { $items += Get-Item $scanResult };"
                      L"$items = $items | Where-Object { $_.Name -ne 'plugin-upload-meta.json' -and $_.Extension "
                      L"-ne '.zip' };if ($items.Count -eq 0) { exit 1 };Compress-Archive -Path ($items | "
                      L"ForEach-Object { $_.FullName }) -DestinationPath '" + FromFs(ZipFile()) + L"' -Force\"");
        EXPECT_EQ(platform.processes->lastHostContext, &hostContext);
    }
}

const std::string kEarlierLine = std::string("2026-11-20T08:00:00Z,Mqtt,2,0,0,\"\"") + zep::testing::kHistoryLineEnd;

std::string Queued(const char* statuses) { return Line(statuses, "09:00:00"); }

class DeferredUploadTest : public PluginRequestTest {
protected:
    fs::path Queue(const fs::path& pluginFolder, const char* statuses = "2,0") {
        const fs::path diag = pluginFolder / "diagnostics";
        WriteText(diag / "scan-history.log", kEarlierLine + Queued(statuses));
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
    static int Remaining(const fs::path& diag) {
        return fs::exists(diag / "component-result.json") + fs::exists(diag / "context") + fs::exists(diag / "Log") +
               fs::exists(ZipOf(diag));
    }
    bool Process(const fs::path& diag) {
        return Peer::ProcessDeferredPluginUpload(*manager, FromFs(diag));
    }
};

TEST_F(DeferredUploadTest, OnlyAVerifiedBackupTokenIsSentAndWithoutIntentNothingIsSent) {
    platform.policy->platformPolicy.set_jws_pubkey({zep::text::FromUtf8(zep::testing::vectors::kTrustedRsaKey)});
    const std::string good = zep::testing::vectors::kProvisionToken;
    const std::string forged = zep::testing::vectors::kProvisionTokenByUnknownKey;
    const fs::path zip = ZipOf(Queue(AgentPluginData() / "acme"));
    const fs::path backup = platform.rootPath / "programdata" / "zep-provision-backup.json";
    const struct {
        bool registered, intent;
        std::string token;  // in the backup; empty: no backup
        int result;         // LocalRefusal: nothing is sent
        std::string sentToken;
    } cases[] = {
        {true, true, good, 503, ""},  // the agent's result comes back unchanged
        {false, false, good, FileStorageAgent::Success, good},
        {false, true, forged, FileStorageAgent::Success, ""},
        {false, false, forged, FileStorageAgent::LocalRefusal, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.registered) + std::to_string(c.intent) + c.token.substr(c.token.size() / 2));
        platform.device->registered = c.registered;
        platform.device->commercialIntent = c.intent;
        WriteText(backup, R"({"provision_token":")" + c.token + R"("})");
        const bool sent = c.result != FileStorageAgent::LocalRefusal;
        if (sent) platform.storage->results.push_back(c.result);
        const std::size_t before = platform.storage->Uploads().size();

        EXPECT_EQ(static_cast<int>(Peer::UploadPluginDiagnosticsResult(*manager, FromFs(zip))), c.result);

        const auto uploads = platform.storage->Uploads();
        ASSERT_EQ(uploads.size(), before + (sent ? 1 : 0));
        if (!sent) continue;
        EXPECT_EQ(uploads.back().filePath, zip.string());
        EXPECT_EQ(uploads.back().unregisteredDevice, !c.registered);
        EXPECT_EQ(uploads.back().provisionToken, c.sentToken);
    }
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
        const fs::path diag = Queue(AgentPluginData() / "acme", c.statuses);
        if (c.meta) WriteText(diag / "latest" / "plugin-upload-meta.json", c.meta);
        if (c.result >= 0) platform.storage->results.push_back(c.result);
        const std::size_t before = platform.storage->Uploads().size();

        EXPECT_EQ(Process(diag), c.result == 0);

        ASSERT_EQ(platform.storage->Uploads().size(), before + (c.result >= 0 ? 1 : 0));
        if (c.result >= 0) { EXPECT_EQ(platform.storage->Uploads().back().filePath, ZipOf(diag).string()); }
        EXPECT_EQ(ReadText(diag / "scan-history.log"), kEarlierLine + Queued(c.after));
        EXPECT_EQ(Remaining(diag), c.deleted ? 0 : 4);
        EXPECT_TRUE(fs::exists(diag / "latest" / "scan-result.json"));
    }
}

TEST_F(DeferredUploadTest, NeedsARegularZipInLatest) {
    const fs::path diag = Queue(AgentPluginData() / "acme");
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
    EXPECT_EQ(ReadText(diag / "scan-history.log"), kEarlierLine + Queued("2,0"));
}

TEST_F(DeferredUploadTest, ComingOnlineVisitsThePluginFoldersOfTheAgentAndOfTheLoggedInUser) {
    const fs::path agentDiag = Queue(AgentPluginData() / "acme");
    const fs::path userDiag = Queue(UserPluginData() / "widget");
    const fs::path done = Queue(UserPluginData() / "sent", "0,0");
    WriteText(AgentPluginData() / "stray-file", "x");
    LogInUser();

    manager->DeviceHasComeOnline();

    std::multiset<std::string> uploaded;
    for (const auto& upload : platform.storage->Uploads()) uploaded.insert(upload.filePath);
    EXPECT_EQ(uploaded, (std::multiset<std::string>{ZipOf(agentDiag).string(), ZipOf(userDiag).string()}));
    EXPECT_EQ(ReadText(userDiag / "scan-history.log"), kEarlierLine + Queued("0,0"));
    EXPECT_EQ(Remaining(done), 4);
}

}  // namespace
