#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DiagnosticScanner/ZEPDiagnosticsGenerator.h"
#include "support/ManagerFixture.h"
#include "support/ZipReader.h"

using ::testing::Contains;
using zep::testing::ParseJson;
using zep::testing::ReadText;
using zep::testing::WriteText;
using zep::testing::ZipEntries;

namespace {

namespace fs = std::filesystem;

class StagingTest : public zep::testing::ManagerTest {
protected:
    StagingTest() {
        peer->scanID() = L"scan1";
        peer->generator() = std::make_shared<ZEP::ZEPDiagnosticsGenerator>();
        platform.registry->SetDword(zep::platform::Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport",
                                    L"TimeoutInSeconds", 60);
        WriteText(programdata / "Log" / "agent.log", "{\"gw\":\"10.1.2.3\"}\n");
        WriteText(programdata / "DB" / "SyncPoint.sqlite3", "SQLite format 3");
        WriteText(latest / "scan-result.json", R"({"id":"scan1","components":[{"componentId":"A"}]})");
    }
    void WriteResult(const char* component) {
        WriteText(temp / component / "component-result.json", std::string(R"({"componentId":")") + component + "\"}");
    }
    bool ArtifactsProvided() const {
        return ParseJson(ReadText(latest / "scan-result.json"))["components"][0]["artifactsProvided"].asBool();
    }

    const fs::path programdata = platform.rootPath / "programdata";
    const fs::path latest = programdata / "diagnostics" / "latest";
    const fs::path temp = platform.rootPath / "temp" / "Quorin" / "Zep" / "scan1";
    const fs::path zip = latest / "LD-TEST01_scan1.zip";
};

TEST_F(StagingTest, ZipHoldsTheComponentsTheAgentsContextAndTheScanResult) {
#ifndef _WIN32
    WriteText(programdata / "DB" / "old\xFF.db", "old");  // names are UTF-16 on Windows
#endif
    WriteResult("ZEP");
    WriteResult("com.quorin.vpn");
    WriteText(latest / "LD-TEST01_old.zip", "old");
    manager->CreateZipFolder();

    EXPECT_FALSE(fs::exists(latest / "LD-TEST01_old.zip")) << "an earlier scan's zip is deleted";

    const auto entries = ZipEntries(zip);
    for (const char* name : {"scan-result.json", "ZEP/component-result.json", "ZEP/context/zep_programdata_files.txt",
                             "ZEP/context/SyncPoint_sqlite3.dat", "ZEP/context/zepVersion.txt", "ZEP/context/zep.reg",
                             "ZEP/Log/agent.log", "com.quorin.vpn/component-result.json"}) {
        EXPECT_THAT(entries, Contains(name));
    }
    EXPECT_FALSE(fs::exists(temp)) << "the temporary scan folder is deleted";
    EXPECT_FALSE(fs::exists(latest / "LD-TEST01_scan1")) << "the staging folder is deleted";
    EXPECT_TRUE(ArtifactsProvided());
    auto read = [&](const char* name) { return zep::testing::ZipRead(zip, name).value_or(""); };
#ifndef _WIN32
    // A name that is not UTF-8 is listed with its byte escaped, not replaced.
    EXPECT_NE(read("ZEP/context/zep_programdata_files.txt").find("/DB/old\\xFF.db\n"), std::string::npos);
#endif
    EXPECT_TRUE(ParseJson(read("ZEP/component-result.json"))["artifactsProvided"].asBool());
    EXPECT_EQ(read("ZEP/Log/agent.log"), "{\"gw\":\"[REDACTED_IP]\"}\n");
}

}  // namespace
