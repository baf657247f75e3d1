// The scan history: appending a scan's line, the 100-line ring, the last line
// and its status update, and what survives a failed rewrite.
#include <signal.h>
#include <sys/resource.h>

#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Paths.h"
#include "platform/Strings.h"
#include "support/FileSizeLimit.h"
#include "support/ManagerFixture.h"

namespace {

using zep::testing::FileSizeLimit;

namespace fs = std::filesystem;
using zep::testing::ReadText;
using zep::testing::WriteText;

// The real file system, except that one file cannot be read.
class UnreadableFile : public zep::platform::FileSystemEnvWrapper {
public:
    UnreadableFile(std::shared_ptr<zep::platform::FileSystemEnv> inner, std::wstring refused)
        : FileSystemEnvWrapper(std::move(inner)), refused_(std::move(refused)) {}
    bool ReadFile(const std::wstring& p, std::string& c) override {
        return p != refused_ && FileSystemEnvWrapper::ReadFile(p, c);
    }

private:
    std::wstring refused_;
};


// History lines `from` to `to`, each with its own signature.
std::string NumberedLines(int from, int to) {
    std::string text;
    for (int i = from; i <= to; ++i) text += "2026-01-01T00:00:00Z,Manual,0,1,0,sig" + std::to_string(i) + "\n";
    return text;
}

class ScanHistoryTest : public zep::testing::ManagerTest {
protected:
    fs::path Folder() const { return platform.rootPath / "programdata" / "diagnostics"; }
    fs::path History() const { return Folder() / "scan-history.log"; }
    std::wstring HistoryW() const { return zep::path::FromFs(History()); }

    void MakeHistoryUnreadable() {
        platform.env.files = std::make_shared<UnreadableFile>(zep::platform::DefaultEnv().files, HistoryW());
        platform.Reinstall();
    }
    std::size_t FilesInFolder() const {
        std::size_t files = 0;
        for ([[maybe_unused]] const auto& entry : fs::directory_iterator(Folder())) ++files;
        return files;
    }
    bool Logged(const std::wstring& message) const { return platform.log->Contains(zep::text::ToUtf8(message)); }
};

// ---- Appending ---------------------------------------------------------------

TEST_F(ScanHistoryTest, TheHundredAndFirstLinePushesOutTheOldest) {
    const std::string stamp = "2026-11-21T10:15:30Z,Manual,1,1,0,";
    WriteText(History(), NumberedLines(1, 99));

    peer->problemSignature() = L"hundredth";
    peer->GenerateScanHistory();
    EXPECT_EQ(ReadText(History()), NumberedLines(1, 99) + stamp + "hundredth\n");
    EXPECT_EQ(platform.log->Count("Scan history logs less than or equals to 100 lines"), 1u);
    EXPECT_FALSE(platform.log->Contains("exceeded 100 lines"));

    peer->problemSignature() = L"newest";
    peer->GenerateScanHistory();
    EXPECT_EQ(ReadText(History()), NumberedLines(2, 99) + stamp + "hundredth\n" + stamp + "newest\n");
    EXPECT_EQ(platform.log->Count(
                  "Scan history logs exceeded 100 lines, hence removing the first log on cyclic buffer"),
              1u);
}

TEST_F(ScanHistoryTest, AnOverlongHistoryIsCutToTheNewestHundred) {
    WriteText(History(), NumberedLines(1, 130));
    peer->problemSignature() = L"newest";

    peer->GenerateScanHistory();

    EXPECT_EQ(ReadText(History()), NumberedLines(32, 130) + "2026-11-21T10:15:30Z,Manual,1,1,0,newest\n");
}

struct LineCase {
    std::uint32_t trigger;
    bool networkConnected;
    bool uploaded;
    std::int32_t artifactStatus;
    std::int32_t failedTests;
    const wchar_t* signature;
    const char* line;       // as written, without its line break
    const char* statusLog;  // the upload status's log line
};

void PrintTo(const LineCase& c, std::ostream* os) { *os << c.line; }

class ScanHistoryLineTest : public ScanHistoryTest, public ::testing::WithParamInterface<LineCase> {};

TEST_P(ScanHistoryLineTest, WritesTheScansFieldsAndReadsThemBack) {
    const LineCase& c = GetParam();
    ASSERT_FALSE(fs::exists(Folder()));
    peer->triggerType() = c.trigger;
    peer->networkStatus() = c.networkConnected;
    peer->fileUploadStatus() = c.uploaded;
    peer->artifactIncludedStatus() = c.artifactStatus;
    peer->totalTestFailureCount() = c.failedTests;
    peer->problemSignature() = c.signature;

    peer->GenerateScanHistory();

    // The folder is created; the line ends with LF on this system.
    EXPECT_EQ(ReadText(History()), std::string(c.line) + "\n");
    EXPECT_TRUE(Logged(L"scan history folder path : " + HistoryW()));
    EXPECT_TRUE(platform.log->Contains("Current timestamp : 2026-11-21T10:15:30Z"));
    EXPECT_EQ(platform.log->Count(c.statusLog), 1u);

    DiagnosticsManager::ScanHistoryEntry entry;
    ASSERT_TRUE(manager->ParseScanHistoryLine(zep::text::FromUtf8(c.line), entry));
    EXPECT_EQ(entry.failedTestCount, c.failedTests);
    EXPECT_EQ(entry.problemSignature, c.signature);
}

INSTANTIATE_TEST_SUITE_P(
    Fields, ScanHistoryLineTest,
    ::testing::Values(
        LineCase{2, false, false, 1, 3, L"abc", "2026-11-21T10:15:30Z,Mqtt,2,1,3,abc", "Network not connected"},
        // Offline wins over a stale success flag.
        LineCase{0, false, true, 1, 0, L"\"\"", "2026-11-21T10:15:30Z,Manual,2,1,0,\"\"", "Network not connected"},
        LineCase{1, true, false, 1, 2, L"abc", "2026-11-21T10:15:30Z,Scheduled,1,1,2,abc",
                 "Network connected, but not uploaded due to error"},
        LineCase{0, true, true, 0, 4, L"977e31632a72c148fa7aeaa38379bd6d952ffabe8f05a04f5f124dbe98359a5a",
                 "2026-11-21T10:15:30Z,Manual,0,0,4,977e31632a72c148fa7aeaa38379bd6d952ffabe8f05a04f5f124dbe98359a5a",
                 "Network connected, upload success"}));

TEST_F(ScanHistoryTest, AHistoryThatCannotBeReadRestartsWithTheNewLine) {
    WriteText(History(), NumberedLines(1, 5));
    MakeHistoryUnreadable();
    peer->problemSignature() = L"only";

    peer->GenerateScanHistory();

    EXPECT_EQ(ReadText(History()), "2026-11-21T10:15:30Z,Manual,1,1,0,only\n");
}

TEST(CyclicBufferTest, KeepsTheNewestLinesInOrder) {
    zep::testing::TestPlatform platform;
    DiagnosticsManager manager;
    const std::vector<std::wstring> abc{L"a", L"b", L"c"};

    struct Case {
        int maxLines;
        std::vector<std::wstring> kept;
    };
    for (const Case& c : {Case{2, {L"b", L"c"}}, Case{3, abc}, Case{5, abc}, Case{0, {}}, Case{-1, {}}}) {
        std::vector<std::wstring> lines = abc;
        manager.ProcessCyclicBuffer(lines, c.maxLines);
        EXPECT_EQ(lines, c.kept) << "maxLines " << c.maxLines;
    }
}

// ---- The last line -------------------------------------------------------------

TEST_F(ScanHistoryTest, LastLineOfAFile) {
    struct Case {
        const char* text;
        const wchar_t* last;
    };
    for (const Case& c : {Case{"a\nb\n", L"b"}, Case{"a\nb", L"b"}, Case{"a\r\nb\r\n", L"b"}, Case{"b", L"b"}}) {
        WriteText(History(), c.text);
        std::wstring path = HistoryW();
        EXPECT_EQ(manager->GetLastLineInFile(path), c.last) << c.text;
    }
    EXPECT_FALSE(platform.log->Contains("File is empty"));
}

TEST_F(ScanHistoryTest, NoLastLineIsReportedAsEmpty) {
    std::wstring path = HistoryW();
    for (const char* text : {"", "a\n\n", "a\n\r\n"}) {
        platform.log->Clear();
        WriteText(History(), text);
        EXPECT_EQ(manager->GetLastLineInFile(path), L"");
        EXPECT_TRUE(Logged(L"DiagnosticsManager::GetLastLineInFile File is empty " + path)) << text;
    }
}

TEST_F(ScanHistoryTest, NoLastLineOfAFileThatIsMissingOrUnreadable) {
    std::wstring path = HistoryW();
    EXPECT_EQ(manager->GetLastLineInFile(path), L"");
    EXPECT_TRUE(Logged(L"DiagnosticsManager::GetLastLineInFile File " + path + L" does not exist"));

    WriteText(History(), "a,Manual,0,1,0,x\n");
    MakeHistoryUnreadable();
    EXPECT_EQ(manager->GetLastLineInFile(path), L"");
    EXPECT_TRUE(Logged(L"DiagnosticsManager::GetLastLineInFile Unable to open file " + path));
}

// ---- Updating the last line -----------------------------------------------------

TEST_F(ScanHistoryTest, UpdateRewritesTheLastLinesStatusesOnly) {
    // Other lines, even unparsable or not UTF-8, and the last line's other
    // fields stay byte for byte.
    const std::string before = "T0,Mqtt,2,1,3,abc\nnot a history line \xff\xfe\n";
    WriteText(History(), before + "T2,Scheduled,2,1,5,sig\xe9\"\"\n");

    EXPECT_TRUE(manager->UpdateStatusForLastLineInScanHistoryFile(HistoryW(), 0, 0));
    EXPECT_EQ(ReadText(History()), before + "T2,Scheduled,0,0,5,sig\xe9\"\"\n");

    EXPECT_TRUE(manager->UpdateStatusForLastLineInScanHistoryFile(HistoryW(), 1, 17));
    EXPECT_EQ(ReadText(History()), before + "T2,Scheduled,1,17,5,sig\xe9\"\"\n");
    EXPECT_EQ(platform.log->Count("[e]"), 0u);
}

TEST_F(ScanHistoryTest, UpdateRefusesALastLineWithoutSixFields) {
    struct Case {
        const char* lastLine;
        int count;
    };
    // A trailing comma (an empty signature) opens no sixth field.
    for (const Case& c : {Case{"T,Manual,2,1,0,abc,extra", 7}, Case{"T,Manual,2,1,0,", 5}, Case{"T,Manual,2", 3}}) {
        platform.log->Clear();
        const std::string text = "T0,Mqtt,2,1,3,abc\n" + std::string(c.lastLine) + "\n";
        WriteText(History(), text);

        EXPECT_FALSE(manager->UpdateStatusForLastLineInScanHistoryFile(HistoryW(), 0, 0)) << c.lastLine;
        EXPECT_EQ(ReadText(History()), text);
        EXPECT_EQ(platform.log->Count("DiagnosticsManager::UpdateStatusForLastLineInScanHistoryFile Unexpected values "
                                      "count in scan history last line: " +
                                      std::to_string(c.count)),
                  1u)
            << c.lastLine;
    }
}

TEST_F(ScanHistoryTest, UpdateOfAnEmptyOrMissingFileFails) {
    const std::string label = "DiagnosticsManager::UpdateStatusForLastLineInScanHistoryFile ";
    EXPECT_FALSE(manager->UpdateStatusForLastLineInScanHistoryFile(HistoryW(), 0, 0));
    EXPECT_TRUE(Logged(zep::text::FromUtf8(label) + L"Unable to open file: " + HistoryW() + L" for reading"));
    EXPECT_FALSE(fs::exists(History()));

    WriteText(History(), "");
    EXPECT_FALSE(manager->UpdateStatusForLastLineInScanHistoryFile(HistoryW(), 0, 0));
    EXPECT_TRUE(Logged(zep::text::FromUtf8(label) + L"File is empty: " + HistoryW()));
    EXPECT_EQ(ReadText(History()), "");
    EXPECT_EQ(platform.log->Count("[e]"), 2u);
}

// ---- Rewrites that fail half-way ----------------------------------------------

TEST_F(ScanHistoryTest, AFailedRewriteKeepsTheWholeOldHistory) {
    const std::string old = NumberedLines(1, 100);  // about 4 KiB
    WriteText(History(), old);

    {
        FileSizeLimit limit(1024);
        peer->GenerateScanHistory();
    }
    EXPECT_EQ(ReadText(History()), old);
    EXPECT_EQ(FilesInFolder(), 1u) << "no temporary file is left beside the history";
    EXPECT_TRUE(Logged(L"DiagnosticsManager::GenerateScanHistory Unable to open file: " + HistoryW() +
                       L" for writing"));

    {
        FileSizeLimit limit(1024);
        EXPECT_FALSE(manager->UpdateStatusForLastLineInScanHistoryFile(HistoryW(), 0, 0));
    }
    EXPECT_EQ(ReadText(History()), old);
    EXPECT_EQ(FilesInFolder(), 1u);
    EXPECT_TRUE(Logged(L"DiagnosticsManager::UpdateStatusForLastLineInScanHistoryFile Unable to open file: " +
                       HistoryW() + L" for writing"));
}

}  // namespace
