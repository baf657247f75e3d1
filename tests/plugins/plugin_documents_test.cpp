// A plug-in's documents: its component result written for it or completed
// over it, the scan result made from it, its history and its failed tests.
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "DiagnosticScanner/PluginDiagnosticsProcessor.h"
#include "platform/Paths.h"
#include "results/ResultFormat.h"
#include "support/ManagerFixture.h"

namespace {

namespace fs = std::filesystem;
using zep::platform::ElevationType;
using zep::testing::ReadText;
using zep::testing::WriteText;
using Processor = PluginDiagnosticsProcessor;

constexpr const wchar_t* kPluginId = L"com.quorin.pluginx";

Json::Value Parse(const std::string& text) {
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::istringstream in(text);
    Json::parseFromStream(builder, in, &value, &errors);
    return value;
}

// The document an upsert writes when there is nothing to keep.
Json::Value Fresh(const char* resultType, bool artifacts, bool problematic, const char* context) {
    return Parse(std::string(R"({"componentId":"com.quorin.pluginx","friendlyName":"com.quorin.pluginx",)") +
                 R"("executionTimeSeconds":"0","resultType":")" + resultType + R"(","isProblematic":)" +
                 (problematic ? "true" : "false") + R"(,"artifactsProvided":)" + (artifacts ? "true" : "false") +
                 R"(,"executionContext":")" + context + R"(","tests":[]})");
}

class PluginDocumentsTest : public zep::testing::ManagerTest {
protected:
    PluginDocumentsTest() {
        fs::create_directories(folder);
        peer->triggerType() = 2;
        peer->scanID() = L"req-7";
    }

    void WriteComponent(const std::string& text) const { WriteText(folder / "component-result.json", text); }
    Json::Value Component() const { return Parse(ReadText(folder / "component-result.json")); }
    Json::Value ScanResult() const { return Parse(ReadText(folder / "latest" / "scan-result.json")); }
    void Upsert(const char* type, bool artifacts, bool problematic, ElevationType elevation) {
        Processor::UpsertPluginComponentResultJson(*manager, diagFolder, kPluginId, elevation, type, artifacts,
                                                   problematic);
    }
    void History(int sentToCloud, bool artifacts) {
        Processor::WritePluginScanHistoryEntry(*manager, diagFolder, sentToCloud, artifacts);
    }

    const fs::path folder = platform.rootPath / "programdata" / "plugin-data" / "com.quorin.pluginx" / "diagnostics";
    const std::wstring diagFolder = zep::path::FromFs(folder);
};

// ---- Component result -------------------------------------------------------------

TEST_F(PluginDocumentsTest, UpsertWithoutADocumentWritesAWholeOneInTheAgentsLayout) {
    Upsert("ErrorTimeOut", false, false, ElevationType::Elevated);
    EXPECT_EQ(ReadText(folder / "component-result.json"),
              zep::results::WriteDocument(Fresh("ErrorTimeOut", false, false, "system")));

    Upsert("ErrorGeneral", false, true, ElevationType::User);
    EXPECT_EQ(Component(), Fresh("ErrorGeneral", false, true, "user"));
}

TEST_F(PluginDocumentsTest, UpsertKeepsThePluginsTextsAndOverwritesTheOutcome) {
    WriteComponent(R"({"componentId":"vendor-id","friendlyName":"Plugin X","executionTimeSeconds":"1.500",)"
                   R"("resultType":"Complete","isProblematic":false,"artifactsProvided":true,)"
                   R"("executionContext":"user","tests":[{"id":"t1"}],"vendorKey":{"a":1}})");

    Upsert("ErrorGeneral", false, true, ElevationType::Elevated);

    EXPECT_EQ(Component(), Parse(R"({"componentId":"com.quorin.pluginx","friendlyName":"Plugin X",)"
                                 R"("executionTimeSeconds":"1.500","resultType":"ErrorGeneral","isProblematic":true,)"
                                 R"("artifactsProvided":false,"executionContext":"system","tests":[{"id":"t1"}],)"
                                 R"("vendorKey":{"a":1}})"));
}

TEST_F(PluginDocumentsTest, UpsertReplacesWhatCannotBeKept) {
    const Json::Value fresh = Fresh("ErrorTimeOut", false, false, "system");
    struct Case {
        const char* text;
        Json::Value expected;
    };
    Json::Value keyed = fresh;
    keyed["vendorKey"] = 1;
    const Case cases[] = {
        {R"({"tests":{"id":"t1"}})", fresh}, {R"({"friendlyName":""})", fresh},
        {R"({"friendlyName":5})", fresh},    {R"({"executionTimeSeconds":null})", fresh},
        {R"({"vendorKey":1})", keyed},       {"[1,2]", fresh},
        {"null", fresh},                     {"{not json", fresh},
    };
    for (const Case& c : cases) {
        WriteComponent(c.text);
        Upsert("ErrorTimeOut", false, false, ElevationType::Elevated);
        EXPECT_EQ(Component(), c.expected) << c.text;
    }
}

TEST_F(PluginDocumentsTest, EnsureKeepsAnIdentifiedResultAndCompletesAnyOther) {
    const std::string identified = "{ \"componentId\" : \"their-id\", \"resultType\" : \"ErrorGeneral\" }";
    WriteComponent(identified);
    Processor::EnsurePluginComponentResultJson(*manager, diagFolder, kPluginId, ElevationType::User);
    EXPECT_EQ(ReadText(folder / "component-result.json"), identified);

    Json::Value named = Fresh("Complete", true, false, "user");
    named["friendlyName"] = "Plugin X";
    for (const char* text : {"", R"({"componentId":"","friendlyName":"Plugin X"})",
                             R"({"componentId":7,"friendlyName":"Plugin X"})", R"({"friendlyName":"Plugin X"})"}) {
        fs::remove(folder / "component-result.json");
        if (*text) WriteComponent(text);
        Processor::EnsurePluginComponentResultJson(*manager, diagFolder, kPluginId, ElevationType::User);
        EXPECT_EQ(Component(), *text ? named : Fresh("Complete", true, false, "user")) << text;
    }
}

// ---- Scan result -----------------------------------------------------------------

TEST_F(PluginDocumentsTest, TheScanResultSummarisesTheComponentAndItsZipOnceThereIsOne) {
    const std::string component =
        R"({"componentId":"com.quorin.pluginx","executionTimeSeconds":"2.500","isProblematic":true,)"
        R"("tests":[{"actual":"1","expected":"01"},{"actual":"a","expected":"a"}]})";
    WriteComponent(component);

    Processor::GeneratePluginScanResultJson(*manager, diagFolder, kPluginId);

    Json::Value expected = Parse(R"({"trigger":"Mqtt","id":"req-7","deviceId":"0f4c2d1e-aaaa-bbbb-cccc-000000000001",)"
                                 R"("executionTimeSeconds":"2.500","deviceTimeCompletedAt":"2026-11-21T10:15:30Z",)"
                                 R"("isProblematic":true,"failTestCount":1,"problemSignature":""})");
    expected["components"].append(Parse(component));
    EXPECT_EQ(ScanResult(), expected);

    // Only the zip of this device and plug-in counts.
    WriteText(folder / "latest" / "LD-TEST01_com.quorin.pluginx.zip", "zip");
    Processor::GeneratePluginScanResultJson(*manager, diagFolder, kPluginId);
    EXPECT_FALSE(ScanResult().isMember("artifactSize"));
    WriteText(folder / "latest" / "0f4c2d1e-aaaa-bbbb-cccc-000000000001_com.quorin.pluginx.zip", std::string(1234, 'z'));
    Processor::GeneratePluginScanResultJson(*manager, diagFolder, kPluginId);
    expected["artifactSize"] = 1234;
    EXPECT_EQ(ScanResult(), expected);
}

TEST_F(PluginDocumentsTest, WithoutAReadableComponentNoScanResultIsWritten) {
    for (const char* text : {"", "{broken"}) {
        if (*text) WriteComponent(text);
        Processor::GeneratePluginScanResultJson(*manager, diagFolder, kPluginId);
        EXPECT_FALSE(fs::exists(folder / "latest" / "scan-result.json")) << text;
    }
    EXPECT_EQ(platform.log->Count("PluginDiagnosticsProcessor::GeneratePluginScanResultJson: component-result missing "
                                  "for plugin=com.quorin.pluginx"),
              2u);
}

TEST_F(PluginDocumentsTest, UpdatingTheResultTypeRewritesBothDocuments) {
    Processor::UpdatePluginComponentResultType(*manager, diagFolder, "NetworkNotConnected");
    EXPECT_FALSE(fs::exists(folder / "component-result.json"));
    EXPECT_FALSE(fs::exists(folder / "latest"));

    WriteComponent(R"({"componentId":"com.quorin.pluginx","friendlyName":"Plugin X","resultType":"Complete"})");
    WriteText(folder / "latest" / "0f4c2d1e-aaaa-bbbb-cccc-000000000001_com.quorin.pluginx.zip", "zip");
    Processor::UpdatePluginComponentResultType(*manager, diagFolder, "NetworkNotConnected");

    const Json::Value expected = Parse(R"({"componentId":"com.quorin.pluginx","friendlyName":"Plugin X",)"
                                       R"("resultType":"NetworkNotConnected"})");
    EXPECT_EQ(Component(), expected);
    const Json::Value scan = ScanResult();
    EXPECT_EQ(scan["components"][0], expected);
    EXPECT_EQ(scan["artifactSize"], 3);
    // Neither a time nor a flag in the component: the defaults.
    EXPECT_EQ(scan["executionTimeSeconds"], "0");
    EXPECT_EQ(scan["isProblematic"], false);

    WriteComponent("[1]");
    Processor::UpdatePluginComponentResultType(*manager, diagFolder, "NetworkNotConnected");
    EXPECT_EQ(Component(), Parse(R"({"resultType":"NetworkNotConnected"})"));
}

TEST(PluginFailedTestsTest, CountsObjectsWhoseActualAndExpectedTextsDiffer) {
    const struct {
        const char* component;
        int failed;
    } cases[] = {
        {R"({"tests":[{"actual":"1","expected":"01"}]})", 1},
        {R"({"tests":[{"actual":"pass","expected":"Pass"},{"actual":"x","expected":"x"}]})", 1},
        {R"({"tests":[{"actual":1,"expected":"1"},{"actual":"1"},{"expected":"1"},"1",[],null]})", 0},
        {R"({"tests":[{"actual":"","expected":"a"},{"actual":"b","expected":""},{"actual":"c","expected":"d"}]})", 3},
        {R"({"tests":{"a":{"actual":"1","expected":"2"}}})", 0},
        {R"({"tests":"x"})", 0},
        {"{}", 0},
        {R"([{"actual":"1","expected":"2"}])", 0},
        {"null", 0},
        {"\"tests\"", 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Processor::CountFailedTests(Parse(c.component)), c.failed) << c.component;
    }
}

// ---- History -----------------------------------------------------------------------

TEST_F(PluginDocumentsTest, HistoryLinesCarryTheCallersStatusesAndParseBack) {
    History(1, true);
    History(2, false);
    History(0, false);

    EXPECT_EQ(ReadText(folder / "scan-history.log"),
              "2026-11-21T10:15:30Z,Mqtt,1,1,0,\"\"\n"
              "2026-11-21T10:15:30Z,Mqtt,2,0,0,\"\"\n"
              "2026-11-21T10:15:30Z,Mqtt,0,0,0,\"\"\n");
    EXPECT_TRUE(platform.log->Contains("PluginDiagnosticsProcessor::WritePluginScanHistoryEntry: plugin scan-history "
                                       "entry written sentToCloud=2 art=0 path=" +
                                       (folder / "scan-history.log").string()));
    std::wstring path = zep::path::FromFs(folder / "scan-history.log");
    DiagnosticsManager::ScanHistoryEntry entry;
    ASSERT_TRUE(manager->ParseScanHistoryLine(manager->GetLastLineInFile(path), entry));
    EXPECT_EQ(entry.triggerType, 2);
    EXPECT_EQ(entry.problemSignature, L"\"\"");
}

TEST_F(PluginDocumentsTest, HistoryKeepsTheNewestHundredLinesAndEarlierBytesAsTheyWere) {
    std::string old;
    for (int i = 1; i <= 130; ++i) old += "T" + std::to_string(i) + ",Manual,0,0,0,\xFF\xC3\xA9\n";
    WriteText(folder / "scan-history.log", old);

    History(2, false);

    std::string expected;
    for (int i = 32; i <= 130; ++i) expected += "T" + std::to_string(i) + ",Manual,0,0,0,\xFF\xC3\xA9\n";
    EXPECT_EQ(ReadText(folder / "scan-history.log"), expected + "2026-11-21T10:15:30Z,Mqtt,2,0,0,\"\"\n");
}

}  // namespace
