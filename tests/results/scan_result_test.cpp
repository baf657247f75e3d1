#include "results/ProblemSignature.h"
#include "results/ResultFormat.h"

#include <algorithm>
#include <filesystem>
#include <initializer_list>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "platform/util/Strings.h"
#include "support/ManagerFixture.h"

namespace zep::results {
namespace {

Json::Value TestDoc(const std::string& id, const Json::Value& result) {
    Json::Value test(Json::objectValue);
    test["id"] = id;
    if (!result.isNull()) test["result"] = result;
    return test;
}

Json::Value Component(const std::string& id, std::vector<Json::Value> tests) {
    Json::Value component(Json::objectValue);
    component["componentId"] = id;
    component["tests"] = Json::Value(Json::arrayValue);
    for (auto& test : tests) component["tests"].append(test);
    return component;
}

// Only the exact lower-case "fail" counts; the order is by component, then test.
TEST(SignatureInputTest, SortsFailedTestsWhateverTheReadingOrder) {
    std::vector<Json::Value> components = {
        Component("B", {TestDoc("t2", "fail"), TestDoc("t1", "fail"), TestDoc("t0", "pass"), TestDoc("t3", "Fail"),
                        TestDoc("t4", "FAIL"), TestDoc("t5", "fail "), TestDoc("t6", Json::Value()),
                        TestDoc("t7", true)}),
        Component("A", {TestDoc("t9", "fail")}),
        Component("C", {}),
    };
    std::sort(components.begin(), components.end());
    do {
        const ComponentSummary summary = SummariseComponents(components, 0.0f);
        EXPECT_EQ(summary.signatureInput, "A,t9\nB,t1\nB,t2\n");
        EXPECT_EQ(summary.failedTests, 3);
    } while (std::next_permutation(components.begin(), components.end()));
}

TEST(FormatExecutionTimeTest, RoundsUpToTheNextWholeMillisecondWithThreeDecimals) {
    struct Case {
        float seconds;
        const wchar_t* text;
    };
    const Case cases[] = {
        {0.0f, L"0.000"},
        {0.0001f, L"0.001"},  // any measurable time shows as at least one millisecond
        // 0.001f lies a little above 0.001, but its single-precision product is exactly 1 ms.
        {0.001f, L"0.001"}, {0.0015f, L"0.002"}, {1.2344f, L"1.235"}, {59.9991f, L"60.000"}, {12345.678f, L"12345.678"},
    };
    for (const Case& c : cases) EXPECT_EQ(FormatExecutionTime(c.seconds), c.text) << c.seconds;
}

}  // namespace
}  // namespace zep::results

namespace {

namespace fs = std::filesystem;
using zep::testing::ReadText;
using zep::testing::WriteText;

// printf 'A,t9\nB,t1\nB,t2\n' | sha256sum
constexpr const char* kExampleDigest = "977e31632a72c148fa7aeaa38379bd6d952ffabe8f05a04f5f124dbe98359a5a";

class ScanResultTest : public zep::testing::ManagerTest {
protected:
    ScanResultTest() {
        peer->scanID() = L"scan1";
        peer->triggerType() = 2;
        peer->diagnosticsCompletedTime() = L"2026-11-21T10:15:30Z";
    }

    fs::path ScanFolder() const { return platform.rootPath / "temp" / "Quorin" / "Zep" / "scan1"; }
    fs::path History() const { return platform.rootPath / "programdata" / "diagnostics" / "scan-history.log"; }

    void WriteComponent(const std::string& folder, const std::string& id, const std::string& seconds,
                        std::initializer_list<std::pair<const char*, const char*>> tests) {
        std::string text = R"({"componentId":")" + id + R"(","executionTimeSeconds":")" + seconds +
                           R"(","artifactsProvided":true,"tests":[)";
        for (const auto& [testId, result] : tests) {
            if (text.back() != '[') text += ',';
            text += std::string(R"({"id":")") + testId + R"(","result":")" + result + R"("})";
        }
        WriteText(ScanFolder() / folder / "component-result.json", text + "]}");
    }

    Json::Value Result() const {
        Json::Value document;
        std::istringstream(ReadText(History().parent_path() / "latest" / "scan-result.json")) >> document;
        return document;
    }
};

TEST_F(ScanResultTest, SummarisesEveryComponentUnderTheScansFolder) {
    WriteComponent("B", "B", "0.100", {{"t2", "fail"}, {"t1", "fail"}, {"t3", "pass"}});
    WriteComponent("pkg/nested/A", "A", "0.2004", {{"t9", "fail"}, {"t8", "Fail"}});
    WriteText(ScanFolder() / "B" / "log.txt", "not a document");
    peer->isProblematic() = true;

    manager->GenerateScanResultInJson();

    const Json::Value doc = Result();
    EXPECT_EQ(doc["trigger"].asString(), "Mqtt");
    EXPECT_EQ(doc["id"].asString(), "scan1");
    EXPECT_EQ(doc["deviceId"].asString(), zep::text::ToUtf8(platform.device->deviceId));
    EXPECT_EQ(doc["executionTimeSeconds"].asString(), "0.301");
    EXPECT_EQ(doc["deviceTimeCompletedAt"].asString(), "2026-11-21T10:15:30Z");
    ASSERT_TRUE(doc["isProblematic"].isBool());
    EXPECT_TRUE(doc["isProblematic"].asBool());
    ASSERT_TRUE(doc["failTestCount"].isInt());
    EXPECT_EQ(doc["failTestCount"].asInt(), 3);
    EXPECT_EQ(doc["problemSignature"].asString(), kExampleDigest);
    EXPECT_EQ(peer->problemSignature(), zep::text::FromUtf8(kExampleDigest));
    ASSERT_EQ(doc["components"].size(), 2u);
    for (const Json::Value& component : doc["components"]) {
        EXPECT_TRUE(component["artifactsProvided"].asBool()) << "components are copied whole";
    }
}

TEST_F(ScanResultTest, WithoutAComponentFolderTheDocumentIsStillWritten) {
    manager->GenerateScanResultInJson();

    const Json::Value doc = Result();
    EXPECT_TRUE(doc["components"].isArray());
    EXPECT_EQ(doc["components"].size(), 0u);
    EXPECT_EQ(doc["problemSignature"].asString(), "");
    EXPECT_EQ(doc["failTestCount"].asInt(), 0);
    EXPECT_EQ(doc["executionTimeSeconds"].asString(), "0.000");
    EXPECT_EQ(peer->problemSignature(), L"\"\"");
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::GenerateScanResultInJson Component Folder does not exist"));
}

// Only a successful upload (0) of the very same signature makes a duplicate.
TEST_F(ScanResultTest, DuplicateRule) {
    struct Case {
        const char* history;  // nullptr: no history file
        const wchar_t* signature;
        bool duplicate;
    };
    const Case cases[] = {
        {"T,Scheduled,0,1,1,S\nT,Scheduled,1,1,1,S\nT,Scheduled,2,1,1,S\n", L"S", true},
        {"T,Scheduled,2,1,1,S\nT,Scheduled,1,1,1,S\n", L"S", false},
        {"T,Scheduled,0,1,1,abc\n", L"ABC", false},
        {"T,Scheduled,1,1,1,S\r\nT,Manual,0,1,1,S\r\nT,Mqtt,2,1,0,\"\"\r\n", L"S", true},
        {"T,Manual,0,1,1,S\ngarbage\nT,Remote,1,1,1,S\nT,Manual,x,1,1,S", L"S", true},  // unparsable lines skipped
        {"T,Scheduled,0,1,0,\nT,Scheduled,0,1,0,\r\n", L"", false},  // a trailing comma is no empty signature
        {"T,Scheduled,0,1,0,\"\"\r\nT,Scheduled,2,1,0,\"\"\r\n", L"\"\"", true},
        {nullptr, L"\"\"", false},
    };
    for (const Case& c : cases) {
        fs::remove(History());
        if (c.history) WriteText(History(), c.history);
        EXPECT_EQ(manager->IsProblemSignatureDuplicate(c.signature), c.duplicate) << (c.history ? c.history : "none");
    }
}

zep::diagnostics::Tests MakeTest(std::wstring name, std::wstring id, std::wstring expected, std::wstring actual) {
    zep::diagnostics::Tests test;
    test.name = std::move(name);
    test.id = std::move(id);
    test.expected = std::move(expected);
    test.actual = std::move(actual);
    return test;
}

// The cloud reads this exact layout: JsonCpp's default style, keys sorted.
TEST_F(ScanResultTest, TheComponentResultIsWrittenWholeInJsonCppDefaultStyle) {
    peer->tests() = {
        MakeTest(L"device_registered", L"123470e1-6d56-4eb7-8fdf-3bd3edc8bf02", L"registered", L"registered"),
        MakeTest(L"xrs_api_cert_pinning", L"123470e1-6d56-4eb7-8fdf-3bd3edc8bf06", L"success", L"failed"),
    };
    DiagnosticsManager::commonComponent component;
    component.executionTime = L"0.123";
    component.resultType = L"Complete";
    component.componentId = L"9A1B2C3D-4E5F-4A6B-8C7D-0123456789AB";
    component.friendlyName = L"ZEP";
    component.failedTests = 1;

    manager->HandleFlowAfterRunOfTests(component);

    EXPECT_EQ(ReadText(ScanFolder() / "ZEP" / "component-result.json"),
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

}  // namespace
