// A whole scan on real files and real child processes: package script, health
// tests, scan result, staging and zip, as the agent's branch runs them.
#include <regex>
#include <set>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/posix/PosixProcess.h"
#include "support/ManagerFixture.h"
#include "support/ZipReader.h"

using ::testing::Contains;
using ::testing::Not;
using zep::testing::ManagerTest;
using zep::testing::ReadText;
using zep::testing::WriteText;
using zep::testing::ZipEntries;

namespace {

// A package script that writes the given result document into its -outDir.
std::string ScriptWriting(const std::string& document) {
    return "#!/bin/sh\n"
           "out=\"\"\n"
           "while [ $# -gt 0 ]; do [ \"$1\" = -outDir ] && out=\"$2\"; shift; done\n"
           "mkdir -p \"$out\" && cat > \"$out/component-result.json\" <<'EOF'\n" +
           document + "\nEOF\n";
}

class ScanFlowTest : public ManagerTest {
protected:
    ScanFlowTest() {
        platform.env.processes = std::make_shared<zep::platform::PosixProcess>();
        platform.Reinstall();
        platform.policy->Add(L"com.quorin.vpn", L"VPN");
        WriteText(programdata / "Log" / "agent.log", "line\n");
    }
    void PackageWrites(const std::string& document) {
        WriteText(platform.rootPath / "packages" / "com.quorin.vpn" / "temp" / "install.sh", ScriptWriting(document));
    }
    Json::Value ScanResult() {
        Json::Value value;
        std::istringstream(ReadText(latest / "scan-result.json")) >> value;
        return value;
    }

    const std::filesystem::path programdata = platform.rootPath / "programdata";
    const std::filesystem::path latest = programdata / "diagnostics" / "latest";
};

TEST_F(ScanFlowTest, ManualScanLeavesAScanResultAndAZip) {
    PackageWrites(R"({"componentId":"com.quorin.vpn","executionTimeSeconds":"0.042","isProblematic":true,)"
                  R"("tests":[{"id":"t1","result":"fail"},{"id":"t2","result":"pass"}]})");
    DiagnosticsParams params;
    params.requestId = L"flow1";
    params.targets.insert(L"zep");
    Scan(2, params);

    const Json::Value result = ScanResult();
    ASSERT_TRUE(result.isObject()) << ReadText(latest / "scan-result.json");
    EXPECT_EQ(result["id"].asString(), "flow1");
    EXPECT_EQ(result["trigger"].asString(), "Mqtt");
    EXPECT_EQ(result["components"].size(), 2u);
    EXPECT_GE(result["failTestCount"].asInt(), 1);
    EXPECT_TRUE(std::regex_match(result["problemSignature"].asString(), std::regex("[0-9a-f]{64}")));

    const auto zip = latest / "LD-TEST01_flow1.zip";
    ASSERT_TRUE(std::filesystem::exists(zip));
    EXPECT_EQ(result["artifactSize"].asUInt64(), std::filesystem::file_size(zip));
    const auto entries = ZipEntries(zip);
    EXPECT_THAT(entries, Contains("scan-result.json"));
    EXPECT_THAT(entries, Contains("ZEP/component-result.json"));
    EXPECT_THAT(entries, Contains("com.quorin.vpn/component-result.json"));
    EXPECT_THAT(entries, Contains("ZEP/Log/agent.log"));
    EXPECT_FALSE(std::filesystem::exists(platform.rootPath / "temp" / "Quorin" / "Zep" / "flow1"));
}

// A package may write anything. A time that is not a number ends the summary
// (the document is not written) but not the scan: the archive is still made
// of what was staged, and the scan lock is free for the next scan.
TEST_F(ScanFlowTest, NonNumericExecutionTimeEndsTheSummaryButNotTheScan) {
    PackageWrites(R"({"componentId":"com.quorin.vpn","executionTimeSeconds":"abc","tests":[]})");
    DiagnosticsParams params;
    params.requestId = L"bad1";
    params.targets.insert(L"zep");
    Scan(2, params);

    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::GenerateScanResultInJson: Exception Occurred: stof"));
    EXPECT_FALSE(std::filesystem::exists(latest / "scan-result.json"));
    const auto entries = ZipEntries(latest / "LD-TEST01_bad1.zip");
    EXPECT_THAT(entries, Contains("com.quorin.vpn/component-result.json"));
    EXPECT_THAT(entries, Contains("ZEP/component-result.json"));
    EXPECT_THAT(entries, Not(Contains("scan-result.json")));

    PackageWrites(R"({"componentId":"com.quorin.vpn","executionTimeSeconds":"0.5","tests":[]})");
    params.requestId = L"good2";
    Scan(2, params);
    EXPECT_EQ(ScanResult()["id"].asString(), "good2");
}

}  // namespace
