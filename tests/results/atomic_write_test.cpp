// Result documents and the scan history are replaced atomically: a write that
// fails half-way (a full disk) leaves the old file whole and no temporary beside it.
#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <json/json.h>

#include "platform/util/Paths.h"
#include "support/FullDisk.h"
#include "support/ManagerFixture.h"

namespace {

namespace fs = std::filesystem;
using zep::testing::ReadText;
using zep::testing::WriteText;

class AtomicWriteTest : public zep::testing::ManagerTest {
protected:
    fs::path Folder() const { return platform.rootPath / "programdata" / "diagnostics"; }
    // Files of more than `limit` bytes cannot be written from now on.
    void FillDisk(std::uint64_t limit) {
        platform.env.files = std::make_shared<zep::testing::FullDisk>(platform.env.files, limit);
        platform.Reinstall();
    }
    static std::size_t FilesIn(const fs::path& folder) {
        std::size_t files = 0;
        for ([[maybe_unused]] const auto& entry : fs::directory_iterator(folder)) ++files;
        return files;
    }
};

TEST_F(AtomicWriteTest, AFailedDocumentWriteKeepsTheOldDocument) {
    const auto path = Folder() / "latest" / "scan-result.json";
    const std::string old = "{\"id\":\"previous scan\"}";
    WriteText(path, old);
    Json::Value document(Json::objectValue);
    document["componentId"] = std::string(4096, 'x');
    FillDisk(512);
    peer->SaveComponentResultsToFile(document, zep::path::FromFs(path));
    EXPECT_EQ(ReadText(path), old);
    EXPECT_EQ(FilesIn(path.parent_path()), 1u);
}

TEST_F(AtomicWriteTest, AFailedHistoryRewriteKeepsTheWholeOldHistory) {
    const auto path = Folder() / "scan-history.log";
    std::string old;
    for (int i = 0; i < 100; ++i) old += "2026-01-01T00:00:00Z,Manual,0,1,0,sig" + std::to_string(i) + "\n";
    WriteText(path, old);
    FillDisk(1024);
    peer->GenerateScanHistory();
    EXPECT_FALSE(manager->UpdateStatusForLastLineInScanHistoryFile(zep::path::FromFs(path), 0, 0));
    EXPECT_EQ(ReadText(path), old);
    EXPECT_EQ(FilesIn(Folder()), 1u);
}

}  // namespace
