// The zip's size recorded in the scan result.
#include <filesystem>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <json/json.h>

#include "platform/Strings.h"
#include "support/ManagerFixture.h"

namespace {

namespace fs = std::filesystem;
using zep::testing::ReadText;
using zep::testing::WriteText;

class ArtifactSizeTest : public zep::testing::ManagerTest {
protected:
    ArtifactSizeTest() { peer->scanID() = L"scan1"; }

    fs::path Latest() const { return platform.rootPath / "programdata" / "diagnostics" / "latest"; }
    fs::path ResultPath() const { return Latest() / "scan-result.json"; }
    fs::path ZipPath() const { return Latest() / (zep::text::ToUtf8(peer->ZipFolderName()) + ".zip"); }

    Json::Value Result() const {
        Json::Value document;
        std::istringstream(ReadText(ResultPath())) >> document;
        return document;
    }
};

TEST_F(ArtifactSizeTest, RecordsTheZipsSizeAndKeepsTheRest) {
    WriteText(ResultPath(), R"({"id":"scan1","failTestCount":2,"artifactSize":1})");
    WriteText(ZipPath(), std::string(5000, 'z'));

    peer->AddArtifactSize();

    const Json::Value doc = Result();
    ASSERT_TRUE(doc["artifactSize"].isUInt64());
    EXPECT_EQ(doc["artifactSize"].asUInt64(), 5000u);
    EXPECT_EQ(doc["id"].asString(), "scan1");
    EXPECT_EQ(doc["failTestCount"].asInt(), 2);
}

TEST_F(ArtifactSizeTest, AMissingZipIsRecordedAsZero) {
    WriteText(ResultPath(), R"({"id":"scan1"})");
    peer->AddArtifactSize();
    EXPECT_EQ(Result()["artifactSize"].asUInt64(), 0u);
}

TEST_F(ArtifactSizeTest, WithoutAScanResultNothingIsWritten) {
    WriteText(ZipPath(), "zip");
    peer->AddArtifactSize();
    EXPECT_FALSE(fs::exists(ResultPath()));
}

TEST_F(ArtifactSizeTest, AnUnreadableScanResultIsLoggedAndLeftAlone) {
    for (const std::string text : {"{\"id\": ", "[1, 2]"}) {
        WriteText(ResultPath(), text);
        peer->AddArtifactSize();
        EXPECT_EQ(ReadText(ResultPath()), text);
    }
    EXPECT_EQ(platform.log->Count("DiagnosticsManager::AddArtifactSize: Exception Occurred: "), 2u);
}

}  // namespace
