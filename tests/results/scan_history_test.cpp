// The scan history: the 100-line ring and the last line's status update.
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "platform/util/Paths.h"
#include "support/ManagerFixture.h"

namespace {

namespace fs = std::filesystem;
using zep::testing::ReadText;
using zep::testing::WriteText;

// History lines `from` to `to`, each with its own signature.
std::string NumberedLines(int from, int to) {
    std::string text;
    for (int i = from; i <= to; ++i) text += "2026-01-01T00:00:00Z,Manual,0,1,0,sig" + std::to_string(i) + "\n";
    return text;
}

class ScanHistoryTest : public zep::testing::ManagerTest {
protected:
    fs::path History() const { return platform.rootPath / "programdata" / "diagnostics" / "scan-history.log"; }
    std::wstring HistoryW() const { return zep::path::FromFs(History()); }
};

TEST_F(ScanHistoryTest, TheHundredAndFirstLinePushesOutTheOldest) {
    const std::string stamp = "2026-11-21T10:15:30Z,Manual,1,1,0,";
    WriteText(History(), NumberedLines(1, 99));

    peer->problemSignature() = L"hundredth";
    peer->GenerateScanHistory();
    EXPECT_EQ(ReadText(History()), NumberedLines(1, 99) + stamp + "hundredth\n");

    peer->problemSignature() = L"newest";
    peer->GenerateScanHistory();
    EXPECT_EQ(ReadText(History()), NumberedLines(2, 99) + stamp + "hundredth\n" + stamp + "newest\n");
}

TEST_F(ScanHistoryTest, UpdateLeavesALastLineWithSevenFieldsUntouched) {
    const std::string text = "T0,Mqtt,2,1,3,abc\nT,Manual,2,1,0,abc,extra\n";
    WriteText(History(), text);

    EXPECT_FALSE(manager->UpdateStatusForLastLineInScanHistoryFile(HistoryW(), 0, 0));
    EXPECT_EQ(ReadText(History()), text);
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::UpdateStatusForLastLineInScanHistoryFile Unexpected "
                                       "values count in scan history last line: 7"));
}

}  // namespace
