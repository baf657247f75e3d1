// Staging and packing of one scan with the native collection: what the zip
// holds, what is marked, and what is left behind.
#include <set>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DiagnosticScanner/ZEPDiagnosticsGenerator.h"
#include "platform/Strings.h"
#include "support/ManagerFixture.h"
#include "support/ZipReader.h"

using ::testing::Contains;
using ::testing::Not;
using zep::platform::Hive;
using zep::testing::ManagerTest;
using zep::testing::ReadText;
using zep::testing::WriteText;
using zep::testing::ZipEntries;

namespace {

Json::Value Parse(const std::string& text) {
    Json::Value value;
    std::istringstream(text) >> value;
    return value;
}

class StagingTest : public ManagerTest {
protected:
    StagingTest() {
        peer->scanID() = L"scan1";
        peer->generator() = std::make_shared<ZEP::ZEPDiagnosticsGenerator>();
        platform.registry->SetDword(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport",
                                    L"TimeoutInSeconds", 60);
        WriteText(programdata / "Log" / "agent.log", "{\"gw\":\"10.1.2.3\"}\n");
        WriteText(programdata / "DB" / "SyncPoint.sqlite3", "SQLite format 3");
        WriteText(latest / "scan-result.json", R"({"id":"scan1","components":[{"componentId":"A"}]})");
    }
    void WriteAgentResult() { WriteText(temp / "ZEP" / "component-result.json", R"({"componentId":"Z"})"); }

    const std::filesystem::path programdata = platform.rootPath / "programdata";
    const std::filesystem::path latest = programdata / "diagnostics" / "latest";
    const std::filesystem::path temp = platform.rootPath / "temp" / "Quorin" / "Zep" / "scan1";
    const std::filesystem::path zip = latest / "LD-TEST01_scan1.zip";
};

TEST_F(StagingTest, ZipHoldsTheComponentsTheAgentsContextAndTheScanResult) {
    WriteAgentResult();
    WriteText(temp / "com.quorin.vpn" / "component-result.json", R"({"componentId":"com.quorin.vpn"})");
    manager->CreateZipFolder();

    const auto entries = ZipEntries(zip);
    for (const char* name : {"scan-result.json", "ZEP/component-result.json", "ZEP/context/zep_programdata_files.txt",
                             "ZEP/context/SyncPoint_sqlite3.dat", "ZEP/context/zepVersion.txt", "ZEP/context/zep.reg",
                             "ZEP/Log/agent.log", "com.quorin.vpn/component-result.json"}) {
        EXPECT_THAT(entries, Contains(name));
    }
    EXPECT_FALSE(std::filesystem::exists(temp)) << "the temporary scan folder is deleted";
    EXPECT_FALSE(std::filesystem::exists(latest / "LD-TEST01_scan1")) << "the staging folder is deleted";
    EXPECT_TRUE(Parse(ReadText(latest / "scan-result.json"))["components"][0]["artifactsProvided"].asBool());
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::CreateZip Created Zip for diagnostics successfully: "));
}

TEST_F(StagingTest, EarlierZipIsDeletedFirst) {
    WriteAgentResult();
    WriteText(latest / "LD-TEST01_old.zip", "old");
    manager->CreateZipFolder();
    EXPECT_FALSE(std::filesystem::exists(latest / "LD-TEST01_old.zip"));
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::CreateZipFolder Delete existing zip file " +
                                       (latest / "LD-TEST01_old.zip").string()));
    EXPECT_TRUE(std::filesystem::exists(zip));
}

TEST_F(StagingTest, WithoutATemporaryFolderTheScanResultIsStillPacked) {
    manager->CreateZipFolder();
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::CopyDataInZip: no temp scan folder to copy (missing): " +
                                       temp.string()));
    EXPECT_TRUE(platform.log->Contains("post-copy ZEP component folder missing (skipping ZEP log/context merge)"));
    const auto entries = ZipEntries(zip);
    EXPECT_THAT(entries, Contains("scan-result.json"));
    EXPECT_THAT(entries, Not(Contains("ZEP/context/zep.reg")));
    // Neither context nor logs were collected for this scan.
    EXPECT_FALSE(Parse(ReadText(latest / "scan-result.json"))["components"][0]["artifactsProvided"].asBool());
}

TEST_F(StagingTest, AgentsComponentResultIsMarkedAndItsLogsScrubbed) {
    WriteAgentResult();
    manager->CreateZipFolder();
    auto read = [&](const char* name) { return zep::testing::ZipRead(zip, name).value_or(""); };
    EXPECT_TRUE(Parse(read("ZEP/component-result.json"))["artifactsProvided"].asBool());
    EXPECT_EQ(read("ZEP/Log/agent.log"), "{\"gw\":\"[REDACTED_IP]\"}\n");
    EXPECT_EQ(read("ZEP/context/zepVersion.txt"), "4.12.3.0");
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::AddZEPLog Powershell script to scrub PII data returned 1"));
}

TEST_F(StagingTest, WindowsWayRunsTheAgentsCommandLinesInOrder) {
    platform.env.collection = nullptr;
    platform.Reinstall();
    WriteAgentResult();
    manager->CreateZipFolder();

    const auto lines = platform.processes->CommandLines();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_THAT(zep::text::ToUtf8(lines[0]), ::testing::StartsWith("C:\\Windows\\regedit.exe /e \""));
    EXPECT_THAT(zep::text::ToUtf8(lines[1]), ::testing::HasSubstr("copy-item -Path "));
    EXPECT_THAT(zep::text::ToUtf8(lines[2]), ::testing::HasSubstr("-include *.zip -File -Recurse"));
    EXPECT_THAT(zep::text::ToUtf8(lines[3]), ::testing::HasSubstr("$sizeLimitBytes=50MB"));
    EXPECT_THAT(zep::text::ToUtf8(lines[4]), ::testing::HasSubstr("[REDACTED_IP]"));
    EXPECT_THAT(zep::text::ToUtf8(lines[5]), ::testing::HasSubstr("Compress-Archive -Path '"));
    // The recording launcher made no archive, so the staged files stay.
    EXPECT_TRUE(std::filesystem::exists(latest / "LD-TEST01_scan1" / "scan-result.json"));
}

TEST_F(StagingTest, WithoutLogsOnlyTheContextCountsAsArtifacts) {
    std::filesystem::remove_all(programdata / "Log");
    WriteAgentResult();
    manager->CreateZipFolder();
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::AddZEPLog ZEP Log Folder does not exist"));
    EXPECT_TRUE(peer->contextCollected());
    EXPECT_FALSE(peer->logsCollected());
}

}  // namespace
