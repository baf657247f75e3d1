#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <tuple>

#include <gtest/gtest.h>
#include <json/json.h>

#include "platform/env/Env.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "support/FullDisk.h"
#include "support/HookedFiles.h"
#include "support/ManagerFixture.h"

namespace {

namespace fs = std::filesystem;
using zep::testing::HookedFiles;
using zep::testing::kHistoryLineEnd;
using zep::testing::ReadText;
using zep::testing::WriteText;
using Entry = DiagnosticsManager::ScanHistoryEntry;

std::string NumberedLines(int from, int to) {
    std::string text;
    for (int i = from; i <= to; ++i) {
        text += "2026-01-01T00:00:00Z,Manual,0,1,0,sig" + std::to_string(i) + kHistoryLineEnd;
    }
    return text;
}

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
    fs::path Folder() const { return platform.rootPath / "programdata" / "diagnostics"; }
    fs::path History() const { return Folder() / "scan-history.log"; }
    std::wstring HistoryW() const { return zep::path::FromFs(History()); }
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

auto Fields(const Entry& e) {
    return std::make_tuple(zep::text::ToUtf8(e.timeStamp), e.triggerType, int{e.sentToCloud}, int{e.artifactStatus},
                           e.failedTestCount, zep::text::ToUtf8(e.problemSignature));
}

TEST_F(ScanHistoryTest, ParsesOrRejectsEachLine) {
    struct Case {
        const wchar_t* line;
        std::optional<Entry> expected;  // nullopt: the line does not parse
    };
    const Case cases[] = {
        // Triggers are matched case-insensitively; anything else is rejected.
        {L"T,MQTT,2,1,3,abc", Entry{L"T", 2, 2, 1, 3, L"abc"}},
        {L"2026-11-21T10:15:30Z,manual,0,1,0,\"\"", Entry{L"2026-11-21T10:15:30Z", 0, 0, 1, 0, L"\"\""}},
        {L"T,Remote,0,1,0,abc", std::nullopt},
        // Exactly six fields; a trailing comma opens no empty sixth one.
        {L"T,Manual,0,1,0,", std::nullopt},
        {L"T,Manual,0,1,0,abc,extra", std::nullopt},
        {L"", std::nullopt},
        // Numbers read like stoi: leading blanks and sign, trailing junk ignored.
        {L"T,Manual, 2,\t1,0,abc", Entry{L"T", 0, 2, 1, 0, L"abc"}},
        {L"T,Manual,3abc,1,0,abc", Entry{L"T", 0, 3, 1, 0, L"abc"}},
        // Fields 3 and 4 keep their low 8 bits; field 5 is a whole int.
        {L"T,Manual,300,-1,-2,abc", Entry{L"T", 0, 44, 255, -2, L"abc"}},
        {L"T,Manual,0,1,70000,abc", Entry{L"T", 0, 0, 1, 70000, L"abc"}},
        {L"T,Manual,x,1,0,abc", std::nullopt},
        {L"T,Manual,0,1,99999999999,abc", std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(zep::text::ToUtf8(c.line));
        Entry entry;
        ASSERT_EQ(manager->ParseScanHistoryLine(c.line, entry), c.expected.has_value());
        if (!c.expected) continue;
        EXPECT_EQ(Fields(entry), Fields(*c.expected));
    }
}

TEST_F(ScanHistoryTest, UpdateLeavesALastLineWithSevenFieldsUntouched) {
    const std::string text = "T0,Mqtt,2,1,3,abc\nT,Manual,2,1,0,abc,extra\n";
    WriteText(History(), text);

    EXPECT_FALSE(manager->UpdateStatusForLastLineInScanHistoryFile(HistoryW(), 0, 0));
    EXPECT_EQ(ReadText(History()), text);
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::UpdateStatusForLastLineInScanHistoryFile Unexpected "
                                       "values count in scan history last line: 7"));
}

// A history far past the ring costs no more than a proper one: only the tail is read.
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

TEST_F(ScanHistoryTest, AFailedHistoryRewriteKeepsTheWholeOldHistory) {
    const std::string old = NumberedLines(1, 100);
    WriteText(History(), old);
    FillDisk(1024);
    peer->GenerateScanHistory();
    EXPECT_FALSE(manager->UpdateStatusForLastLineInScanHistoryFile(HistoryW(), 0, 0));
    EXPECT_EQ(ReadText(History()), old);
    EXPECT_EQ(FilesIn(Folder()), 1u);
}

constexpr const char* kSignature = "977e31632a72c148fa7aeaa38379bd6d952ffabe8f05a04f5f124dbe98359a5a";

std::string PendingLine(const std::string& stamp, const std::string& statuses) {
    return stamp + ",Mqtt," + statuses + ",2," + kSignature + kHistoryLineEnd;
}

// Only a last line still marked offline (2) is resumed.
TEST_F(ScanHistoryTest, ResumesOnlyAnOfflineLastLineAndRecordsTheOutcome) {
    struct Case {
        const char* lastStatuses;
        bool online;
        bool uploaded;
        const char* statusesAfter;
    };
    const Case cases[] = {
        {"2,1", true, true, "0,0"}, {"2,1", false, false, "2,1"} /* still offline */, {"1,0", true, false, "1,0"},
    };
    const auto latest = Folder() / "latest";
    WriteText(latest / "scan-result.json",
              std::string(R"({"trigger":"Mqtt","id":"resumed-scan","executionTimeSeconds":"1.500",)") +
                  R"("isProblematic":true,"failTestCount":2,"problemSignature":")" + kSignature +
                  R"(","components":[]})");
    const std::string earlier = PendingLine("T0", "2,1");  // no longer last: never resumed
    std::size_t uploads = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.lastStatuses) + (c.online ? " online" : " offline"));
        WriteText(History(), earlier + PendingLine("T1", c.lastStatuses));
        platform.device->online = c.online;

        manager->DeviceHasComeOnline();

        const auto sent = platform.storage->Uploads();
        ASSERT_EQ(sent.size(), uploads += c.uploaded ? 1 : 0);
        if (c.uploaded) {
            EXPECT_EQ(sent.back().filePath, (latest / "LD-TEST01_resumed-scan.zip").string());
            EXPECT_FALSE(sent.back().unregisteredDevice);
        }
        EXPECT_EQ(ReadText(History()), earlier + PendingLine("T1", c.statusesAfter));
        // The resumed scan's totals must not leak into the next scan.
        EXPECT_EQ(peer->scanID(), L"");
        EXPECT_EQ(peer->totalTestFailureCount(), 0);
        EXPECT_FALSE(peer->isProblematic());
    }
}

}  // namespace
