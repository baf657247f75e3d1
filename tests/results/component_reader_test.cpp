// Reading component documents and a stored scan result back.
#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "support/ManagerFixture.h"

namespace {

namespace fs = std::filesystem;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using zep::testing::WriteText;

class ComponentReaderTest : public zep::testing::ManagerTest {
protected:
    fs::path Folder() const { return platform.rootPath / "temp" / "components"; }

    std::vector<Json::Value> Parse(const fs::path& file) {
        std::vector<Json::Value> documents;
        peer->ParseComponentJson(file.string(), documents);
        return documents;
    }

    fs::path ScanResultPath() const {
        return platform.rootPath / "programdata" / "diagnostics" / "latest" / "scan-result.json";
    }
};

// ---- Finding the documents -------------------------------------------------

TEST_F(ComponentReaderTest, FindsJsonFilesAtAnyDepthByTheirExactExtension) {
    for (const char* name : {"a.json", "ZEP/component-result.json", "pkg/x/y/deep.json", "a.JSON", "a.json.bak",
                             "a.jsonx", "json", "pkg/readme.txt"}) {
        WriteText(Folder() / name, "{}");
    }
    fs::create_directories(Folder() / "folder.json");

    const std::vector<std::string> paths = peer->GetAllJsonFilePaths(Folder().string());

    EXPECT_THAT(paths, UnorderedElementsAre((Folder() / "a.json").string(),
                                            (Folder() / "ZEP" / "component-result.json").string(),
                                            (Folder() / "pkg" / "x" / "y" / "deep.json").string()));
    EXPECT_TRUE(platform.log->Contains("total files: 3"));
}

TEST_F(ComponentReaderTest, WalkErrorsAreThrownAsFilesystemErrors) {
    EXPECT_THROW(peer->GetAllJsonFilePaths((Folder() / "missing").string()), fs::filesystem_error);

    // A link to itself cannot be stat'ed, even by root.
    fs::create_directories(Folder());
    fs::create_symlink("loop.json", Folder() / "loop.json");
    EXPECT_THROW(peer->GetAllJsonFilePaths(Folder().string()), fs::filesystem_error);
}

// ---- Parsing one document --------------------------------------------------

TEST_F(ComponentReaderTest, SkipsMissingEmptyAndMalformedFilesWithTheirMessages) {
    WriteText(Folder() / "empty.json", "");
    WriteText(Folder() / "bad.json", "{\"componentId\": ");

    EXPECT_THAT(Parse(Folder() / "missing.json"), IsEmpty());
    EXPECT_THAT(Parse(Folder() / "empty.json"), IsEmpty());
    EXPECT_THAT(Parse(Folder() / "bad.json"), IsEmpty());

    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::ParseComponentJson Error opening component file:" +
                                       (Folder() / "missing.json").string()));
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::ParseComponentJson skipping empty component file:" +
                                       (Folder() / "empty.json").string()));
    EXPECT_EQ(platform.log->Count("DiagnosticsManager::ParseComponentJson: Exception Occurred: "), 1u);
}

TEST_F(ComponentReaderTest, DeepNestingIsRejectedWithoutExhaustingTheStack) {
    WriteText(Folder() / "deep.json", std::string(100000, '['));
    EXPECT_THAT(Parse(Folder() / "deep.json"), IsEmpty());
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::ParseComponentJson: Exception Occurred: "));

    // A depth real documents could have still parses.
    WriteText(Folder() / "ok.json", std::string(200, '[') + std::string(200, ']'));
    EXPECT_EQ(Parse(Folder() / "ok.json").size(), 1u);
}

// ---- Re-population from a stored scan result -------------------------------

TEST_F(ComponentReaderTest, RepopulatesTheTotalsFromTheStoredScanResult) {
    WriteText(ScanResultPath(), R"({"executionTimeSeconds":"2.5","isProblematic":true,"failTestCount":4,)"
                                R"("problemSignature":"\"\"","id":"scan-7","trigger":"Mqtt","components":[]})");
    peer->totalExecutionTime() = 1.0f;
    peer->fileUploadStatus() = true;

    peer->RepopulateComponentResultValues();

    EXPECT_FLOAT_EQ(peer->totalExecutionTime(), 3.5f);  // added, not assigned
    EXPECT_TRUE(peer->isProblematic());
    EXPECT_EQ(peer->totalTestFailureCount(), 4);
    EXPECT_FALSE(peer->fileUploadStatus());
    EXPECT_EQ(peer->problemSignature(), L"\"\"");
    EXPECT_EQ(peer->scanID(), L"scan-7");
}

TEST_F(ComponentReaderTest, AFailedRepopulationKeepsOnlyTheFieldsAssignedBeforeIt) {
    auto prime = [&] {
        peer->totalExecutionTime() = 1.0f;
        peer->isProblematic() = false;
        peer->fileUploadStatus() = true;
        peer->scanID() = L"old";
    };

    // The time comes first: a non-numeric one leaves everything as it was.
    prime();
    WriteText(ScanResultPath(), R"({"executionTimeSeconds":"abc","isProblematic":true,"id":"new"})");
    peer->RepopulateComponentResultValues();
    EXPECT_FLOAT_EQ(peer->totalExecutionTime(), 1.0f);
    EXPECT_FALSE(peer->isProblematic());
    EXPECT_TRUE(peer->fileUploadStatus());
    EXPECT_EQ(peer->scanID(), L"old");
    EXPECT_TRUE(
        platform.log->Contains("DiagnosticsManager::RepopulateComponentResultValues: Exception Occurred: stof"));

    // A count of the wrong type stops after the time and the problematic flag.
    prime();
    WriteText(ScanResultPath(), R"({"executionTimeSeconds":"0.5","isProblematic":true,"failTestCount":"many",)"
                                R"("id":"new"})");
    peer->RepopulateComponentResultValues();
    EXPECT_FLOAT_EQ(peer->totalExecutionTime(), 1.5f);
    EXPECT_TRUE(peer->isProblematic());
    EXPECT_TRUE(peer->fileUploadStatus());
    EXPECT_EQ(peer->scanID(), L"old");
}

TEST_F(ComponentReaderTest, AMissingScanResultChangesNothing) {
    peer->scanID() = L"old";
    peer->RepopulateComponentResultValues();
    EXPECT_EQ(peer->scanID(), L"old");
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::RepopulateComponentResultValues Error opening component "
                                       "file:" + ScanResultPath().string()));
}

}  // namespace
