// The component result document the manager writes after a component's
// tests ran, and the per-scan result state around it.
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "DiagnosticScanner/ZEPDiagnosticsGenerator.h"
#include "platform/Paths.h"
#include "platform/Strings.h"
#include "support/ManagerPeer.h"
#include "support/TestPlatform.h"

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using zep::diagnostics::Tests;

Tests MakeTest(std::wstring name, std::wstring id, std::wstring expected, std::wstring actual) {
    Tests test;
    test.name = std::move(name);
    test.id = std::move(id);
    test.expected = std::move(expected);
    test.actual = std::move(actual);
    return test;
}

Json::Value Parse(const std::string& text) {
    Json::Value root;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &errors)) << errors;
    return root;
}

std::vector<std::string> FolderEntries(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
    return names;
}

class ComponentResultTest : public ::testing::Test {
protected:
    ComponentResultTest() { peer.scanID() = L"scan1"; }

    DiagnosticsManager::commonComponent Component(std::int32_t failedTests) {
        DiagnosticsManager::commonComponent component;
        component.executionTime = L"0.123";
        component.resultType = L"Complete";
        component.componentId = L"9A1B2C3D-4E5F-4A6B-8C7D-0123456789AB";
        component.friendlyName = L"ZEP";
        component.failedTests = failedTests;
        return component;
    }

    fs::path Folder(const std::string& name = "ZEP") const {
        return platform.rootPath / "temp" / "Quorin" / "Zep" / "scan1" / name;
    }
    fs::path ResultFile(const std::string& name = "ZEP") const { return Folder(name) / "component-result.json"; }

    // Writes the document for `component` and returns the file's text.
    std::string Write(DiagnosticsManager::commonComponent component) {
        manager.HandleFlowAfterRunOfTests(component);
        return zep::testing::ReadText(ResultFile(zep::text::ToUtf8(component.friendlyName)));
    }

    zep::testing::TestPlatform platform;
    DiagnosticsManager manager;
    DiagnosticsManagerTestPeer peer{manager};
};

// ---- The document ----------------------------------------------------------

TEST_F(ComponentResultTest, WritesTheWholeDocumentInJsonCppDefaultStyle) {
    peer.tests() = {
        MakeTest(L"device_registered", L"123470e1-6d56-4eb7-8fdf-3bd3edc8bf02", L"registered", L"registered"),
        MakeTest(L"xrs_api_cert_pinning", L"123470e1-6d56-4eb7-8fdf-3bd3edc8bf06", L"success", L"failed"),
    };

    const std::string text = Write(Component(1));

    EXPECT_EQ(text,
              "{\n"
              "\t\"componentId\" : \"9A1B2C3D-4E5F-4A6B-8C7D-0123456789AB\",\n"
              "\t\"executionTimeSeconds\" : \"0.123\",\n"
              "\t\"friendlyName\" : \"ZEP\",\n"
              "\t\"isProblematic\" : true,\n"
              "\t\"resultType\" : \"Complete\",\n"
              "\t\"tests\" : \n"
              "\t[\n"
              "\t\t{\n"
              "\t\t\t\"actual\" : \"registered\",\n"
              "\t\t\t\"expected\" : \"registered\",\n"
              "\t\t\t\"friendlyName\" : \"device_registered\",\n"
              "\t\t\t\"id\" : \"123470e1-6d56-4eb7-8fdf-3bd3edc8bf02\",\n"
              "\t\t\t\"result\" : \"pass\"\n"
              "\t\t},\n"
              "\t\t{\n"
              "\t\t\t\"actual\" : \"failed\",\n"
              "\t\t\t\"expected\" : \"success\",\n"
              "\t\t\t\"friendlyName\" : \"xrs_api_cert_pinning\",\n"
              "\t\t\t\"id\" : \"123470e1-6d56-4eb7-8fdf-3bd3edc8bf06\",\n"
              "\t\t\t\"result\" : \"fail\"\n"
              "\t\t}\n"
              "\t]\n"
              "}");
}

TEST_F(ComponentResultTest, NoTestsGiveAnEmptyArray) {
    const std::string text = Write(Component(0));

    EXPECT_THAT(text, ::testing::HasSubstr("\"tests\" : []"));
    const Json::Value doc = Parse(text);
    ASSERT_TRUE(doc["tests"].isArray());
    EXPECT_EQ(doc["tests"].size(), 0u);
    EXPECT_FALSE(doc["isProblematic"].asBool());
}

TEST_F(ComponentResultTest, IsProblematicExactlyWhenAnyTestFailed) {
    const std::pair<std::int32_t, bool> cases[] = {{0, false}, {1, true}, {5, true}, {-1, true}};
    for (const auto& [failed, problematic] : cases) {
        SCOPED_TRACE(failed);
        const Json::Value doc = Parse(Write(Component(failed)));
        ASSERT_TRUE(doc["isProblematic"].isBool());
        EXPECT_EQ(doc["isProblematic"].asBool(), problematic);
    }
}

TEST_F(ComponentResultTest, ExecutionTimeIsAJsonString) {
    auto component = Component(0);
    component.executionTime = L"0";
    const Json::Value doc = Parse(Write(component));
    ASSERT_TRUE(doc["executionTimeSeconds"].isString());
    EXPECT_EQ(doc["executionTimeSeconds"].asString(), "0");
}

TEST_F(ComponentResultTest, EachTestHasExactlyItsFiveFieldsAndResultComparesCaseSensitively) {
    peer.tests() = {
        MakeTest(L"a", L"id-a", L"registered", L"Registered"),
        MakeTest(L"b", L"id-b", L"", L""),
        MakeTest(L"c", L"id-c", L"1", L"1 "),
    };
    const Json::Value tests = Parse(Write(Component(2)))["tests"];

    ASSERT_EQ(tests.size(), 3u);
    for (const auto& test : tests) {
        EXPECT_THAT(test.getMemberNames(), ElementsAre("actual", "expected", "friendlyName", "id", "result"));
    }
    EXPECT_EQ(tests[0]["result"].asString(), "fail");
    EXPECT_EQ(tests[0]["actual"].asString(), "Registered");
    EXPECT_EQ(tests[1]["result"].asString(), "pass");
    EXPECT_EQ(tests[2]["result"].asString(), "fail");
    EXPECT_EQ(tests[2]["actual"].asString(), "1 ");
}

TEST_F(ComponentResultTest, NonAsciiTextSurvivesTheRoundTrip) {
    peer.tests() = {MakeTest(L"city_Z\u00FCrich", L"id", L"Z\u00FCrich", L"\U0001F600 \u65E5\u672C")};
    auto component = Component(1);
    component.componentId = L"Z\u00FCrich-\U0001F600";

    const Json::Value doc = Parse(Write(component));

    EXPECT_EQ(doc["componentId"].asString(), "Z\xC3\xBCrich-\xF0\x9F\x98\x80");
    const Json::Value& test = doc["tests"][0];
    EXPECT_EQ(test["friendlyName"].asString(), "city_Z\xC3\xBCrich");
    EXPECT_EQ(test["expected"].asString(), "Z\xC3\xBCrich");
    EXPECT_EQ(test["actual"].asString(), "\xF0\x9F\x98\x80 \xE6\x97\xA5\xE6\x9C\xAC");
}

TEST_F(ComponentResultTest, ANewDocumentReplacesTheEarlierOne) {
    peer.tests() = {MakeTest(L"a", L"id-a", L"x", L"y")};
    Write(Component(1));
    peer.tests() = {MakeTest(L"a", L"id-a", L"x", L"x")};

    const Json::Value doc = Parse(Write(Component(0)));

    EXPECT_FALSE(doc["isProblematic"].asBool());
    EXPECT_EQ(doc["tests"][0]["result"].asString(), "pass");
    EXPECT_THAT(FolderEntries(Folder()), ElementsAre("component-result.json"));
}

// ---- Where it goes -----------------------------------------------------------

TEST_F(ComponentResultTest, SubFolderIsTheComponentNameWithoutAGeneratorAndTheGeneratorNameWithOne) {
    auto component = Component(0);
    component.friendlyName = L"Agent";
    manager.HandleFlowAfterRunOfTests(component);
    EXPECT_TRUE(fs::is_regular_file(ResultFile("Agent")));

    peer.generator() = std::make_shared<ZEP::ZEPDiagnosticsGenerator>();
    peer.scanID() = L"scan2";
    manager.HandleFlowAfterRunOfTests(component);
    EXPECT_TRUE(fs::is_regular_file(platform.rootPath / "temp" / "Quorin" / "Zep" / "scan2" / "ZEP" /
                                    "component-result.json"));
    EXPECT_FALSE(fs::exists(platform.rootPath / "temp" / "Quorin" / "Zep" / "scan2" / "Agent"));
}

TEST_F(ComponentResultTest, AFailedWriteIsLoggedLeavesNoTemporaryFileAndDoesNotThrow) {
    // A directory where the file should go makes the final rename fail (a
    // read-only folder would not stop root).
    fs::create_directories(ResultFile());
    const std::wstring path = zep::path::FromFs(ResultFile());

    EXPECT_NO_THROW(Write(Component(0)));

    EXPECT_TRUE(platform.log->Contains("Error opening json file " + zep::text::ToUtf8(path)));
    EXPECT_THAT(FolderEntries(Folder()), ElementsAre("component-result.json"));
    EXPECT_TRUE(fs::is_directory(ResultFile()));
    EXPECT_THAT(FolderEntries(ResultFile()), IsEmpty());
}

// ---- Result state --------------------------------------------------------------

TEST_F(ComponentResultTest, AHealthyComponentDoesNotClearAnEarlierProblem) {
    peer.isProblematic() = true;
    Write(Component(0));
    EXPECT_TRUE(peer.isProblematic());
    EXPECT_TRUE(manager.GetIsProblematic());

    peer.isProblematic() = false;
    Write(Component(0));
    EXPECT_FALSE(manager.GetIsProblematic());

    Write(Component(2));
    EXPECT_TRUE(manager.GetIsProblematic());
}

TEST_F(ComponentResultTest, CompletedTimeIsThePlatformClocksTimeToTheSecond) {
    Write(Component(0));
    EXPECT_EQ(manager.GetDiagnosticsCompletedTime(), L"2026-11-21T10:15:30Z");

    platform.clock->Advance(std::chrono::milliseconds(90'750));
    Write(Component(0));
    EXPECT_EQ(manager.GetDiagnosticsCompletedTime(), L"2026-11-21T10:17:00Z");
}

TEST_F(ComponentResultTest, ResetClearsTheScanResultsButKeepsTestsAndCompletedTime) {
    peer.isProblematic() = true;
    peer.contextCollected() = true;
    peer.logsCollected() = true;
    peer.networkStatus() = false;
    peer.fileUploadStatus() = true;
    peer.artifactIncludedStatus() = 0;
    peer.totalTestFailureCount() = 4;
    peer.totalExecutionTime() = 3.5f;
    peer.problemSignature() = L"sig";
    peer.resultType() = DiagnosticsManager::ErrorTimeOut;
    peer.requestId() = L"req-1";
    peer.diagnosticsCompletedTime() = L"2026-11-21T10:15:30Z";
    peer.tests() = {MakeTest(L"a", L"id-a", L"x", L"y")};

    peer.ResetComponentResultValues();

    EXPECT_FALSE(peer.isProblematic());
    EXPECT_FALSE(peer.contextCollected());
    EXPECT_FALSE(peer.logsCollected());
    EXPECT_TRUE(peer.networkStatus());
    EXPECT_FALSE(peer.fileUploadStatus());
    EXPECT_EQ(peer.artifactIncludedStatus(), 1);
    EXPECT_EQ(peer.totalTestFailureCount(), 0);
    EXPECT_EQ(peer.totalExecutionTime(), 0.0f);
    EXPECT_EQ(manager.GetTotalExecutionTime(), L"0.000");
    EXPECT_THAT(peer.problemSignature(), IsEmpty());
    EXPECT_EQ(static_cast<int>(peer.resultType()), -1);
    EXPECT_THAT(peer.scanID(), IsEmpty());
    EXPECT_THAT(peer.requestId(), IsEmpty());

    EXPECT_EQ(peer.tests().size(), 1u);
    EXPECT_EQ(peer.diagnosticsCompletedTime(), L"2026-11-21T10:15:30Z");
}

TEST_F(ComponentResultTest, ResultTypeTextAlsoRecordsTheResultType) {
    const std::pair<int, const wchar_t*> cases[] = {
        {0, L"Complete"}, {1, L"ErrorTimeOut"}, {2, L"ErrorGeneral"}, {7, L"ErrorGeneral"}, {-1, L"ErrorGeneral"},
    };
    for (const auto& [type, text] : cases) {
        SCOPED_TRACE(type);
        EXPECT_EQ(peer.GetResultType(static_cast<DiagnosticsManager::ResultType>(type)), text);
        EXPECT_EQ(static_cast<int>(peer.resultType()), type);
    }
}

TEST_F(ComponentResultTest, TriggerTypeTextFollowsTheScansTrigger) {
    const std::pair<std::uint32_t, const wchar_t*> cases[] = {
        {0, L"Manual"}, {1, L"Scheduled"}, {2, L"Mqtt"}, {3, L"Scheduled"},
    };
    for (const auto& [type, text] : cases) {
        peer.triggerType() = type;
        EXPECT_EQ(peer.GetTriggerType(), text) << type;
    }
}

}  // namespace
