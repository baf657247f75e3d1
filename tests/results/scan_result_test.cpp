// The scan result document, its problem signature and the duplicate rule.
#include <filesystem>
#include <initializer_list>
#include <sstream>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <json/json.h>

#include "platform/util/Strings.h"
#include "support/ManagerFixture.h"

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

    // A component document with the given tests ("id", "result" pairs).
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
        {"T,Scheduled,0,1,1,S\nT,Scheduled,1,1,1,X\n", L"X", false},
        {"T,Scheduled,0,1,1,abc\n", L"ABC", false},
        {"T,Scheduled,1,1,1,S\r\nT,Manual,0,1,1,S\r\nT,Mqtt,2,1,0,\"\"\r\n", L"S", true},
        {"T,Manual,0,1,1,S\ngarbage\nT,Remote,1,1,1,S\nT,Manual,x,1,1,S", L"S", true},  // unparsable lines skipped
        {"T,Scheduled,0,1,0,\nT,Scheduled,0,1,0,\r\n", L"", false},  // a trailing comma is no empty signature
        {"T,Scheduled,0,1,0,\"\"\r\nT,Scheduled,2,1,0,\"\"\r\n", L"\"\"", true},
        {"", L"S", false},
        {nullptr, L"\"\"", false},
    };
    for (const Case& c : cases) {
        fs::remove(History());
        if (c.history) WriteText(History(), c.history);
        EXPECT_EQ(manager->IsProblemSignatureDuplicate(c.signature), c.duplicate) << (c.history ? c.history : "none");
    }
}

}  // namespace
