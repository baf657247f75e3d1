#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "Cli.h"
#include "Zepdiag.h"
#include "platform/CivilTime.h"
#include "platform/InProcessHub.h"
#include "platform/Strings.h"
#include "platform/posix/DeviceFolderEnv.h"

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

// The scans' folders under DIR/temp/Quorin/Zep that hold a built-in result.
std::vector<std::string> ScanNames(const fs::path& device) {
    std::vector<std::string> names;
    std::error_code code;
    for (const auto& entry : fs::directory_iterator(device / "temp" / "Quorin" / "Zep", code)) {
        if (fs::is_regular_file(entry.path() / "ZEP" / "component-result.json")) {
            names.push_back(entry.path().filename().string());
        }
    }
    return names;
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
    EXPECT_THAT(scan.out, HasSubstr("Manual"));
    for (const char* test : kZepTests) EXPECT_THAT(scan.out, HasSubstr(test));
    EXPECT_THAT(scan.out, HasSubstr("0 of 5"));
    EXPECT_THAT(scan.out, Not(HasSubstr("not produced")));

    const auto scans = ScanNames(device);
    ASSERT_EQ(scans.size(), 1u);
    EXPECT_THAT(scan.out, HasSubstr(scans[0]));
    const Json::Value result = ParseJson(Read(device / "temp/Quorin/Zep" / scans[0] / "ZEP/component-result.json"));
    EXPECT_EQ(result["tests"].size(), 5u);
    EXPECT_FALSE(result["isProblematic"].asBool());
    EXPECT_GT(fs::file_size(device / "programdata/Log/ZEPDiagnostics.log"), 0u);
}

TEST_F(ScanTest, EachScanReportsItsOwnResult) {
    ASSERT_EQ(Zepdiag({"scan", "--device", device.string()}).code, 0);
    const auto first = ScanNames(device);
    ASSERT_EQ(first.size(), 1u);

    // An unregistered device skips the dependent tests and fails one.
    std::ofstream(device / "device.json") << R"({"registered": false})";
    const Outcome scheduled = Zepdiag({"scan", "--device", device.string(), "--scheduled"});
    ASSERT_EQ(scheduled.code, 0) << scheduled.err;
    EXPECT_THAT(scheduled.out, HasSubstr("Scheduled"));
    EXPECT_THAT(scheduled.out, Not(HasSubstr(first[0])));
    EXPECT_THAT(scheduled.out, HasSubstr("FAIL"));
    EXPECT_THAT(scheduled.out, HasSubstr("1 of 2"));
    EXPECT_EQ(ScanNames(device).size(), 2u);
}

TEST_F(ScanTest, NotificationRequestNamesTheScan) {
    const Outcome notify = Zepdiag({"notify", "--device", device.string(), "--payload",
                                    R"({"zep-message":{"action":{"cmd_param":{"requestId":"r1","target":["zep"]}}}})"});
    ASSERT_EQ(notify.code, 0) << notify.err;
    EXPECT_TRUE(fs::is_regular_file(device / "temp/Quorin/Zep/r1/ZEP/component-result.json"));
    EXPECT_THAT(notify.out, HasSubstr("Mqtt"));
    EXPECT_THAT(notify.out, HasSubstr("r1"));
    for (const char* test : kZepTests) EXPECT_THAT(notify.out, HasSubstr(test));
}

TEST_F(ScanTest, OnlineNotificationIsDelivered) {
    const Outcome online = Zepdiag({"online", "--device", device.string()});
    EXPECT_EQ(online.code, 0) << online.err;
    EXPECT_THAT(online.out, HasSubstr("online notification was delivered"));
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
        for (const char* word : {"init", "scan", "notify", "online", "--device", "--payload", "--scheduled"}) {
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
