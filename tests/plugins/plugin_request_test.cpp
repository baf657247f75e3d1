// Asking a plug-in for its diagnostics: every outcome of one elevation's
// request with and without the plug-in's delete preference, the 429 retry,
// several elevations, and the targets that ask nobody.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "DiagnosticScanner/PluginDiagnosticsProcessor.h"
#include "platform/Paths.h"
#include "platform/Strings.h"
#include "support/ManagerFixture.h"
#include "support/ZipReader.h"

namespace {

namespace fs = std::filesystem;
using zep::platform::DiagnosticsOperationResult;
using zep::platform::ElevationType;
using zep::testing::ReadText;
using zep::testing::WriteText;
using Processor = PluginDiagnosticsProcessor;

constexpr const wchar_t* kPluginId = L"com.quorin.pluginx";
constexpr const char* kZipName = "0f4c2d1e-aaaa-bbbb-cccc-000000000001_com.quorin.pluginx.zip";
constexpr const char* kPluginResult =
    R"({"componentId":"com.quorin.pluginx","friendlyName":"Plugin X","executionTimeSeconds":"1.500",)"
    R"("resultType":"Complete","isProblematic":false,"artifactsProvided":true,"executionContext":"user",)"
    R"("tests":[{"id":"t1","actual":"1","expected":"01"}],"vendorKey":7})";
constexpr unsigned int kJitterSeconds = 40;

// The jitter's random source, fixed so that the retry's delay is known.
class FixedRandom : public zep::platform::RandomEnv {
public:
    void Fill(std::uint8_t* bytes, std::size_t size) override {
        const std::uint64_t value = kJitterSeconds;
        std::memset(bytes, 0, size);
        std::memcpy(bytes, &value, std::min(size, sizeof value));
    }
};

// The real file system on a volume with `freeBytes` free.
class SmallDisk : public zep::platform::FileSystemEnvWrapper {
public:
    SmallDisk(std::shared_ptr<zep::platform::FileSystemEnv> inner, std::uint64_t freeBytes)
        : FileSystemEnvWrapper(std::move(inner)), free_(freeBytes) {}
    std::optional<std::uint64_t> FreeSpace(const std::wstring&) override { return free_; }

private:
    std::uint64_t free_;
};

Json::Value Parse(const std::string& text) {
    Json::Value value;
    std::istringstream(text) >> value;
    return value;
}

std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
    return parts;
}

class PluginRequestTest : public zep::testing::ManagerTest {
protected:
    PluginRequestTest() {
        peer->triggerType() = 2;
        peer->scanID() = L"req-7";
        platform.env.random = std::make_shared<FixedRandom>();
        platform.Reinstall();
        platform.extensions->plugins[L"pluginx"] = {kPluginId, {ElevationType::Elevated}};
        platform.extensions->onSend = [this](const zep::testing::ScriptedExtensions::Command& command) {
            // What a plug-in leaves in its folder: its own result (unless
            // `pluginResult` is empty), its context and its log.
            const fs::path folder = zep::path::ToFs(command.diagFolder);
            EXPECT_TRUE(fs::is_directory(folder)) << "the plug-in is told a folder that exists";
            if (!pluginResult.empty()) WriteText(folder / "component-result.json", pluginResult);
            WriteText(folder / "context" / "info.txt", "context");
            WriteText(folder / "Log" / "plugin.log", "log");
        };
    }

    void Request(const std::wstring& target = L"pluginx") {
        Processor::GeneratePluginDiagnosticsForMqttTarget(*manager, target);
    }
    fs::path ElevatedFolder() const {
        return platform.rootPath / "programdata" / "plugin-data" / "com.quorin.pluginx" / "diagnostics";
    }
    fs::path UserLocalAppData() const { return platform.rootPath / "users" / "alice" / "AppData" / "Local"; }
    fs::path UserFolder() const {
        return UserLocalAppData() / "Quorin" / "Zep" / "plugin-data" / "com.quorin.pluginx" / "diagnostics";
    }
    void LogInUser() {
        platform.system->loggedInUserSid = L"S-1-5-21-1";
        platform.registry->SetString(zep::platform::Hive::Users,
                                     L"S-1-5-21-1\\Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Shell Folders",
                                     L"Local AppData", zep::path::FromFs(UserLocalAppData()));
    }
    static std::vector<std::string> HistoryLines(const fs::path& folder) {
        return Split(ReadText(folder / "scan-history.log"), '\n');
    }
    // Fields 3 and 4 of the only history line.
    static std::string Statuses(const fs::path& folder) {
        const auto lines = HistoryLines(folder);
        if (lines.size() != 1) return "lines: " + std::to_string(lines.size());
        const auto fields = Split(lines[0], ',');
        if (fields.size() != 6 || fields[1] != "Mqtt" || fields[4] != "0" || fields[5] != "\"\"") return lines[0];
        return fields[2] + "," + fields[3];
    }
    bool Logged(const std::string& text) const { return platform.log->Contains(text); }

    std::string pluginResult = kPluginResult;
};

// ---- Outcomes ------------------------------------------------------------------

struct OutcomeCase {
    const char* name;
    DiagnosticsOperationResult answer;  // deleteFilesOnUpload is the test's parameter
    bool online;
    std::vector<int> uploadResults;
    bool smallDisk;
    std::size_t uploads;
    const char* statuses;  // history fields 3 and 4
    const char* resultType;
    bool isProblematic;
    bool zipped;         // a zip was made and the preference saved
    bool deletesOnWish;  // the plug-in's wish to delete is honoured
};

void PrintTo(const OutcomeCase& c, std::ostream* os) { *os << c.name; }

const DiagnosticsOperationResult kGood{true, false, false, true};

const OutcomeCase kOutcomes[] = {
    {"TimeOut", {true, false, true, true}, true, {}, false, 0, "1,1", "ErrorTimeOut", false, false, false},
    {"NotDelivered", {true, false, false, false}, true, {}, false, 0, "1,1", "ErrorGeneral", true, false, false},
    {"Unsuccessful", {false, false, false, true}, true, {}, false, 0, "1,1", "ErrorGeneral", true, false, false},
    {"ZipFailure", kGood, true, {}, true, 0, "1,1", "Complete", false, false, false},
    {"Offline", kGood, false, {}, false, 0, "2,0", "NetworkNotConnected", false, true, false},
    {"TooManyRequestsTwice", kGood, true, {429, 429, 0}, false, 2, "1,0", "Complete", false, true, true},
    {"TooManyRequestsThenUploaded", kGood, true, {429, 0}, false, 2, "0,0", "Complete", false, true, true},
    {"NetworkNotConnected", kGood, true, {10}, false, 1, "2,0", "NetworkNotConnected", false, true, false},
    {"Uploaded", kGood, true, {0}, false, 1, "0,0", "Complete", false, true, true},
    {"UploadError", kGood, true, {3}, false, 1, "1,0", "Complete", false, true, true},
};

class PluginOutcomeTest : public PluginRequestTest,
                          public ::testing::WithParamInterface<std::tuple<OutcomeCase, bool>> {};

TEST_P(PluginOutcomeTest, LeavesTheDocumentsHistoryAndFilesOfItsOutcome) {
    const auto& [c, deleteWish] = GetParam();
    DiagnosticsOperationResult answer = c.answer;
    answer.deleteFilesOnUpload = deleteWish;
    platform.extensions->answers[ElevationType::Elevated] = answer;
    platform.device->online = c.online;
    platform.storage->results = c.uploadResults;
    if (c.smallDisk) {
        platform.env.files = std::make_shared<SmallDisk>(zep::platform::DefaultEnv().files, 52428799);
        platform.Reinstall();
    }
    const auto before = platform.clock->SteadyNow();

    Request();

    const fs::path folder = ElevatedFolder();
    const fs::path zip = folder / "latest" / kZipName;
    const auto commands = platform.extensions->Commands();
    ASSERT_EQ(commands.size(), 1u);
    EXPECT_EQ(commands[0].diagFolder, zep::path::FromFs(folder));
    EXPECT_EQ(commands[0].elevation, ElevationType::Elevated);

    EXPECT_EQ(Statuses(folder), c.statuses);
    const auto uploads = platform.storage->Uploads();
    ASSERT_EQ(uploads.size(), c.uploads);
    for (const auto& upload : uploads) EXPECT_EQ(upload.filePath, zip.string());
    const bool retried = c.uploads == 2;
    EXPECT_EQ(platform.clock->SteadyNow() - before,
              retried ? std::chrono::nanoseconds(std::chrono::seconds(kJitterSeconds)) : std::chrono::nanoseconds(0));

    // The scan result outlives a deletion and carries the final result type.
    const Json::Value scanResult = Parse(ReadText(folder / "latest" / "scan-result.json"));
    EXPECT_EQ(scanResult["components"][0]["resultType"].asString(), c.resultType);
    EXPECT_EQ(scanResult["components"][0]["isProblematic"].asBool(), c.isProblematic);
    EXPECT_EQ(scanResult.isMember("artifactSize"), c.zipped);

    const bool deleted = deleteWish && c.deletesOnWish;
    EXPECT_EQ(fs::exists(zip), c.zipped && !deleted);
    EXPECT_EQ(fs::exists(folder / "component-result.json"), !deleted);
    EXPECT_EQ(fs::exists(folder / "context"), !deleted);
    EXPECT_EQ(fs::exists(folder / "Log"), !deleted);
    if (!deleted) {
        EXPECT_EQ(Parse(ReadText(folder / "component-result.json"))["resultType"].asString(), c.resultType);
    }
    const fs::path meta = folder / "latest" / "plugin-upload-meta.json";
    EXPECT_EQ(fs::exists(meta), c.zipped);
    if (c.zipped) {
        EXPECT_EQ(Parse(ReadText(meta))["deleteFilesOnUpload"].asBool(), deleteWish);
    }
}

std::string OutcomeName(const ::testing::TestParamInfo<PluginOutcomeTest::ParamType>& outcome) {
    return std::string(std::get<0>(outcome.param).name) + (std::get<1>(outcome.param) ? "_DeleteWished" : "_Kept");
}

INSTANTIATE_TEST_SUITE_P(Outcomes, PluginOutcomeTest,
                         ::testing::Combine(::testing::ValuesIn(kOutcomes), ::testing::Bool()), OutcomeName);

TEST_F(PluginRequestTest, The429RetryWaitsOnThePlatformClockNotInRealTime) {
    platform.storage->results = {429, 0};
    const auto realStart = std::chrono::steady_clock::now();

    Request();

    EXPECT_LT(std::chrono::steady_clock::now() - realStart, std::chrono::seconds(kJitterSeconds / 2));
    EXPECT_TRUE(Logged("PluginDiagnosticsProcessor::GeneratePluginDiagnosticsForMqttTarget: plugin upload received "
                       "429. retrying once after 40 seconds."));
    // The line is written after the wait.
    EXPECT_EQ(HistoryLines(ElevatedFolder()), std::vector<std::string>{"2026-11-21T10:16:10Z,Mqtt,0,0,0,\"\""});
}

TEST_F(PluginRequestTest, OfflineLogsTheQueuedUploadWithTheAgentsDash) {
    platform.device->online = false;

    Request();

    EXPECT_TRUE(Logged("PluginDiagnosticsProcessor::GeneratePluginDiagnosticsForMqttTarget: offline "
                       "\xC3\xA2\xE2\x82\xAC\xE2\x80\x9C queuing plugin upload, plugin=com.quorin.pluginx "
                       "elev=:Elevated"));
}

// ---- The plug-in's own documents ----------------------------------------------------

TEST_F(PluginRequestTest, ThePluginsOwnResultIsKeptOnSuccessAndOverwrittenOnTimeOut) {
    pluginResult = R"({"componentId":"vendor-id","friendlyName":"Plugin X","executionTimeSeconds":"1.500",)"
                   R"("resultType":"Complete","isProblematic":true,"executionContext":"user","tests":[{"id":"t1"}],"vendorKey":7})";
    Request();
    EXPECT_EQ(ReadText(ElevatedFolder() / "component-result.json"), pluginResult);
    EXPECT_EQ(zep::testing::ZipRead(ElevatedFolder() / "latest" / kZipName, "component-result.json"),
              std::optional<std::string>(pluginResult));

    platform.extensions->answers[ElevationType::Elevated] = {false, false, true, false};
    Request();

    Json::Value expected = Parse(pluginResult);
    expected["componentId"] = "com.quorin.pluginx";
    expected["resultType"] = "ErrorTimeOut";
    expected["isProblematic"] = false;
    expected["artifactsProvided"] = false;
    expected["executionContext"] = "system";
    EXPECT_EQ(Parse(ReadText(ElevatedFolder() / "component-result.json")), expected);
    EXPECT_EQ(HistoryLines(ElevatedFolder()).size(), 2u);
}

TEST_F(PluginRequestTest, APluginThatWroteNoResultGetsOneAndTheUploadReportsTheZipSize) {
    pluginResult.clear();

    Request();

    const fs::path zip = ElevatedFolder() / "latest" / kZipName;
    const Json::Value packed = Parse(zep::testing::ZipRead(zip, "component-result.json").value_or(""));
    EXPECT_EQ(packed["componentId"].asString(), "com.quorin.pluginx");
    EXPECT_EQ(packed["resultType"].asString(), "Complete");
    EXPECT_TRUE(packed["artifactsProvided"].asBool());
    // Packed before the zip existed: no size. Regenerated and uploaded after: the size.
    const Json::Value packedScan = Parse(zep::testing::ZipRead(zip, "scan-result.json").value_or(""));
    EXPECT_TRUE(packedScan.isObject());
    EXPECT_FALSE(packedScan.isMember("artifactSize"));
    const auto size = fs::file_size(zip);
    EXPECT_EQ(Parse(ReadText(ElevatedFolder() / "latest" / "scan-result.json"))["artifactSize"].asUInt64(), size);
    const auto uploads = platform.storage->Uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(Parse(uploads[0].metadata)["context"]["artifactSize"].asUInt64(), size);
}

// ---- Elevations and targets ----------------------------------------------------------

TEST_F(PluginRequestTest, ElevatedAndUserInstancesHaveFoldersZipsAndUploadsOfTheirOwn) {
    LogInUser();
    pluginResult.clear();
    platform.extensions->plugins[L"pluginx"].elevations = {ElevationType::Elevated, ElevationType::User};
    platform.extensions->answers[ElevationType::User] = {true, true, false, true};  // wants its files gone

    Request();

    const auto commands = platform.extensions->Commands();
    ASSERT_EQ(commands.size(), 2u);
    EXPECT_EQ(commands[0].diagFolder, zep::path::FromFs(ElevatedFolder()));
    EXPECT_EQ(commands[1].diagFolder, zep::path::FromFs(UserFolder()));
    EXPECT_EQ(commands[1].elevation, ElevationType::User);
    const auto uploads = platform.storage->Uploads();
    ASSERT_EQ(uploads.size(), 2u);
    EXPECT_EQ(uploads[0].filePath, (ElevatedFolder() / "latest" / kZipName).string());
    EXPECT_EQ(uploads[1].filePath, (UserFolder() / "latest" / kZipName).string());

    for (const auto& [folder, context] : {std::pair{ElevatedFolder(), "system"}, std::pair{UserFolder(), "user"}}) {
        EXPECT_EQ(Statuses(folder), "0,0") << folder;
        const Json::Value scan = Parse(ReadText(folder / "latest" / "scan-result.json"));
        EXPECT_EQ(scan["components"][0]["executionContext"].asString(), context) << folder;
    }
    EXPECT_TRUE(fs::exists(ElevatedFolder() / "latest" / kZipName));
    EXPECT_FALSE(fs::exists(UserFolder() / "latest" / kZipName));
    EXPECT_FALSE(fs::exists(UserFolder() / "context"));
    EXPECT_TRUE(fs::exists(ElevatedFolder() / "context"));
}

TEST_F(PluginRequestTest, AUserInstanceWithNobodyLoggedInIsSkippedAndTheNextElevationStillRuns) {
    platform.extensions->plugins[L"pluginx"].elevations = {ElevationType::User, ElevationType::Elevated};

    Request();

    EXPECT_TRUE(Logged("PluginDiagnosticsProcessor::GeneratePluginDiagnosticsForMqttTarget: could not resolve "
                       "diagFolder for plugin=com.quorin.pluginx elev=:User"));
    EXPECT_TRUE(Logged("diagFolder empty, skipping plugin scan-history write"));
    const auto commands = platform.extensions->Commands();
    ASSERT_EQ(commands.size(), 1u);
    EXPECT_EQ(commands[0].elevation, ElevationType::Elevated);
    EXPECT_FALSE(fs::exists(platform.rootPath / "users"));
    EXPECT_EQ(Statuses(ElevatedFolder()), "0,0");
}

TEST_F(PluginRequestTest, TargetsThatResolveToNoInstanceAskNobodyAndWriteNothing) {
    platform.extensions->plugins[L"idle"] = {L"com.quorin.idle", {}};

    Request(L"unknown");
    Request(L"idle");
    Request(L"forged\nline");

    EXPECT_TRUE(Logged("PluginDiagnosticsProcessor::GeneratePluginDiagnosticsForMqttTarget: Ignoring target "
                       "'unknown' for getDiagnostics. Plugin not found/invalid on this device or no running "
                       "instance."));
    EXPECT_TRUE(Logged("elevation empty"));
    EXPECT_TRUE(Logged("Ignoring target 'forged\\x0Aline'"));
    EXPECT_TRUE(platform.extensions->Commands().empty());
    EXPECT_FALSE(fs::exists(platform.rootPath / "programdata" / "plugin-data"));
}

TEST_F(PluginRequestTest, AFolderThatCannotBeMadeAsksNobody) {
    WriteText(platform.rootPath / "programdata" / "plugin-data", "a file where the folder belongs");

    Request();

    EXPECT_TRUE(Logged("path : " + ElevatedFolder().string() + ", elevation : 1, folder creation failed"));
    EXPECT_TRUE(platform.extensions->Commands().empty());
    EXPECT_TRUE(platform.storage->Uploads().empty());
}

// ---- Folders ------------------------------------------------------------------------

TEST_F(PluginRequestTest, FoldersFollowTheElevation) {
    const std::wstring agentFolder = zep::path::FromFs(ElevatedFolder());
    EXPECT_EQ(Processor::ResolvePluginDiagFolder(ElevationType::Elevated, kPluginId), agentFolder);
    EXPECT_EQ(Processor::ResolvePluginDiagFolder(ElevationType::None, kPluginId), agentFolder);
    EXPECT_EQ(Processor::ResolvePluginDiagFolder(static_cast<ElevationType>(7), kPluginId), agentFolder);
    EXPECT_EQ(agentFolder.find(L'\\'), std::wstring::npos);

    std::wstring localAppData = L"stale";
    EXPECT_FALSE(Processor::GetLoggedInUserLocalAppData(localAppData));
    EXPECT_EQ(localAppData, L"");
    EXPECT_EQ(Processor::ResolvePluginDiagFolder(ElevationType::User, kPluginId), L"");
    platform.system->loggedInUserSid = L"S-1-5-21-1";  // but no shell folder
    EXPECT_EQ(Processor::ResolvePluginDiagFolder(ElevationType::User, kPluginId), L"");
    LogInUser();
    EXPECT_EQ(Processor::ResolvePluginDiagFolder(ElevationType::User, kPluginId), zep::path::FromFs(UserFolder()));

    // An id is one folder name; anything that could reach elsewhere resolves to nothing.
    for (const wchar_t* id : {L"", L"..", L"a/b", L"a\\b"}) {
        EXPECT_EQ(Processor::ResolvePluginDiagFolder(ElevationType::Elevated, id), L"") << id;
    }
    EXPECT_EQ(Processor::ElevationLabel(static_cast<ElevationType>(7)), L":None");
}

}  // namespace
