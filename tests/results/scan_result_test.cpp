// The scan result document, its problem signature and the duplicate rule.
#include <filesystem>
#include <initializer_list>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "platform/Strings.h"
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
    fs::path ResultPath() const {
        return platform.rootPath / "programdata" / "diagnostics" / "latest" / "scan-result.json";
    }
    fs::path HistoryPath() const { return platform.rootPath / "programdata" / "diagnostics" / "scan-history.log"; }

    // A component document with the given tests ("id:result" pairs).
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
        std::istringstream(ReadText(ResultPath())) >> document;
        return document;
    }
};

// ---- The document ----------------------------------------------------------

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
    EXPECT_EQ(peer->totalTestFailureCount(), 3);

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

TEST_F(ScanResultTest, NoFailedTestLeavesTheDocumentEmptyButStoresTwoQuotes) {
    WriteComponent("A", "A", "0.5", {{"t1", "pass"}, {"t2", "FAIL"}});
    WriteText(ScanFolder() / "A" / "artifact.json", "[1, 2]");  // a package's own file

    manager->GenerateScanResultInJson();

    const Json::Value doc = Result();
    EXPECT_EQ(doc["components"].size(), 2u);
    EXPECT_EQ(doc["problemSignature"].asString(), "");
    EXPECT_EQ(doc["failTestCount"].asInt(), 0);
    EXPECT_EQ(peer->problemSignature(), L"\"\"");
}

TEST_F(ScanResultTest, AnUnwalkableFolderCostsItsDocumentsNotTheScan) {
    WriteComponent("A", "A", "0.5", {{"t1", "fail"}});
    fs::create_symlink("loop.json", ScanFolder() / "loop.json");

    manager->GenerateScanResultInJson();

    EXPECT_EQ(Result()["components"].size(), 0u);
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::GenerateScanResultInJson: Exception Occurred: "));
}

TEST_F(ScanResultTest, ANonNumericTimeThrowsAndLeavesNoDocumentAndNoHalfTotals) {
    WriteText(ResultPath(), R"({"id":"earlier-scan"})");
    WriteComponent("A", "A", "0.5", {{"t1", "fail"}});
    WriteComponent("B", "B", "abc", {{"t2", "fail"}});

    EXPECT_THROW(manager->GenerateScanResultInJson(), std::invalid_argument);

    EXPECT_FALSE(fs::exists(ResultPath()));
    EXPECT_TRUE(fs::is_empty(ResultPath().parent_path()));
    EXPECT_EQ(peer->totalTestFailureCount(), 0);
    EXPECT_EQ(manager->GetTotalExecutionTime(), L"0.000");
    EXPECT_EQ(peer->problemSignature(), L"");

    // The next phase finds no document to extend, and does not make one.
    peer->AddArtifactSize();
    EXPECT_FALSE(fs::exists(ResultPath()));
}

// ---- The duplicate rule ------------------------------------------------------

struct DuplicateCase {
    const char* name;
    const char* history;
    const wchar_t* signature;
    bool duplicate;
};

void PrintTo(const DuplicateCase& c, std::ostream* os) { *os << c.name; }

class DuplicateTest : public ScanResultTest, public ::testing::WithParamInterface<DuplicateCase> {};

TEST_P(DuplicateTest, OnlyASuccessfulUploadOfTheSameSignatureCounts) {
    WriteText(HistoryPath(), GetParam().history);
    EXPECT_EQ(manager->IsProblemSignatureDuplicate(GetParam().signature), GetParam().duplicate);
}

INSTANTIATE_TEST_SUITE_P(
    History, DuplicateTest,
    ::testing::Values(
        DuplicateCase{"OlderUploadBehindNewerFailures",
                      "T,Scheduled,0,1,1,S\nT,Scheduled,1,1,1,S\nT,Scheduled,2,1,1,S\n", L"S", true},
        DuplicateCase{"OnlyFailedOrOfflineUploads", "T,Scheduled,2,1,1,S\nT,Scheduled,1,1,1,S\n", L"S", false},
        DuplicateCase{"UploadOfAnotherSignature", "T,Scheduled,0,1,1,S\nT,Scheduled,1,1,1,X\n", L"X", false},
        DuplicateCase{"SignaturesCompareExactly", "T,Scheduled,0,1,1,abc\n", L"ABC", false},
        DuplicateCase{"WindowsLineEnds", "T,Scheduled,1,1,1,S\r\nT,Manual,0,1,1,S\r\nT,Mqtt,2,1,0,\"\"\r\n", L"S",
                      true},
        DuplicateCase{"UnparsableLinesAreSkipped", "T,Manual,0,1,1,S\ngarbage\nT,Remote,1,1,1,S\nT,Manual,x,1,1,S",
                      L"S", true},
        DuplicateCase{"TrailingCommaHasNoEmptySignature", "T,Scheduled,0,1,0,\nT,Scheduled,0,1,0,\r\n", L"", false},
        DuplicateCase{"NoFailedTestsBefore", "T,Scheduled,0,1,0,\"\"\r\nT,Scheduled,2,1,0,\"\"\r\n", L"\"\"", true},
        DuplicateCase{"EmptyHistory", "", L"S", false}),
    [](const ::testing::TestParamInfo<DuplicateCase>& c) { return std::string(c.param.name); });

TEST_F(ScanResultTest, WithoutAHistoryNothingIsADuplicate) {
    EXPECT_FALSE(manager->IsProblemSignatureDuplicate(L"\"\""));
}

}  // namespace
