// Resuming an upload that the last scan left for when the device is online.
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "support/ManagerFixture.h"

namespace {

using zep::testing::ReadText;
using zep::testing::WriteText;

constexpr const char* kSignature = "977e31632a72c148fa7aeaa38379bd6d952ffabe8f05a04f5f124dbe98359a5a";

std::string Line(const std::string& stamp, const std::string& statuses) {
    return stamp + ",Mqtt," + statuses + ",2," + kSignature + zep::testing::kHistoryLineEnd;
}

class DeviceOnlineTest : public zep::testing::ManagerTest {};

// Only a last line still marked offline (2) is resumed: not one that failed
// while online (1), nor an offline one that a newer scan's line follows.
TEST_F(DeviceOnlineTest, ResumesOnlyAnOfflineLastLineAndRecordsTheOutcome) {
    struct Case {
        const char* lastStatuses;
        bool online;
        int storageAnswer;
        bool uploaded;
        const char* statusesAfter;
    };
    const Case cases[] = {
        {"2,1", true, 0, true, "0,0"}, {"2,1", true, 3, true, "1,0"},
        {"2,1", false, 0, false, "2,1"},  // still offline: stays pending
        {"1,0", true, 0, false, "1,0"},   {"0,0", true, 0, false, "0,0"}, {"1,1", true, 0, false, "1,1"},
    };
    const auto latest = platform.rootPath / "programdata" / "diagnostics" / "latest";
    const auto history = platform.rootPath / "programdata" / "diagnostics" / "scan-history.log";
    WriteText(latest / "scan-result.json",
              std::string(R"({"trigger":"Mqtt","id":"resumed-scan","executionTimeSeconds":"1.500",)") +
                  R"("isProblematic":true,"failTestCount":2,"problemSignature":")" + kSignature +
                  R"(","components":[]})");
    const std::string earlier = Line("T0", "2,1");  // no longer last: never resumed
    std::size_t uploads = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.lastStatuses) + (c.online ? " online" : " offline"));
        WriteText(history, earlier + Line("T1", c.lastStatuses));
        platform.device->online = c.online;
        platform.storage->otherwise = c.storageAnswer;

        manager->DeviceHasComeOnline();

        const auto sent = platform.storage->Uploads();
        ASSERT_EQ(sent.size(), uploads += c.uploaded ? 1 : 0);
        if (c.uploaded) {
            // The scan named by the stored scan result, as the registered device it is.
            EXPECT_EQ(sent.back().filePath, (latest / "LD-TEST01_resumed-scan.zip").string());
            EXPECT_FALSE(sent.back().unregisteredDevice);
        }
        EXPECT_EQ(ReadText(history), earlier + Line("T1", c.statusesAfter));
        // The resumed scan's totals must not leak into the next scan.
        EXPECT_EQ(peer->scanID(), L"");
        EXPECT_EQ(peer->totalTestFailureCount(), 0);
        EXPECT_FALSE(peer->isProblematic());
    }
}

}  // namespace
