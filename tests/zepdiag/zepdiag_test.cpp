#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>
#include <zip.h>

#include "Cli.h"
#include "Summary.h"
#include "Zepdiag.h"
#include "platform/CivilTime.h"
#include "platform/InProcessHub.h"
#include "platform/Strings.h"
#include "platform/posix/DeviceFolderEnv.h"
#include "platform/posix/PosixProcess.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

const char* const kZepTests[] = {"device_registered", "registered_cert_valid", "mqtt_connection", "sync_success",
                                 "xrs_api_cert_pinning"};

std::string Read(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

Json::Value ParseJson(const std::string& text) {
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &errors)) << errors << "\n" << text;
    return root;
}

struct Outcome {
    int code = -1;
    std::string out;
    std::string err;
};

Outcome Zepdiag(std::vector<std::string> args) {
    args.insert(args.begin(), "zepdiag");
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    std::ostringstream out;
    std::ostringstream err;
    const int code = RunZepdiag(static_cast<int>(args.size()), argv.data(), out, err);
    return Outcome{code, out.str(), err.str()};
}

// The value printed after "label:" in a summary, or "" when there is none.
std::string SummaryValue(const std::string& out, const std::string& label) {
    const std::regex line("(^|\\n)" + label + ": +([^\\n]*)");
    std::smatch match;
    return std::regex_search(out, match, line) ? match[2].str() : std::string();
}

// The lines of one component in a summary, from its "Component:" line (which
// reads "<friendly name> (<component id>)") up to the next empty line. `name`
// is either of the two.
std::string ComponentBlock(const std::string& out, const std::string& name) {
    std::size_t begin = 0;
    while ((begin = out.find("Component:", begin)) != std::string::npos) {
        const auto lineEnd = out.find('\n', begin);
        const std::string value = SummaryValue(out.substr(begin, lineEnd - begin), "Component");
        const std::string byId = "(" + name + ")";
        if (value.rfind(name + " (", 0) == 0 ||
            (value.size() > byId.size() && value.compare(value.size() - byId.size(), byId.size(), byId) == 0)) {
            const auto end = out.find("\n\n", begin);
            return out.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
        }
        begin = lineEnd;
    }
    return "";
}

// Table rows of a block that end with the verdict.
int Rows(const std::string& block, const std::string& verdict) {
    int rows = 0;
    std::istringstream lines(block);
    for (std::string line; std::getline(lines, line);) {
        rows += line.size() > verdict.size() && line.compare(line.size() - verdict.size(), verdict.size(), verdict) == 0
                    ? 1
                    : 0;
    }
    return rows;
}

// The value of an indented "  label:" line; the first one after `after`
// when given.
std::string IndentedValue(const std::string& out, const std::string& label, const std::string& after = "") {
    const std::size_t from = after.empty() ? 0 : out.find(after);
    if (from == std::string::npos) return "";
    const std::regex line("\\n  " + label + ": +([^\\n]*)");
    std::smatch match;
    const std::string rest = out.substr(from);
    return std::regex_search(rest, match, line) ? match[1].str() : std::string();
}

std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

bool HasLine(const std::string& out, const std::string& line) {
    return ("\n" + out).find("\n" + line + "\n") != std::string::npos;
}

class ZepdiagTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = ::testing::TempDir() + "zepdiag-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        root = pattern;
        device = root / "device";
    }
    void TearDown() override { fs::remove_all(root); }

    fs::path root;
    fs::path device;  // not created
};

// ---- init and the demo device ---------------------------------------------------

using InitTest = ZepdiagTest;

TEST_F(InitTest, CreatesTheDeviceLayout) {
    const Outcome init = Zepdiag({"init", "--device", device.string()});
    ASSERT_EQ(init.code, 0) << init.err;

    const Json::Value state = ParseJson(Read(device / "device.json"));
    for (const char* key : {"registered", "provisioned", "commercialIntent", "online"}) {
        EXPECT_TRUE(state[key].asBool()) << key;
    }
    EXPECT_EQ(state["serviceVersion"].asString(), "4.12.3.0");
    EXPECT_EQ(state["notificationAgent"]["mqttState"].asInt(), 2);

    EXPECT_EQ(Read(device / "registry.reg").rfind("Windows Registry Editor Version 5.00", 0), 0u);
    EXPECT_EQ(Read(device / "programdata/DB/SyncPoint.sqlite3").substr(0, 16), std::string("SQLite format 3\0", 16));
    EXPECT_EQ(Read(device / "programdata/Log/archive/crash-reports.zip"),
              std::string("PK\x05\x06", 4) + std::string(18, '\0'));
    for (const char* folder : {"programdata/diagnostics", "programdata/plugin-data", "temp"}) {
        EXPECT_TRUE(fs::is_directory(device / folder)) << folder;
        EXPECT_TRUE(fs::is_empty(device / folder)) << folder;
    }
    const Json::Value policy = ParseJson(Read(device / "update-policy.json"));
    EXPECT_EQ(policy["packages"][0]["id"].asString(), "com.quorin.vpnclient");

    struct stat info {};
    ASSERT_EQ(::stat((device / "packages/com.quorin.vpnclient/temp/install.sh").c_str(), &info), 0);
    EXPECT_NE(info.st_mode & S_IXUSR, 0u);
}

// The logs are what later collection and redaction work on: quoted IPv4
// addresses, four-part versions, a nested folder.
TEST_F(InitTest, LogsCarryAddressesAndVersions) {
    ASSERT_EQ(Zepdiag({"init", "--device", device.string()}).code, 0);
    const std::regex quotedAddress(R"re("\d{1,3}(\.\d{1,3}){3}")re");
    const std::regex version(R"(version.*\b\d+\.\d+\.\d+\.\d+\b)", std::regex::icase);
    int files = 0, nested = 0, withAddress = 0, withVersion = 0;
    for (const auto& entry : fs::recursive_directory_iterator(device / "programdata/Log")) {
        if (entry.path().extension() != ".log") continue;
        ++files;
        if (entry.path().parent_path() != device / "programdata/Log") ++nested;
        const std::string text = Read(entry.path());
        withAddress += std::regex_search(text, quotedAddress) ? 1 : 0;
        withVersion += std::regex_search(text, version) ? 1 : 0;
    }
    EXPECT_GE(files, 3);
    EXPECT_GE(nested, 1);
    EXPECT_GE(withAddress, 2);
    EXPECT_GE(withVersion, 2);
}

TEST_F(InitTest, DemoDeviceIsHealthyThroughTheEnv) {
    ASSERT_EQ(Zepdiag({"init", "--device", device.string()}).code, 0);
    const auto env = zep::platform::MakeDeviceFolderEnv(zep::text::DecodeFileName(device.native()),
                                                        std::make_shared<zep::platform::InProcessHub>());
    using zep::platform::Hive;
    DWORD value = 0;
    ASSERT_TRUE(env.registry->GetDword(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP", L"GetDiagnosticsMqttRateLimit",
                                       value));
    EXPECT_EQ(value, 10u);
    ASSERT_TRUE(env.registry->GetDword(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport",
                                       L"TimeoutInSeconds", value));
    EXPECT_EQ(value, 60u);
    ASSERT_TRUE(env.registry->GetDword(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport",
                                       L"certPinningError", value));
    EXPECT_EQ(value, 0u);

    EXPECT_TRUE(env.device->IsRegistered());
    EXPECT_EQ(env.device->LogicalDeviceId(), L"LD-4F2A9C");
    ASSERT_NE(env.agents->GetNotificationAgent(), nullptr);
    EXPECT_EQ(env.agents->GetNotificationAgent()->GetMqttConnectionState(), 2);
    const auto certificate = env.agents->GetCoreAdapter()->GetRegisteredCertificate();
    const auto expiry = zep::civil::ParseIso8601Utc(certificate.notAfter);
    ASSERT_TRUE(expiry.has_value()) << certificate.notAfter;
    EXPECT_GT(*expiry, std::chrono::system_clock::now() + std::chrono::hours(24 * 360));
    EXPECT_TRUE(env.system->AppDataRoot().has_value());
}

TEST_F(InitTest, PackageScriptWritesAComponentResult) {
    ASSERT_EQ(Zepdiag({"init", "--device", device.string()}).code, 0);
    const fs::path script = device / "packages/com.quorin.vpnclient/temp/install.sh";
    const fs::path out = root / "package out";
    const std::string run = "/bin/sh '" + script.string() + "' -command get-diagnostics -outDir '" + out.string() + "'";
    const int status = std::system(run.c_str());
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

    const std::string text = Read(out / "component-result.json");
    EXPECT_THAT(text, HasSubstr("\n\t\"componentId\""));
    const Json::Value result = ParseJson(text);
    EXPECT_EQ(result["componentId"].asString(), "com.quorin.vpnclient");
    EXPECT_EQ(result["resultType"].asString(), "Complete");
    EXPECT_EQ(result["executionTimeSeconds"].asString(), "0.042");
    EXPECT_TRUE(result["isProblematic"].asBool());
    ASSERT_EQ(result["tests"].size(), 2u);
    EXPECT_EQ(result["tests"][0]["result"].asString(), "pass");
    EXPECT_EQ(result["tests"][1]["result"].asString(), "fail");
    for (const auto& test : result["tests"]) {
        for (const char* key : {"id", "friendlyName", "expected", "actual"}) EXPECT_TRUE(test[key].isString()) << key;
    }
    bool logWritten = false;
    for (const auto& entry : fs::directory_iterator(out)) logWritten |= entry.path().extension() == ".log";
    EXPECT_TRUE(logWritten);

    const std::string wrong = "/bin/sh '" + script.string() + "' -command install -outDir '" + out.string() + "'";
    const int refused = std::system((wrong + " 2>/dev/null").c_str());
    EXPECT_TRUE(WIFEXITED(refused) && WEXITSTATUS(refused) != 0);
}

// The demo plug-in through the device folder's extension module, and its
// program answering as the module expects.
TEST_F(InitTest, DemoPluginIsFoundAndAnswersGetDiagnostics) {
    ASSERT_EQ(Zepdiag({"init", "--device", device.string()}).code, 0);
    const auto env = zep::platform::MakeDeviceFolderEnv(zep::text::DecodeFileName(device.native()),
                                                        std::make_shared<zep::platform::InProcessHub>());
    std::wstring id;
    std::vector<zep::platform::ElevationType> elevations;
    ASSERT_TRUE(env.extensions->TryResolveGetDiagnosticsElevations(L"demo-plugin", id, elevations));
    EXPECT_EQ(id, L"com.quorin.demoplugin");
    EXPECT_THAT(elevations, ::testing::ElementsAre(zep::platform::Elevated));

    const fs::path out = root / "plugin out";
    zep::platform::ProcessRequest request;
    request.argv = {zep::text::DecodeFileName((device / "plugins/demo-plugin/run.sh").native()), L"get-diagnostics",
                    zep::text::DecodeFileName(out.native()), L"elevated"};
    request.captureOutput = true;
    const zep::platform::ProcessResult run = zep::platform::PosixProcess().Spawn(request);
    ASSERT_EQ(run.exitCode, 0);
    EXPECT_EQ(ParseJson(run.output), ParseJson(R"({"deleteFilesOnUpload": false})")) << run.output;
    const std::string text = Read(out / "component-result.json");
    EXPECT_THAT(text, HasSubstr("\n\t\"componentId\""));
    EXPECT_EQ(ParseJson(text)["componentId"].asString(), "com.quorin.demoplugin");
    EXPECT_THAT(Read(out / "Log/demo-plugin.log"), HasSubstr("elevated"));

    request.argv[1] = L"install";
    EXPECT_NE(zep::platform::PosixProcess().Spawn(request).exitCode, 0);
}

TEST_F(InitTest, ExistingFoldersAreNotOverwritten) {
    ASSERT_EQ(Zepdiag({"init", "--device", device.string()}).code, 0);
    std::ofstream(device / "device.json") << R"({"registered": false})";
    const Outcome again = Zepdiag({"init", "--device", device.string()});
    EXPECT_EQ(again.code, 0);
    EXPECT_THAT(again.out, HasSubstr("already"));
    EXPECT_EQ(Read(device / "device.json"), R"({"registered": false})");

    const fs::path foreign = root / "foreign";
    fs::create_directory(foreign);
    std::ofstream(foreign / "notes.txt") << "mine";
    const Outcome refused = Zepdiag({"init", "--device", foreign.string()});
    EXPECT_EQ(refused.code, 2);
    EXPECT_THAT(refused.err, HasSubstr(foreign.string()));
    EXPECT_FALSE(fs::exists(foreign / "device.json"));
}

// ---- scans ------------------------------------------------------------------------

using ScanTest = ZepdiagTest;

TEST_F(ScanTest, FreshFolderBecomesADeviceAndIsScanned) {
    const Outcome scan = Zepdiag({"scan", "--device", device.string()});
    ASSERT_EQ(scan.code, 0) << scan.err;
    EXPECT_EQ(SummaryValue(scan.out, "Trigger"), "Manual");
    EXPECT_THAT(scan.out, Not(HasSubstr("not produced")));

    const std::string zep = ComponentBlock(scan.out, "ZEP");
    for (const char* test : kZepTests) EXPECT_THAT(zep, HasSubstr(test));
    EXPECT_EQ(Rows(zep, "PASS"), 5) << zep;
    const std::string vpn = ComponentBlock(scan.out, "com.quorin.vpnclient");
    EXPECT_EQ(Rows(vpn, "PASS"), 1) << vpn;
    EXPECT_EQ(Rows(vpn, "FAIL"), 1) << vpn;
    EXPECT_GE(std::atoi(SummaryValue(scan.out, "Failed tests").c_str()), 1) << scan.out;
    EXPECT_TRUE(std::regex_match(SummaryValue(scan.out, "Problem signature"), std::regex("[0-9a-fA-F]{64}")))
        << scan.out;

    // What is printed is the scan result on disk and the zip next to it.
    const fs::path latest = device / "programdata/diagnostics/latest";
    const Json::Value result = ParseJson(Read(latest / "scan-result.json"));
    const std::string id = result["id"].asString();
    EXPECT_EQ(SummaryValue(scan.out, "Scan id"), id);
    EXPECT_EQ(SummaryValue(scan.out, "Result file"), (latest / "scan-result.json").string());
    const fs::path zip = SummaryValue(scan.out, "Zip");
    EXPECT_EQ(zip.parent_path(), latest);
    EXPECT_EQ(zip.filename().string(), "LD-4F2A9C_" + id + ".zip");
    EXPECT_TRUE(fs::is_regular_file(zip));
    EXPECT_THAT(SummaryValue(scan.out, "Zip size"), HasSubstr(std::to_string(fs::file_size(zip)) + " bytes"));
    for (const char* entry : {"scan-result.json", "ZEP/component-result.json", "ZEP/context/zep.reg",
                              "com.quorin.vpnclient/component-result.json"}) {
        EXPECT_TRUE(HasLine(scan.out, std::string("  ") + entry)) << entry;
    }
    EXPECT_THAT(scan.out, HasSubstr("\n  ZEP/Log/"));
    EXPECT_GT(fs::file_size(device / "programdata/Log/ZEPDiagnostics.log"), 0u);
}

TEST_F(ScanTest, EachScanReportsItsOwnResult) {
    const Outcome first = Zepdiag({"scan", "--device", device.string()});
    ASSERT_EQ(first.code, 0) << first.err;
    const std::string firstId = SummaryValue(first.out, "Scan id");
    ASSERT_FALSE(firstId.empty()) << first.out;

    // An unregistered device skips the dependent tests and fails one.
    std::ofstream(device / "device.json") << R"({"registered": false})";
    const Outcome scheduled = Zepdiag({"scan", "--device", device.string(), "--scheduled"});
    ASSERT_EQ(scheduled.code, 0) << scheduled.err;
    EXPECT_EQ(SummaryValue(scheduled.out, "Trigger"), "Scheduled");
    const std::string secondId = SummaryValue(scheduled.out, "Scan id");
    EXPECT_FALSE(secondId.empty());
    EXPECT_NE(secondId, firstId);
    const std::string zep = ComponentBlock(scheduled.out, "ZEP");
    EXPECT_EQ(Rows(zep, "FAIL"), 1) << zep;
    EXPECT_THAT(zep, HasSubstr("1 of 2 failed"));
}

// The rate limit holds for the whole process, so both requests are here.
TEST_F(ScanTest, NotificationRequestNamesTheScanAndALimitedOneReportsNone) {
    const std::string payload = R"({"zep-message":{"action":{"cmd_param":{"requestId":"R1","target":["zep"]}}}})";
    const Outcome notify = Zepdiag({"notify", "--device", device.string(), "--payload", payload});
    ASSERT_EQ(notify.code, 0) << notify.err;
    EXPECT_EQ(SummaryValue(notify.out, "Trigger"), "Mqtt");
    EXPECT_EQ(SummaryValue(notify.out, "Scan id"), "r1");
    EXPECT_THAT(SummaryValue(notify.out, "Zip"), HasSubstr("_r1.zip"));
    for (const char* test : kZepTests) EXPECT_THAT(notify.out, HasSubstr(test));
    const fs::path resultFile = device / "programdata/diagnostics/latest/scan-result.json";
    EXPECT_EQ(ParseJson(Read(resultFile))["id"].asString(), "r1");

    // The earlier result is still there, but it is not this run's.
    const Outcome limited = Zepdiag({"notify", "--device", device.string(), "--payload", payload});
    ASSERT_EQ(limited.code, 0) << limited.err;
    EXPECT_EQ(SummaryValue(limited.out, "Trigger"), "Mqtt");
    for (const char* label : {"Scan result", "Zip", "Result file"}) {
        EXPECT_EQ(SummaryValue(limited.out, label), "not produced") << label;
    }
    EXPECT_EQ(SummaryValue(limited.out, "Scan id"), "");
    EXPECT_THAT(limited.out, HasSubstr("rate limit"));
    EXPECT_EQ(ParseJson(Read(resultFile))["id"].asString(), "r1");
}

TEST_F(ScanTest, OnlineNotificationIsDelivered) {
    const Outcome online = Zepdiag({"online", "--device", device.string()});
    EXPECT_EQ(online.code, 0) << online.err;
    EXPECT_THAT(online.out, HasSubstr("online notification was delivered"));
}

// ---- uploads, history and events ------------------------------------------------------

class UploadTest : public ZepdiagTest {
protected:
    void SetUp() override {
        ZepdiagTest::SetUp();
        ASSERT_EQ(Zepdiag({"init", "--device", device.string()}).code, 0);
    }

    // device.json rewritten, as a script changes the device's state.
    void SetOnline(bool online) {
        Json::Value state = ParseJson(Read(device / "device.json"));
        state["online"] = online;
        std::ofstream(device / "device.json", std::ios::trunc) << Json::writeString(Json::StreamWriterBuilder(), state);
    }

    std::vector<std::string> History() { return LinesOf(Read(zepdiag::ScanHistoryPath(device))); }
    static std::string StatusOf(const std::string& line) { return zepdiag::HistoryFields(line).at(2); }
    fs::path Outbox(const std::string& entry) { return device / "outbox" / entry; }
};

TEST_F(UploadTest, ScanUploadsItsZipWithMetadataAndRecordsIt) {
    const Outcome scan = Zepdiag({"scan", "--device", device.string()});
    ASSERT_EQ(scan.code, 0) << scan.err;
    const fs::path zip = SummaryValue(scan.out, "Zip");
    const std::string name = zip.filename().string();
    ASSERT_TRUE(fs::is_regular_file(Outbox("0001") / name)) << scan.out;
    EXPECT_EQ(Read(Outbox("0001") / name), Read(zip));

    const Json::Value metadata = ParseJson(Read(Outbox("0001") / (name + ".metadata.json")));
    EXPECT_EQ(metadata["name"].asString(), name);
    EXPECT_EQ(metadata["sizeInBytes"].asUInt64(), fs::file_size(zip));
    EXPECT_TRUE(std::regex_match(metadata["hash"].asString(), std::regex("[0-9a-f]{64}"))) << metadata["hash"];
    EXPECT_EQ(metadata["context"]["id"].asString(), SummaryValue(scan.out, "Scan id"));

    const std::vector<std::string> history = History();
    ASSERT_EQ(history.size(), 1u);
    EXPECT_EQ(StatusOf(history[0]), "0");
    const std::vector<std::string> events = LinesOf(Read(device / "events.log"));
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(ParseJson(events[0])["eventId"].asInt(), 1018);

    EXPECT_THAT(SummaryValue(scan.out, "Upload"), ::testing::StartsWith("the scan's zip, " + name + " ("));
    EXPECT_EQ(IndentedValue(scan.out, "Outbox folder"), Outbox("0001").string());
    EXPECT_EQ(SummaryValue(scan.out, "History line"), history[0]);
    EXPECT_EQ(IndentedValue(scan.out, "Upload status"), "0 uploaded");
    EXPECT_THAT(SummaryValue(scan.out, "Event"), ::testing::StartsWith("1018 at "));
}

// The same problems again, scheduled: the cloud has their zip already.
TEST_F(UploadTest, ScheduledScanOfKnownProblemsUploadsOnlyTheScanResult) {
    ASSERT_EQ(Zepdiag({"scan", "--device", device.string()}).code, 0);
    const Outcome scheduled = Zepdiag({"scan", "--device", device.string(), "--scheduled"});
    ASSERT_EQ(scheduled.code, 0) << scheduled.err;
    EXPECT_EQ(Read(Outbox("0002/scan-result.json")), Read(zepdiag::ScanResultPath(device))) << scheduled.out;
    EXPECT_THAT(SummaryValue(scheduled.out, "Upload"), ::testing::StartsWith("the scan result only, "));
    ASSERT_EQ(History().size(), 2u);
    EXPECT_EQ(StatusOf(History()[1]), "0");
}

TEST_F(UploadTest, OfflineScanIsUploadedWhenTheDeviceComesOnline) {
    SetOnline(false);
    const Outcome scan = Zepdiag({"scan", "--device", device.string()});
    ASSERT_EQ(scan.code, 0) << scan.err;
    EXPECT_EQ(SummaryValue(scan.out, "Upload"), "nothing uploaded");
    EXPECT_FALSE(fs::exists(Outbox("0001")));
    ASSERT_EQ(History().size(), 1u);
    EXPECT_EQ(StatusOf(History()[0]), "2");

    SetOnline(true);
    const Outcome online = Zepdiag({"online", "--device", device.string()});
    ASSERT_EQ(online.code, 0) << online.err;
    const fs::path zip = SummaryValue(scan.out, "Zip");
    EXPECT_EQ(Read(Outbox("0001") / zip.filename()), Read(zip)) << online.out;
    // The deferred scan's line is rewritten, not a new one added.
    ASSERT_EQ(History().size(), 1u);
    EXPECT_EQ(StatusOf(History()[0]), "0");
    EXPECT_EQ(IndentedValue(online.out, "Upload status", "History before:"), "2 offline, upload deferred");
    EXPECT_EQ(IndentedValue(online.out, "Upload status", "History after:"), "0 uploaded");

    const Outcome again = Zepdiag({"online", "--device", device.string()});
    EXPECT_EQ(SummaryValue(again.out, "Upload"), "nothing uploaded");
}

TEST_F(UploadTest, ServiceRefusalIsRecordedAsNotUploaded) {
    std::ofstream(device / "upload-results") << "429\n";
    const Outcome scan = Zepdiag({"scan", "--device", device.string()});
    ASSERT_EQ(scan.code, 0) << scan.err;
    EXPECT_FALSE(fs::exists(Outbox("0001")));
    EXPECT_THAT(LinesOf(Read(Outbox("failed.log"))), ::testing::ElementsAre(::testing::EndsWith(".zip,429")));
    ASSERT_EQ(History().size(), 1u);
    EXPECT_EQ(StatusOf(History()[0]), "1");
    EXPECT_THAT(SummaryValue(scan.out, "Upload"), ::testing::StartsWith("failed with 429, LD-4F2A9C_"));
}

TEST_F(UploadTest, HistoryListsTheScansNewestLast) {
    EXPECT_THAT(Zepdiag({"history", "--device", device.string()}).out, HasSubstr("no history yet"));
    ASSERT_EQ(Zepdiag({"scan", "--device", device.string()}).code, 0);
    SetOnline(false);
    ASSERT_EQ(Zepdiag({"scan", "--device", device.string(), "--scheduled"}).code, 0);

    const Outcome history = Zepdiag({"history", "--device", device.string()});
    ASSERT_EQ(history.code, 0) << history.err;
    const std::vector<std::string> lines = LinesOf(history.out);
    ASSERT_GE(lines.size(), 3u) << history.out;
    const std::string signature = "[0-9a-f]{16}\xe2\x80\xa6$";  // shortened with an ellipsis
    EXPECT_THAT(lines[lines.size() - 2], ::testing::ContainsRegex("  Manual +0 uploaded +0 +1 +" + signature));
    EXPECT_THAT(lines.back(), ::testing::ContainsRegex("  Scheduled +2 offline, upload deferred +1 +1 +" + signature));
}

// ---- plug-ins ---------------------------------------------------------------------

const std::string kPluginPayload =
    R"({"zep-message":{"action":{"cmd_param":{"requestId":"r1","target":["zep","demo-plugin"]}}}})";
const std::string kPluginZip = "7C3E9A12-5B4D-4E8F-9A61-2D0B7F3C8E45_com.quorin.demoplugin.zip";

class PluginTest : public UploadTest {
protected:
    // The module takes one request per rate-limit interval for the life of
    // the process, so each of these tests runs in a process of its own: the
    // "threadsafe" death-test style starts this binary afresh for it. The
    // child's failures are handed back on its standard error.
    template <typename Body>
    void InOwnProcess(Body body) {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        EXPECT_EXIT(
            {
                body();
                const ::testing::TestResult* result = ::testing::UnitTest::GetInstance()->current_test_info()->result();
                for (int i = 0; i < result->total_part_count(); ++i) {
                    const auto& part = result->GetTestPartResult(i);
                    if (part.failed()) {
                        std::fprintf(stderr, "%s:%d: %s\n", part.file_name() ? part.file_name() : "?",
                                     part.line_number(), part.message());
                    }
                }
                fs::remove_all(root);
                std::fflush(nullptr);
                std::_Exit(HasFailure() ? 1 : 0);
            },
            ::testing::ExitedWithCode(0), "");
    }

    fs::path Diagnostics() { return device / "programdata/plugin-data/com.quorin.demoplugin/diagnostics"; }
    std::vector<std::string> PluginHistory() { return LinesOf(Read(Diagnostics() / "scan-history.log")); }

    // The outbox folder holding `file`, or "" when none does.
    fs::path OutboxHolding(const std::string& file) {
        std::error_code code;
        for (const auto& entry : fs::directory_iterator(device / "outbox", code)) {
            if (fs::is_regular_file(entry.path() / file)) return entry.path();
        }
        return {};
    }
};

TEST_F(PluginTest, NotifyRunsThePluginAndUploadsItsZip) {
    InOwnProcess([&] {
        const Outcome notify = Zepdiag({"notify", "--device", device.string(), "--payload", kPluginPayload});
        ASSERT_EQ(notify.code, 0) << notify.err;
        EXPECT_TRUE(fs::is_regular_file(Diagnostics() / "component-result.json"));
        const Json::Value result = ParseJson(Read(Diagnostics() / "latest/scan-result.json"));
        EXPECT_EQ(result["id"].asString(), "r1");
        EXPECT_EQ(result["components"][0]["componentId"].asString(), "com.quorin.demoplugin");
        const fs::path zip = Diagnostics() / "latest" / kPluginZip;
        EXPECT_THAT(zepdiag::ReadZipListing(zip).entries,
                    ::testing::IsSupersetOf({"component-result.json", "Log/demo-plugin.log", "scan-result.json"}));
        const std::vector<std::string> history = PluginHistory();
        ASSERT_EQ(history.size(), 1u);
        EXPECT_EQ(StatusOf(history[0]), "0");

        // An outbox folder of its own, beside the agent's.
        const fs::path uploaded = OutboxHolding(kPluginZip);
        ASSERT_FALSE(uploaded.empty()) << notify.out;
        EXPECT_NE(uploaded, OutboxHolding("LD-4F2A9C_r1.zip"));
        EXPECT_EQ(Read(uploaded / kPluginZip), Read(zip));
        const Json::Value metadata = ParseJson(Read(uploaded / (kPluginZip + ".metadata.json")));
        EXPECT_EQ(metadata["name"].asString(), kPluginZip);
        EXPECT_EQ(metadata["context"]["id"].asString(), "r1");

        // The agent's part reports its own upload only; the plug-in's follows.
        EXPECT_THAT(SummaryValue(notify.out, "Upload"), ::testing::StartsWith("the scan's zip, LD-4F2A9C_r1.zip"));
        const std::size_t plugin = notify.out.find("\nPlug-in:           demo-plugin (com.quorin.demoplugin)\n");
        ASSERT_NE(plugin, std::string::npos) << notify.out;
        const std::string section = notify.out.substr(plugin);
        EXPECT_EQ(SummaryValue(section, "Folder"), Diagnostics().string());
        const std::string block = ComponentBlock(section, "com.quorin.demoplugin");
        EXPECT_EQ(Rows(block, "PASS"), 1) << block;
        EXPECT_EQ(Rows(block, "FAIL"), 1) << block;
        EXPECT_EQ(SummaryValue(section, "Zip"), zip.string());
        EXPECT_EQ(SummaryValue(section, "History line"), history[0]);
        EXPECT_EQ(IndentedValue(section, "Upload status"), "0 uploaded");
        EXPECT_EQ(IndentedValue(section, "Outbox folder"), uploaded.string());
    });
}

TEST_F(PluginTest, OfflinePluginZipWaitsForTheOnlineNotification) {
    InOwnProcess([&] {
        SetOnline(false);
        const Outcome notify = Zepdiag({"notify", "--device", device.string(), "--payload", kPluginPayload});
        ASSERT_EQ(notify.code, 0) << notify.err;
        EXPECT_TRUE(fs::is_regular_file(Diagnostics() / "latest" / kPluginZip));
        ASSERT_EQ(PluginHistory().size(), 1u);
        EXPECT_EQ(StatusOf(PluginHistory()[0]), "2");
        EXPECT_TRUE(OutboxHolding(kPluginZip).empty());

        SetOnline(true);
        const Outcome online = Zepdiag({"online", "--device", device.string()});
        ASSERT_EQ(online.code, 0) << online.err;
        const fs::path uploaded = OutboxHolding(kPluginZip);
        ASSERT_FALSE(uploaded.empty()) << online.out;
        EXPECT_EQ(Read(uploaded / kPluginZip), Read(Diagnostics() / "latest" / kPluginZip));
        EXPECT_TRUE(fs::is_regular_file(uploaded / (kPluginZip + ".metadata.json")));
        // The waiting line is rewritten, not a new one added.
        ASSERT_EQ(PluginHistory().size(), 1u);
        EXPECT_EQ(StatusOf(PluginHistory()[0]), "0");

        EXPECT_THAT(online.out, HasSubstr("\nUpload:            the zip of plug-in com.quorin.demoplugin, "));
        const std::size_t folder = online.out.find("\nPlug-in folder:    " + Diagnostics().string() + "\n");
        ASSERT_NE(folder, std::string::npos) << online.out;
        const std::string change = online.out.substr(folder);
        EXPECT_EQ(IndentedValue(change, "Upload status", "History before:"), "2 offline, upload deferred");
        EXPECT_EQ(IndentedValue(change, "Upload status", "History after:"), "0 uploaded");
    });
}

// Only what a run added counts: new outbox folders in number order (past
// 9999 too), appended lines, and a history line only when the file changed.
TEST_F(ZepdiagTest, ActivityIsWhatTheRunAdded) {
    fs::create_directories(root / "outbox/0001");
    fs::create_directories(root / "programdata/diagnostics");
    std::ofstream(zepdiag::ScanHistoryPath(root)) << "t,Manual,0,0,0,\n";
    std::ofstream(root / "events.log") << "old\n";
    const zepdiag::ActivitySnapshot before = zepdiag::SnapshotActivity(root);

    for (const char* folder : {"10000", "9999"}) fs::create_directories(root / "outbox" / folder);
    std::ofstream(root / "outbox/9999/a.zip") << "zip";
    std::ofstream(root / "events.log", std::ios::app) << "new\n";
    const zepdiag::RunActivity activity = zepdiag::ActivitySince(root, before);

    ASSERT_EQ(activity.uploads.size(), 2u);
    EXPECT_EQ(activity.uploads[0].file, "a.zip");
    EXPECT_EQ(activity.uploads[1].folder, root / "outbox/10000");
    EXPECT_THAT(activity.events, ::testing::ElementsAre("new"));
    EXPECT_FALSE(activity.historyLine);
}

// ---- the summary's parts -----------------------------------------------------------

Json::Value HandWrittenScanResult() {
    return ParseJson(R"({
        "trigger": "Mqtt", "id": "req-7", "deviceId": "LD-1", "executionTimeSeconds": "2.500",
        "deviceTimeCompletedAt": "2024-05-01T10:00:00Z", "isProblematic": true, "failTestCount": 1,
        "problemSignature": "",
        "components": [
          {"componentId": "ZEP", "friendlyName": "ZEP", "executionTimeSeconds": "0.120", "resultType": "Complete",
           "tests": [
             {"id": "a", "friendlyName": "device_registered", "expected": "registered", "actual": "registered",
              "result": "pass"},
             {"id": "b", "friendlyName": "mqtt", "expected": "2", "actual": "0", "result": "fail"}]},
          {"componentId": "com.x", "friendlyName": "X client", "executionTimeSeconds": "0.042",
           "resultType": "ErrorTimeOut", "tests": []},
          {"componentId": "com.y", "friendlyName": "Y"}
        ]})");
}

TEST(SummaryFormatTest, ScanResultReadsInOrderWithEveryComponent) {
    const std::string text = zepdiag::FormatScanResult(HandWrittenScanResult());
    std::size_t at = 0;
    for (const char* line : {"Trigger:           Mqtt\n", "Scan id:           req-7\n", "Device id:         LD-1\n",
                             "Completed at:      2024-05-01T10:00:00Z\n", "Execution time:    2.500 s\n",
                             "Failed tests:      1\n", "Problem signature: none\n",
                             "\nComponent:         ZEP (ZEP)\n", "  Result type:     Complete\n",
                             "  Execution time:  0.120 s\n", "  Tests:           1 of 2 failed\n",
                             "\nComponent:         X client (com.x)\n", "  Result type:     ErrorTimeOut\n",
                             "  Tests:           none (this component has no tests)\n",
                             "\nComponent:         Y (com.y)\n", "  Result type:     not produced\n",
                             "  Execution time:  not produced\n", "  Tests:           not produced\n"}) {
        const auto found = text.find(line, at);
        ASSERT_NE(found, std::string::npos) << "missing or out of order: " << line << text;
        at = found;
    }

    Json::Value withSignature = HandWrittenScanResult();
    const std::string signature(64, 'a');
    withSignature["problemSignature"] = signature;
    EXPECT_THAT(zepdiag::FormatScanResult(withSignature), HasSubstr("Problem signature: " + signature + "\n"));
    withSignature.removeMember("components");
    EXPECT_THAT(zepdiag::FormatScanResult(withSignature), HasSubstr("Components:        not produced\n"));
    EXPECT_THAT(zepdiag::FormatScanResult(Json::Value("junk")), HasSubstr("Scan id:           not produced\n"));
}

// The verdict is the one in the result (a package decides its own), and the
// columns line up whatever the widths.
TEST(SummaryFormatTest, TestTableShowsTheRecordedVerdictInColumns) {
    const Json::Value component = ParseJson(R"({"tests": [
        {"friendlyName": "service_state", "expected": "Running", "actual": "running", "result": "pass"},
        {"friendlyName": "v", "expected": "1", "actual": "1", "result": "fail"},
        {"friendlyName": "odd", "expected": "x", "actual": "y", "result": "skipped"},
        "not a test"]})");
    const std::string table = zepdiag::FormatTestTable(component);
    EXPECT_THAT(table, HasSubstr("  Tests:           1 of 3 failed\n"));

    std::vector<std::string> lines;
    std::istringstream in(table);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    ASSERT_EQ(lines.size(), 5u) << table;
    const std::string& header = lines[1];
    EXPECT_EQ(header.find("TEST"), 4u);
    const struct {
        std::string expected, actual, verdict;
    } rows[] = {{"Running", "running", "PASS"}, {"1", "1", "FAIL"}, {"x", "y", "skipped"}};
    for (std::size_t i = 0; i < 3; ++i) {
        const std::string& line = lines[i + 2];
        SCOPED_TRACE(line);
        EXPECT_EQ(line.substr(header.find("EXPECTED"), rows[i].expected.size() + 1), rows[i].expected + " ");
        EXPECT_EQ(line.substr(header.find("ACTUAL"), rows[i].actual.size() + 1), rows[i].actual + " ");
        EXPECT_EQ(line.substr(header.find("RESULT")), rows[i].verdict);
    }
}

TEST(SummaryFormatTest, ZipListingNamesAtMostSixtyEntries) {
    zepdiag::ZipListing zip;
    zip.path = "/d/LD-1_req-7.zip";
    zip.size = 2048;
    for (int i = 0; i < 60; ++i) zip.entries.push_back("e" + std::to_string(i));
    std::string text = zepdiag::FormatZipListing(zip);
    EXPECT_THAT(text, HasSubstr("Zip:               /d/LD-1_req-7.zip\n"));
    EXPECT_THAT(text, HasSubstr("Zip size:          2048 bytes (2.0 KiB)\n"));
    EXPECT_THAT(text, HasSubstr("Zip entries:       60\n"));
    EXPECT_TRUE(HasLine(text, "  e59"));
    EXPECT_THAT(text, Not(HasSubstr("more")));

    zip.entries.push_back("e60");
    zip.entries.push_back("e61");
    text = zepdiag::FormatZipListing(zip);
    EXPECT_THAT(text, HasSubstr("Zip entries:       62\n"));
    EXPECT_TRUE(HasLine(text, "  e59"));
    EXPECT_FALSE(HasLine(text, "  e60"));
    EXPECT_THAT(text, ::testing::EndsWith("\n  e59\n  ... 2 more\n"));

    zip.error = "Not a zip archive";
    EXPECT_THAT(zepdiag::FormatZipListing(zip), HasSubstr("Zip entries:       unreadable (Not a zip archive)\n"));
}

TEST(SummaryFormatTest, HumanSizesStayBelowTheNextUnit) {
    EXPECT_EQ(zepdiag::HumanSize(0), "0 B");
    EXPECT_EQ(zepdiag::HumanSize(1023), "1023 B");
    EXPECT_EQ(zepdiag::HumanSize(1024), "1.0 KiB");
    EXPECT_EQ(zepdiag::HumanSize(1536), "1.5 KiB");
    EXPECT_EQ(zepdiag::HumanSize(1024 * 1024 - 1), "1.0 MiB");
    EXPECT_EQ(zepdiag::HumanSize((std::uintmax_t{5} << 30) + 1), "5.0 GiB");
}

// Writes a zip holding `names` (empty files) with libzip itself.
void WriteZip(const fs::path& path, const std::vector<std::string>& names) {
    int error = 0;
    zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    ASSERT_NE(archive, nullptr) << error;
    for (const auto& name : names) {
        zip_source_t* source = zip_source_buffer(archive, "", 0, 0);
        ASSERT_GE(zip_file_add(archive, name.c_str(), source, ZIP_FL_ENC_UTF_8), 0) << zip_strerror(archive);
    }
    ASSERT_EQ(zip_close(archive), 0);
}

using SummaryFilesTest = ZepdiagTest;

TEST_F(SummaryFilesTest, ZipOfTheScanIsFoundAndListed) {
    const fs::path latest = root / "programdata/diagnostics/latest";
    fs::create_directories(latest);
    WriteZip(latest / "LD-1_req-7.zip", {"scan-result.json", "ZEP/component-result.json"});
    WriteZip(latest / "LD-1_req-70.zip", {"other"});
    std::ofstream(latest / "notes_req-7.zip.txt") << "x";

    const auto found = zepdiag::FindScanZip(root, "req-7");
    ASSERT_TRUE(found);
    EXPECT_EQ(*found, latest / "LD-1_req-7.zip");
    EXPECT_FALSE(zepdiag::FindScanZip(root, "req"));
    EXPECT_FALSE(zepdiag::FindScanZip(root, ""));
    EXPECT_FALSE(zepdiag::FindScanZip(root / "nowhere", "req-7"));

    const zepdiag::ZipListing listing = zepdiag::ReadZipListing(*found);
    EXPECT_EQ(listing.error, "");
    EXPECT_EQ(listing.size, fs::file_size(*found));
    EXPECT_THAT(listing.entries, ::testing::ElementsAre("scan-result.json", "ZEP/component-result.json"));

    std::ofstream(latest / "broken.zip") << "not a zip at all";
    const zepdiag::ZipListing broken = zepdiag::ReadZipListing(latest / "broken.zip");
    EXPECT_NE(broken.error, "");
    EXPECT_TRUE(broken.entries.empty());
}

// A run reports the scan result only when it rewrote it: not when it left an
// older one alone, even though that one is newer than anything else.
TEST_F(SummaryFilesTest, OnlyARewrittenScanResultIsThisRuns) {
    const fs::path file = zepdiag::ScanResultPath(root);
    EXPECT_FALSE(zepdiag::ScanResultWrittenSince(root, zepdiag::SnapshotScanResult(root)));

    const zepdiag::ResultSnapshot none = zepdiag::SnapshotScanResult(root);
    fs::create_directories(file.parent_path());
    std::ofstream(file) << R"({"id": "a"})";
    EXPECT_EQ(zepdiag::ScanResultWrittenSince(root, none), file);

    const zepdiag::ResultSnapshot first = zepdiag::SnapshotScanResult(root);
    EXPECT_FALSE(zepdiag::ScanResultWrittenSince(root, first));

    // Rewritten within the clock's granularity: the content tells.
    const auto stamp = fs::last_write_time(file);
    std::ofstream(file) << R"({"id": "b"})";
    fs::last_write_time(file, stamp);
    EXPECT_EQ(zepdiag::ScanResultWrittenSince(root, first), file);

    // Rewritten with the same content later: the time tells.
    const zepdiag::ResultSnapshot second = zepdiag::SnapshotScanResult(root);
    fs::last_write_time(file, stamp + std::chrono::seconds(5));
    EXPECT_EQ(zepdiag::ScanResultWrittenSince(root, second), file);

    fs::remove(file);
    EXPECT_FALSE(zepdiag::ScanResultWrittenSince(root, second));
}

// The module hands every target but "zep" to the plug-ins, lower-cased.
TEST(PluginSummaryTest, PluginTargetsAreTheRequestsOtherTargets) {
    const auto payload = [](const std::string& targets) {
        return R"({"zep-message":{"action":{"cmd_param":{"target":)" + targets + "}}}}";
    };
    const std::string mixed = payload(R"(["ZEP", "Demo-Plugin", "demo-plugin", 7, "com.x"])");
    EXPECT_THAT(zepdiag::PluginTargets(mixed), ::testing::ElementsAre("com.x", "demo-plugin"));
    EXPECT_TRUE(zepdiag::NamesAgent(mixed));
    EXPECT_FALSE(zepdiag::NamesAgent(payload(R"(["demo-plugin"])")));
    // Without a target list the agent scans itself and asks no plug-in.
    for (const std::string& defaulted : {std::string("not json"), payload(R"("demo-plugin")")}) {
        EXPECT_TRUE(zepdiag::PluginTargets(defaulted).empty()) << defaulted;
        EXPECT_TRUE(zepdiag::NamesAgent(defaulted)) << defaulted;
    }
}

using PluginSummaryFilesTest = ZepdiagTest;

// An upload is a plug-in's when its metadata describes that one component
// and the file carries its id; the agent's uploads stay with the agent.
TEST_F(PluginSummaryFilesTest, PluginUploadsAreToldApartFromTheAgents) {
    const auto upload = [&](const std::string& folder, const std::string& file, const std::string& components) {
        fs::create_directories(root / "outbox" / folder);
        std::ofstream(root / "outbox" / folder / file) << "zip";
        std::ofstream(root / "outbox" / folder / (file + ".metadata.json"))
            << R"({"context": {"components": )" + components + "}}";
    };
    const zepdiag::ActivitySnapshot before = zepdiag::SnapshotActivity(root);
    upload("0001", "LD-1_r1.zip", R"([{"componentId": "ZEP"}, {"componentId": "com.p"}])");
    upload("0002", "D-1_com.p.zip", R"([{"componentId": "com.p"}])");
    upload("0003", "D-1_com.q.zip", R"([{"componentId": "com.p"}])");
    std::ofstream(root / "outbox/failed.log") << "t,D-1_com.p.zip,429\nt,LD-1_r2.zip,500\n";

    zepdiag::RunActivity agent = zepdiag::ActivitySince(root, before);
    const zepdiag::RunActivity plugin = zepdiag::TakePluginActivity(agent, "com.p");
    ASSERT_EQ(plugin.uploads.size(), 1u);
    EXPECT_EQ(plugin.uploads[0].file, "D-1_com.p.zip");
    EXPECT_THAT(plugin.failedUploads, ::testing::ElementsAre("t,D-1_com.p.zip,429"));
    ASSERT_EQ(agent.uploads.size(), 2u);
    EXPECT_EQ(agent.uploads[1].file, "D-1_com.q.zip");
    EXPECT_THAT(agent.failedUploads, ::testing::ElementsAre("t,LD-1_r2.zip,500"));
    EXPECT_THAT(zepdiag::FormatUploads(root, plugin), HasSubstr("Upload:            the zip of plug-in com.p, "));
}

// What lies in a plug-in folder from an earlier request is not this run's:
// only a history line written during the run makes the rest worth showing.
TEST_F(PluginSummaryFilesTest, InstanceShowsItsFilesOnlyWhenThisRunWroteItsHistory) {
    const fs::path folder = root / "diagnostics";
    fs::create_directories(folder / "latest");
    std::ofstream(folder / "latest/scan-result.json") << R"({"id": "old", "isProblematic": false})";
    WriteZip(folder / "latest/D-1_com.p.zip", {"component-result.json"});
    std::ofstream(zepdiag::PluginHistoryPath(folder)) << "t0,Mqtt,0,0,0,\"\"\n";
    const zepdiag::PluginInstance instance{"elevated", folder,
                                           zepdiag::SnapshotFile(zepdiag::PluginHistoryPath(folder))};

    std::string text = zepdiag::FormatPluginInstance(instance, "com.p");
    EXPECT_THAT(text, HasSubstr("History line:      not written"));
    EXPECT_THAT(text, Not(HasSubstr("Scan id")));

    std::ofstream(zepdiag::PluginHistoryPath(folder), std::ios::app) << "t1,Mqtt,2,0,0,\"\"\n";
    text = zepdiag::FormatPluginInstance(instance, "com.p");
    for (const std::string& line : {std::string("  Scan id:         old"), std::string("  Problematic:     no"),
                                    "Zip:               " + (folder / "latest/D-1_com.p.zip").string(),
                                    std::string("  Signature:       none")}) {
        EXPECT_TRUE(HasLine(text, line)) << line << "\n" << text;
    }
}

// ---- the command line ---------------------------------------------------------------

TEST(CommandLineTest, UsageErrorsExitWithTwo) {
    const std::vector<std::vector<std::string>> cases = {
        {"bogus"},
        {"scan", "--bogus"},
        {"scan", "--device"},
        {"scan", "--device", ""},
        {"scan", "--payload", "{}"},
        {"notify", "--device", "x"},
        {"notify", "--scheduled", "--payload", "{}"},
        {"init", "--scheduled"},
        {"scan", "--scheduled=yes"},
        {"history", "--scheduled"},
        {"history", "--payload", "{}"},
    };
    for (const auto& args : cases) {
        SCOPED_TRACE(::testing::PrintToString(args));
        const Outcome outcome = Zepdiag(args);
        EXPECT_EQ(outcome.code, 2);
        EXPECT_THAT(outcome.err, HasSubstr("Usage: zepdiag"));
        EXPECT_EQ(outcome.out, "");
    }
}

TEST(CommandLineTest, HelpIsNotAnError) {
    for (const auto& args : std::vector<std::vector<std::string>>{{}, {"--help"}, {"help"}, {"scan", "-h"}}) {
        const Outcome outcome = Zepdiag(args);
        EXPECT_EQ(outcome.code, 0);
        for (const char* word :
             {"init", "scan", "notify", "online", "history", "--device", "--payload", "--scheduled", "outbox"}) {
            EXPECT_THAT(outcome.out, HasSubstr(word));
        }
    }
}

TEST(CommandLineTest, OptionsTakeBothSpellings) {
    const auto parsed = zepdiag::ParseCommandLine({"notify", "--device=/d", "--payload", "--x"});
    ASSERT_TRUE(parsed.options) << parsed.error;
    EXPECT_EQ(parsed.options->command, zepdiag::Command::Notify);
    EXPECT_EQ(parsed.options->device, "/d");
    EXPECT_EQ(parsed.options->payload, "--x");  // a value, even when it looks like an option

    const auto scan = zepdiag::ParseCommandLine({"scan", "--scheduled"});
    ASSERT_TRUE(scan.options);
    EXPECT_TRUE(scan.options->scheduled);
    EXPECT_EQ(scan.options->device, "zep-device");

    const auto history = zepdiag::ParseCommandLine({"history", "--device=/d"});
    ASSERT_TRUE(history.options) << history.error;
    EXPECT_EQ(history.options->command, zepdiag::Command::History);
    EXPECT_EQ(history.options->device, "/d");
}

TEST_F(ZepdiagTest, UnusableDeviceFoldersExitWithTwo) {
    fs::create_directory(root / "foreign");
    std::ofstream(root / "foreign" / "notes.txt") << "mine";
    std::ofstream(root / "file") << "x";
    for (const auto& dir : {root / "foreign", root / "file"}) {
        const Outcome outcome = Zepdiag({"scan", "--device", dir.string()});
        EXPECT_EQ(outcome.code, 2);
        EXPECT_THAT(outcome.err, HasSubstr(dir.string()));
    }
    EXPECT_FALSE(fs::exists(root / "foreign" / "temp"));
}

}  // namespace
