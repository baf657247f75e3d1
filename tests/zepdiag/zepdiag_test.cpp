#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "Summary.h"
#include "Zepdiag.h"
#include "platform/agent/Log.h"
#include "support/Links.h"
#include "support/TempFolder.h"
#include "support/TestPlatform.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using zep::testing::Lines;
using zep::testing::ParseJson;
using zep::testing::ReadText;

struct Outcome { int code; std::string out, err; };

Outcome Zepdiag(std::vector<std::string> args) {
    args.insert(args.begin(), "zepdiag");
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    std::ostringstream out, err;
    const int code = RunZepdiag(static_cast<int>(args.size()), argv.data(), out, err);
    return Outcome{code, out.str(), err.str()};
}

// The value of the first "<indent>label:" line after `after`, or "".
std::string SummaryValue(const std::string& out, const std::string& label, const std::string& indent = "",
                         const std::string& after = "") {
    const std::size_t from = out.find(after);
    if (from == std::string::npos) return "";
    const std::string rest = "\n" + out.substr(from);
    std::smatch match;
    return std::regex_search(rest, match, std::regex("\\n" + indent + label + ": +([^\\n]*)")) ? match[1].str() : "";
}

// The lines of the component "<name> (<id>)" in a summary, up to the next empty line.
std::string ComponentBlock(const std::string& out, const std::string& nameOrId) {
    const std::regex line("\\nComponent: +(" + nameOrId + " \\(|[^\\n]*\\(" + nameOrId + "\\)\\n)");
    std::smatch match;
    if (!std::regex_search(out, match, line)) return "";
    const auto begin = static_cast<std::size_t>(match.position(0)) + 1;
    return out.substr(begin, out.find("\n\n", begin) - begin);
}

std::ptrdiff_t Rows(const std::string& block, const std::string& verdict) {
    const std::regex row(" " + verdict + "(\\n|$)");
    return std::distance(std::sregex_iterator(block.begin(), block.end(), row), std::sregex_iterator());
}

class ZepdiagTest : public ::testing::Test {
protected:
    void SetUp() override {
        root = zep::testing::MakeTempFolder("zepdiag-");
        device = root / "device";
    }
    void TearDown() override {
        // The module keeps its log open: closed first, so that Windows lets the folder go.
        g_log.Open(nullptr);
        zep::testing::RemoveTree(root);
    }

    // device.json rewritten, as a script changes the device's state.
    void SetOnline(bool online) {
        Json::Value state = ParseJson(ReadText(device / "device.json"));
        state["online"] = online;
        std::ofstream(device / "device.json", std::ios::trunc) << Json::writeString(Json::StreamWriterBuilder(), state);
    }
    static std::vector<std::string> History(const fs::path& at) { return Lines(ReadText(zepdiag::ScanHistoryPath(at))); }
    static std::string StatusOf(const std::string& line) { return zepdiag::HistoryFields(line).at(2); }
    fs::path Outbox(const std::string& entry) { return device / "outbox" / entry; }
    void NotifyWithThePlugin();

    fs::path root, device;  // the device folder is not created
};

// A fresh folder becomes the demo device; what is printed is what is on disk.
TEST_F(ZepdiagTest, ScanReportsItsResultUploadHistoryAndEventAndARepeatUploadsLess) {
    ZEP_REQUIRE_NATIVE_BY_DEFAULT();  // Windows: see windows/scan_test.cpp
    const Outcome scan = Zepdiag({"scan", "--device", device.string()});
    ASSERT_EQ(scan.code, 0) << scan.err;
    EXPECT_EQ(SummaryValue(scan.out, "Trigger"), "Manual");
    EXPECT_THAT(scan.out, ::testing::Not(HasSubstr("not produced")));
    const std::string zep = ComponentBlock(scan.out, "ZEP");
    EXPECT_EQ(Rows(zep, "PASS"), 5) << zep;
    const std::string vpn = ComponentBlock(scan.out, "com.quorin.vpnclient");
    EXPECT_EQ(Rows(vpn, "PASS"), 1) << vpn;
    EXPECT_EQ(Rows(vpn, "FAIL"), 1) << vpn;
    EXPECT_TRUE(std::regex_match(SummaryValue(scan.out, "Problem signature"), std::regex("[0-9a-fA-F]{64}")));

    const fs::path latest = device / "programdata/diagnostics/latest";
    const std::string id = ParseJson(ReadText(latest / "scan-result.json"))["id"].asString();
    EXPECT_EQ(SummaryValue(scan.out, "Scan id"), id);
    const fs::path zip = SummaryValue(scan.out, "Zip");
    const std::string name = "LD-4F2A9C_" + id + ".zip";
    EXPECT_EQ(zip, latest / name);

    ASSERT_TRUE(fs::is_regular_file(Outbox("0001") / name)) << scan.out;
    EXPECT_EQ(ReadText(Outbox("0001") / name), ReadText(zip));
    const std::vector<std::string> history = History(device);
    ASSERT_EQ(history.size(), 1u);
    EXPECT_EQ(StatusOf(history[0]), "0");
    EXPECT_THAT(SummaryValue(scan.out, "Upload"), StartsWith("the scan's zip, " + name + " ("));
    EXPECT_EQ(SummaryValue(scan.out, "History line"), history[0]);
    EXPECT_THAT(SummaryValue(scan.out, "Event"), StartsWith("1018 at "));

    // The same problems again, scheduled: the cloud has their zip already.
    const Outcome scheduled = Zepdiag({"scan", "--device", device.string(), "--scheduled"});
    ASSERT_EQ(scheduled.code, 0) << scheduled.err;
    EXPECT_EQ(SummaryValue(scheduled.out, "Trigger"), "Scheduled");
    EXPECT_EQ(ReadText(Outbox("0002/scan-result.json")), ReadText(zepdiag::ScanResultPath(device))) << scheduled.out;
    EXPECT_THAT(SummaryValue(scheduled.out, "Upload"), StartsWith("the scan result only, "));
    ASSERT_EQ(History(device).size(), 2u);
    EXPECT_EQ(StatusOf(History(device)[1]), "0");
}

// Scripts read the same facts as one JSON document on standard output; a
// device made on the way is mentioned on standard error, not in the document.
TEST_F(ZepdiagTest, OfflineScanIsUploadedWhenTheDeviceComesOnlineAndJsonCarriesTheSameFacts) {
    ZEP_REQUIRE_NATIVE_BY_DEFAULT();  // Windows: see windows/scan_test.cpp
    const fs::path fresh = root / "fresh";
    const Outcome json = Zepdiag({"scan", "--device", fresh.string(), "--json"});
    ASSERT_EQ(json.code, 0) << json.err;
    EXPECT_THAT(json.err, HasSubstr("Created a demo device"));
    const Json::Value scanned = ParseJson(json.out);
    EXPECT_EQ(scanned["trigger"].asString(), "Manual");
    const Json::Value stored = ParseJson(ReadText(zepdiag::ScanResultPath(fresh)));
    ASSERT_TRUE(stored.isObject());
    EXPECT_EQ(scanned["scanResult"], stored);
    const std::string zip = scanned["zip"]["path"].asString();
    EXPECT_TRUE(fs::is_regular_file(zip)) << zip;
    EXPECT_EQ(scanned["zip"]["size"].asUInt64(), fs::file_size(zip));
    EXPECT_GT(scanned["zip"]["entries"].size(), 3u);
    EXPECT_EQ(scanned["uploads"][0]["type"].asString(), "scanZip");
    EXPECT_EQ(scanned["historyLine"]["line"].asString(), History(fresh).at(0));
    EXPECT_EQ(scanned["historyLine"]["uploadStatus"].asInt(), 0);
    EXPECT_EQ(scanned["events"][0]["eventId"].asInt(), 1018);

    ASSERT_EQ(Zepdiag({"init", "--device", device.string()}).code, 0);
    SetOnline(false);
    const Outcome scan = Zepdiag({"scan", "--device", device.string()});
    ASSERT_EQ(scan.code, 0) << scan.err;
    EXPECT_EQ(SummaryValue(scan.out, "Upload"), "nothing uploaded");
    EXPECT_EQ(SummaryValue(scan.out, "Upload status", "  "), "2 offline, upload deferred");
    EXPECT_FALSE(fs::exists(Outbox("0001")));
    ASSERT_EQ(History(device).size(), 1u);
    EXPECT_EQ(StatusOf(History(device)[0]), "2");

    SetOnline(true);
    const Outcome online = Zepdiag({"online", "--device", device.string(), "--json"});
    ASSERT_EQ(online.code, 0) << online.err;
    const Json::Value onlined = ParseJson(online.out);
    EXPECT_EQ(onlined["historyBefore"]["uploadStatus"].asInt(), 2);
    EXPECT_EQ(onlined["historyAfter"]["uploadStatus"].asInt(), 0);
    const fs::path scanZip = SummaryValue(scan.out, "Zip");
    EXPECT_EQ(onlined["uploads"][0]["file"].asString(), scanZip.filename().string());
    EXPECT_EQ(onlined["uploads"][0]["folder"].asString(), Outbox("0001").string());
    EXPECT_EQ(ReadText(Outbox("0001") / scanZip.filename()), ReadText(scanZip));
    // The deferred scan's line is rewritten, not a new one added.
    ASSERT_EQ(History(device).size(), 1u);
    EXPECT_EQ(StatusOf(History(device)[0]), "0");

    const Outcome again = Zepdiag({"online", "--device", device.string()});
    EXPECT_THAT(again.out, HasSubstr("online notification was delivered"));
    EXPECT_EQ(SummaryValue(again.out, "Upload"), "nothing uploaded");
    EXPECT_EQ(SummaryValue(again.out, "Upload status", "  ", "History after:"), "0 uploaded");

    const Outcome history = Zepdiag({"history", "--device", device.string(), "--json"});
    ASSERT_EQ(history.code, 0) << history.err;
    const Json::Value entries = ParseJson(history.out)["entries"];
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0]["uploadStatus"].asInt(), 0);
    EXPECT_EQ(entries[0]["signature"].asString(), zepdiag::HistoryFields(History(device).at(0)).at(5));
}

// Ends a death-test child; its failures are told on stderr, which the parent shows.
[[noreturn]] void ExitTellingFailures() {
    const ::testing::TestResult* result = ::testing::UnitTest::GetInstance()->current_test_info()->result();
    for (int i = 0; i < result->total_part_count(); ++i) {
        if (result->GetTestPartResult(i).failed()) std::fprintf(stderr, "%s\n", result->GetTestPartResult(i).message());
    }
    std::_Exit(result->Failed() ? 1 : 0);
}

// The module's rate limit lasts as long as the process, so the notify runs in
// a process of its own: the "threadsafe" death-test style re-runs this binary.
TEST_F(ZepdiagTest, NotifyRunsThePluginAndUploadsItsZipBesideTheAgents) {
    ZEP_REQUIRE_NATIVE_BY_DEFAULT();  // Windows: see windows/scan_test.cpp
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT((NotifyWithThePlugin(), fs::remove_all(root), ExitTellingFailures()), ::testing::ExitedWithCode(0), "");
}

void ZepdiagTest::NotifyWithThePlugin() {
    const std::string zipName = "7C3E9A12-5B4D-4E8F-9A61-2D0B7F3C8E45_com.quorin.demoplugin.zip";
    const fs::path latest = device / "programdata/plugin-data/com.quorin.demoplugin/diagnostics/latest";
    const std::string payload =
        R"({"zep-message":{"action":{"cmd_param":{"requestId":"R1","target":["zep","demo-plugin","absent"]}}}})";
    const Outcome notify = Zepdiag({"notify", "--device", device.string(), "--payload", payload, "--json"});
    ASSERT_EQ(notify.code, 0) << notify.err;
    const Json::Value document = ParseJson(notify.out);
    EXPECT_EQ(document["trigger"].asString(), "Mqtt");
    EXPECT_EQ(document["agentScan"].asString(), "ran");
    // The agent's part reports its own upload only; the plug-in's is with the plug-in.
    ASSERT_EQ(document["uploads"].size(), 1u);
    EXPECT_EQ(document["uploads"][0]["file"].asString(), "LD-4F2A9C_r1.zip");
    // In the module's order of targets: "absent", then "demo-plugin".
    EXPECT_TRUE(document["plugins"][0]["pluginId"].isNull());
    const Json::Value& plugin = document["plugins"][1];
    EXPECT_EQ(plugin["pluginId"].asString(), "com.quorin.demoplugin");
    EXPECT_TRUE(plugin["instances"][0]["asked"].asBool());
    EXPECT_EQ(plugin["instances"][0]["historyLine"]["uploadStatus"].asInt(), 0);
    const Json::Value result = ParseJson(ReadText(latest / "scan-result.json"));
    EXPECT_EQ(result["id"].asString(), "r1");
    EXPECT_EQ(result["components"][0]["componentId"].asString(), "com.quorin.demoplugin");

    // An outbox folder of its own, beside the agent's.
    EXPECT_EQ(plugin["uploads"][0]["type"].asString(), "pluginZip");
    EXPECT_EQ(plugin["uploads"][0]["file"].asString(), zipName);
    const fs::path uploaded = plugin["uploads"][0]["folder"].asString();
    EXPECT_NE(uploaded, fs::path(document["uploads"][0]["folder"].asString()));
    EXPECT_EQ(ReadText(uploaded / zipName), ReadText(latest / zipName));
    EXPECT_EQ(ParseJson(ReadText(uploaded / (zipName + ".metadata.json")))["context"]["id"].asString(), "r1");
}

// Usage errors, and folders that hold something else: those are the user's, never written into.
TEST_F(ZepdiagTest, UnusableCommandLinesExitWithTwo) {
    std::ofstream(root / "notes.txt") << "mine";
    const std::string usage = "Usage: zepdiag", folder = root.string(), file = (root / "notes.txt").string(),
                      missing = (root / "missing").string();
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, usage}, {{"bogus"}, usage}, {{"scan", "--bogus"}, usage}, {{"scan", "--device"}, usage},
        {{"scan", "--device", ""}, usage}, {{"scan", "--payload", "{}"}, usage}, {{"notify", "--device", "x"}, usage},
        {{"scan", "--scheduled=yes"}, usage}, {{"serve", "--upload-url="}, usage},
        {{"scan", "--device", folder}, folder}, {{"history", "--device", file}, file},
        {{"history", "--device", missing}, missing + " does not exist"}};
    for (const auto& [args, error] : cases) {
        SCOPED_TRACE(::testing::PrintToString(args));
        const Outcome outcome = Zepdiag(args);
        EXPECT_EQ(outcome.code, 2);
        EXPECT_THAT(outcome.err, HasSubstr(error));
        EXPECT_EQ(outcome.out, "");
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(root), fs::directory_iterator()), 1);
}

}  // namespace
