// Result documents are replaced atomically: a write that fails half-way
// leaves the old document whole.
#include <signal.h>
#include <sys/resource.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include "platform/Paths.h"
#include "support/FileSizeLimit.h"
#include "support/ManagerFixture.h"

using zep::testing::ManagerTest;
using zep::testing::ReadText;
using zep::testing::WriteText;

namespace {

using zep::testing::FileSizeLimit;


class AtomicWriteTest : public ManagerTest {};

TEST_F(AtomicWriteTest, AWriteThatFailsHalfWayKeepsTheOldDocument) {
    const auto folder = platform.rootPath / "programdata" / "diagnostics" / "latest";
    const auto path = folder / "scan-result.json";
    const std::string old = "{\"id\":\"previous scan\"}";
    WriteText(path, old);

    Json::Value document(Json::objectValue);
    document["componentId"] = std::string(4096, 'x');
    {
        FileSizeLimit limit(512);
        peer->SaveComponentResultsToFile(document, zep::path::FromFs(path));
    }
    EXPECT_EQ(ReadText(path), old);
    EXPECT_TRUE(platform.log->Contains("Error opening json file " + path.string()));
    std::size_t files = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder)) ++files;
    EXPECT_EQ(files, 1u) << "no temporary file is left beside the document";
}

}  // namespace
