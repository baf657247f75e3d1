// The scan history: the 100-line ring and the last line's status update.
#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "platform/Env.h"
#include "platform/FileSystemEnv.h"
#include "platform/Paths.h"
#include "platform/Strings.h"
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

// Notes the largest number of bytes a read of a history file returned.
class ReadMeter : public zep::platform::FileSystemEnvWrapper {
public:
    using FileSystemEnvWrapper::FileSystemEnvWrapper;
    bool ReadFile(const std::wstring& path, std::string& contents) override {
        const bool ok = target()->ReadFile(path, contents);
        Note(path, contents);
        return ok;
    }
    bool ReadFileTail(const std::wstring& path, std::size_t maxBytes, std::string& contents,
                      bool& truncated) override {
        const bool ok = target()->ReadFileTail(path, maxBytes, contents, truncated);
        Note(path, contents);
        return ok;
    }
    std::size_t largest = 0;

private:
    void Note(const std::wstring& path, const std::string& contents) {
        if (path.find(L"scan-history.log") != std::wstring::npos) largest = std::max(largest, contents.size());
    }
};

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

// A history grown far past the ring (a million lines) costs no more than a
// proper one: every reader takes only the tail, and the writer puts the ring
// back.
TEST_F(ScanHistoryTest, AHugeHistoryIsReadOnlyFromItsTail) {
    auto meter = std::make_shared<ReadMeter>(zep::platform::DefaultEnv().files);
    platform.env.files = meter;
    platform.Reinstall();
    WriteText(History(), std::string(3'000'000, 'x') + "\n" + NumberedLines(1, 20'001));

    std::wstring path = HistoryW();
    EXPECT_EQ(zep::text::ToUtf8(manager->GetLastLineInFile(path)), "2026-01-01T00:00:00Z,Manual,0,1,0,sig20001");
    EXPECT_FALSE(manager->IsProblemSignatureDuplicate(L"sig1"));
    EXPECT_TRUE(manager->IsProblemSignatureDuplicate(L"sig19950"));
    EXPECT_TRUE(manager->UpdateStatusForLastLineInScanHistoryFile(path, 2, 0));
    peer->problemSignature() = L"newest";
    peer->GenerateScanHistory();

    const std::string text = ReadText(History());
    EXPECT_EQ(text.substr(0, text.find('\n')), "2026-01-01T00:00:00Z,Manual,0,1,0,sig19903");
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 100);
    EXPECT_NE(text.find("2026-01-01T00:00:00Z,Manual,2,0,0,sig20001\n"), std::string::npos);
    EXPECT_LE(meter->largest, 64u * 1024u);
}

}  // namespace
