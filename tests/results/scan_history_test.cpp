// The scan history: the 100-line ring and the last line's status update.
#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "platform/env/Env.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "support/HookedFiles.h"
#include "support/ManagerFixture.h"

namespace {

namespace fs = std::filesystem;
using zep::testing::HookedFiles;
using zep::testing::kHistoryLineEnd;
using zep::testing::ReadText;
using zep::testing::WriteText;

// History lines `from` to `to`, each with its own signature.
std::string NumberedLines(int from, int to) {
    std::string text;
    for (int i = from; i <= to; ++i) {
        text += "2026-01-01T00:00:00Z,Manual,0,1,0,sig" + std::to_string(i) + kHistoryLineEnd;
    }
    return text;
}

// Notes into `largest` the most bytes read from one opening of the file.
class MeteredFile : public zep::testing::InputFileWrapper {
public:
    MeteredFile(std::unique_ptr<zep::platform::InputFile> file, std::shared_ptr<std::size_t> largest)
        : InputFileWrapper(std::move(file)), largest_(std::move(largest)) {}
    ~MeteredFile() override { *largest_ = std::max(*largest_, read_); }
    bool Read(char* buffer, std::size_t size, std::size_t& got, zep::platform::FsStatus* status) override {
        const bool ok = InputFileWrapper::Read(buffer, size, got, status);
        read_ += got;
        return ok;
    }

private:
    std::shared_ptr<std::size_t> largest_;
    std::size_t read_ = 0;
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
    EXPECT_EQ(ReadText(History()), NumberedLines(1, 99) + stamp + "hundredth" + kHistoryLineEnd);

    peer->problemSignature() = L"newest";
    peer->GenerateScanHistory();
    EXPECT_EQ(ReadText(History()),
              NumberedLines(2, 99) + stamp + "hundredth" + kHistoryLineEnd + stamp + "newest" + kHistoryLineEnd);
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
    auto files = std::make_shared<HookedFiles>(zep::platform::DefaultEnv().files);
    const auto largest = std::make_shared<std::size_t>(0);
    files->input = [largest](const std::wstring& name, HookedFiles::Input file) -> HookedFiles::Input {
        if (name != L"scan-history.log") return file;
        return std::make_unique<MeteredFile>(std::move(file), largest);
    };
    platform.env.files = files;
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
    EXPECT_EQ(text.substr(0, text.find_first_of("\r\n")), "2026-01-01T00:00:00Z,Manual,0,1,0,sig19903");
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 100);
    EXPECT_NE(text.find(std::string("2026-01-01T00:00:00Z,Manual,2,0,0,sig20001") + kHistoryLineEnd), std::string::npos);
    EXPECT_LE(*largest, 64u * 1024u);
}

}  // namespace
