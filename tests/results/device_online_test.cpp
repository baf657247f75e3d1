// Resuming an upload that the last scan left for when the device is online.
#include <filesystem>
#include <ostream>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "platform/Paths.h"
#include "platform/Strings.h"
#include "platform/ZEPNotificationData.h"
#include "support/ManagerFixture.h"

namespace {

namespace fs = std::filesystem;
using zep::testing::ReadText;
using zep::testing::WriteText;

constexpr const char* kSignature = "977e31632a72c148fa7aeaa38379bd6d952ffabe8f05a04f5f124dbe98359a5a";

class DeviceOnlineTest : public zep::testing::ManagerTest {
protected:
    fs::path Latest() const { return platform.rootPath / "programdata" / "diagnostics" / "latest"; }
    fs::path History() const { return platform.rootPath / "programdata" / "diagnostics" / "scan-history.log"; }
    std::string ZipOf(const std::string& scan) const { return (Latest() / ("LD-TEST01_" + scan + ".zip")).string(); }

    // What the offline scan "resumed-scan" left in the latest folder.
    void WriteScanResult() {
        WriteText(Latest() / "scan-result.json",
                  std::string(R"({"trigger":"Mqtt","id":"resumed-scan","executionTimeSeconds":"1.500",)") +
                      R"("isProblematic":true,"failTestCount":2,"problemSignature":")" + kSignature +
                      R"(","components":[]})");
    }
    static std::string Line(const std::string& stamp, const std::string& trigger, const std::string& statuses) {
        return stamp + "," + trigger + "," + statuses + ",2," + kSignature + "\n";
    }

    void ExpectManagerReset() {
        EXPECT_EQ(peer->scanID(), L"");
        EXPECT_EQ(peer->problemSignature(), L"");
        EXPECT_EQ(peer->totalTestFailureCount(), 0);
        EXPECT_FALSE(peer->isProblematic());
        EXPECT_EQ(peer->artifactIncludedStatus(), 1);
        EXPECT_TRUE(peer->networkStatus());
        EXPECT_FALSE(peer->fileUploadStatus());
        EXPECT_FLOAT_EQ(peer->totalExecutionTime(), 0.0f);
    }
};

// ---- An offline last line is resumed ----------------------------------------------

struct ResumeCase {
    bool online;
    int storageAnswer;
    std::size_t uploads;
    const char* statuses;  // fields 3 and 4 of the last line afterwards
};

void PrintTo(const ResumeCase& c, std::ostream* os) {
    *os << (c.online ? "online, storage answers " + std::to_string(c.storageAnswer) : std::string("offline"));
}

class ResumeTest : public DeviceOnlineTest, public ::testing::WithParamInterface<ResumeCase> {};

TEST_P(ResumeTest, UploadsTheScanAgainAndRecordsTheOutcome) {
    const ResumeCase& c = GetParam();
    WriteScanResult();
    const std::string earlier = Line("T0", "Manual", "2,1");  // no longer last: never resumed
    WriteText(History(), earlier + Line("T1", "Mqtt", "2,1"));
    platform.device->online = c.online;
    platform.storage->otherwise = c.storageAnswer;

    manager->DeviceHasComeOnline();

    const auto uploads = platform.storage->Uploads();
    ASSERT_EQ(uploads.size(), c.uploads);
    if (!uploads.empty()) {
        // The scan named by the stored scan result, as the registered device it is.
        EXPECT_EQ(uploads[0].filePath, ZipOf("resumed-scan"));
        EXPECT_FALSE(uploads[0].unregisteredDevice);
    }
    EXPECT_EQ(ReadText(History()), earlier + Line("T1", "Mqtt", c.statuses));
    ExpectManagerReset();
}

INSTANTIATE_TEST_SUITE_P(Outcomes, ResumeTest,
                         ::testing::Values(ResumeCase{true, 0, 1, "0,0"}, ResumeCase{true, 3, 1, "1,0"},
                                           // Still offline: the line stays pending for the next time.
                                           ResumeCase{false, 0, 0, "2,1"}));

TEST_F(DeviceOnlineTest, TheResumedScanKeepsTheTriggerOfItsLine) {
    // A scheduled scan whose problems were uploaded already sends only its
    // summary; with the manager's own trigger (manual) the zip would go.
    WriteScanResult();
    const std::string uploaded = Line("T0", "Scheduled", "0,1");
    WriteText(History(), uploaded + Line("T1", "scheduled", "2,1"));
    peer->triggerType() = 0;

    manager->DeviceHasComeOnline();

    const auto uploads = platform.storage->Uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].filePath, (Latest() / "scan-result.json").string());
    EXPECT_EQ(peer->triggerType(), 1u);
    // No zip was tried, so the artifact status stays 1.
    EXPECT_EQ(ReadText(History()), uploaded + Line("T1", "scheduled", "0,1"));
}

// ---- Everything else is left alone -----------------------------------------------

TEST_F(DeviceOnlineTest, OnlyAnOfflineLastLineIsResumed) {
    WriteScanResult();
    const std::string offline = Line("T0", "Mqtt", "2,1");
    for (const std::string& text : {
             // Failed while the network was up: not retried here.
             offline + Line("T1", "Mqtt", "1,0"),
             // A newer scan hides the offline one for good.
             offline + Line("T1", "Manual", "0,0"),
             offline + Line("T1", "Manual", "1,1"),
         }) {
        WriteText(History(), text);
        manager->DeviceHasComeOnline();
        EXPECT_EQ(ReadText(History()), text);
    }
    EXPECT_TRUE(platform.storage->Uploads().empty());
    EXPECT_EQ(peer->scanID(), L"") << "the stored scan result was not read";
}

TEST_F(DeviceOnlineTest, AnUnusableLastLineIsLoggedAndNothingIsUploaded) {
    WriteScanResult();
    const std::string label = "DiagnosticsManager::DeviceHasComeOnline Unable to parse last line in scan history: ";
    struct Case {
        std::string text;
        std::string lastLine;
    };
    for (const Case& c : {Case{Line("T0", "Mqtt", "2,1") + "garbage\n", "garbage"},
                          // An empty signature leaves five fields.
                          Case{"T1,Mqtt,2,1,2,\n", "T1,Mqtt,2,1,2,"}, Case{"", ""}}) {
        platform.log->Clear();
        WriteText(History(), c.text);
        manager->DeviceHasComeOnline();
        EXPECT_EQ(ReadText(History()), c.text);
        EXPECT_EQ(platform.log->Count(label + c.lastLine), 1u) << c.lastLine;
    }

    fs::remove(History());
    manager->DeviceHasComeOnline();
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::GetLastLineInFile File " + History().string() +
                                       " does not exist"));
    EXPECT_FALSE(fs::exists(History()));
    EXPECT_TRUE(platform.storage->Uploads().empty());
}

// ---- Through the hub, and after a real offline scan ---------------------------------

TEST_F(DeviceOnlineTest, BothDeviceOnlineNotificationsResume) {
    WriteScanResult();
    for (const auto& [topic, state] : {std::pair{6, 0}, std::pair{10, 13}}) {
        WriteText(History(), Line("T1", "Mqtt", "2,1"));
        Deliver(ZEPNotificationData(topic, state, L"", L"", L""));
        EXPECT_EQ(ReadText(History()), Line("T1", "Mqtt", "0,0")) << "topic " << topic;
    }
    EXPECT_EQ(platform.storage->Uploads().size(), 2u);
}

TEST_F(DeviceOnlineTest, AScanLeftOfflineIsUploadedWhenTheDeviceComesBack) {
    platform.device->online = false;
    Scan(DiagnosticsManager::kManualScanRequest);
    ASSERT_TRUE(platform.storage->Uploads().empty());
    const auto names = ScanNames();
    ASSERT_EQ(names.size(), 1u);
    const std::string scan = zep::text::ToUtf8(names[0]);
    const std::string pending = ReadText(History());
    ASSERT_NE(pending.find("2026-11-21T10:15:30Z,Manual,2,1,"), std::string::npos) << pending;

    platform.device->online = true;
    Deliver(ZEPNotificationData(6, 0, L"", L"", L""));

    const auto uploads = platform.storage->Uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].filePath, ZipOf(scan));
    EXPECT_TRUE(fs::exists(ZipOf(scan)));
    std::string uploaded = pending;
    uploaded.replace(uploaded.find(",2,1,"), 5, ",0,0,");
    EXPECT_EQ(ReadText(History()), uploaded);
    ExpectManagerReset();
}

}  // namespace
