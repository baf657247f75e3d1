// Reading one line of the scan history back.
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/Strings.h"
#include "support/TestPlatform.h"

namespace {

using Entry = DiagnosticsManager::ScanHistoryEntry;

struct LineCase {
    const wchar_t* line;
    std::optional<Entry> expected;  // nullopt: the line does not parse
};

void PrintTo(const LineCase& c, std::ostream* os) { *os << zep::text::ToUtf8(c.line); }

Entry Parsed(const wchar_t* stamp, std::int32_t trigger, std::uint8_t sent, std::uint8_t artifacts,
             std::int32_t failed, const wchar_t* signature) {
    return Entry{stamp, trigger, sent, artifacts, failed, signature};
}

class HistoryLineTest : public ::testing::TestWithParam<LineCase> {
protected:
    zep::testing::TestPlatform platform;
    DiagnosticsManager manager;
};

TEST_P(HistoryLineTest, ParsesOrRejects) {
    Entry entry;
    const bool parsed = manager.ParseScanHistoryLine(GetParam().line, entry);
    ASSERT_EQ(parsed, GetParam().expected.has_value());
    if (!parsed) return;
    const Entry& expected = *GetParam().expected;
    EXPECT_EQ(entry.timeStamp, expected.timeStamp);
    EXPECT_EQ(entry.triggerType, expected.triggerType);
    EXPECT_EQ(entry.sentToCloud, expected.sentToCloud);
    EXPECT_EQ(entry.artifactStatus, expected.artifactStatus);
    EXPECT_EQ(entry.failedTestCount, expected.failedTestCount);
    EXPECT_EQ(entry.problemSignature, expected.problemSignature);
}

INSTANTIATE_TEST_SUITE_P(
    Triggers, HistoryLineTest,
    ::testing::Values(LineCase{L"T,MQTT,2,1,3,abc", Parsed(L"T", 2, 2, 1, 3, L"abc")},
                      LineCase{L"2026-11-21T10:15:30Z,manual,0,1,0,\"\"",
                               Parsed(L"2026-11-21T10:15:30Z", 0, 0, 1, 0, L"\"\"")},
                      LineCase{L"T,sCHEDULED,1,0,7,x y", Parsed(L"T", 1, 1, 0, 7, L"x y")},
                      LineCase{L"T,Remote,0,1,0,abc", std::nullopt}));

INSTANTIATE_TEST_SUITE_P(
    FieldCount, HistoryLineTest,
    ::testing::Values(LineCase{L"T,Manual,0,1,0", std::nullopt},
                      // A trailing comma opens no empty sixth field.
                      LineCase{L"T,Manual,0,1,0,", std::nullopt},
                      LineCase{L"T,Manual,0,1,0,abc,extra", std::nullopt},
                      LineCase{L"21/11/2026, 10:15,Manual,0,1,0,abc", std::nullopt},
                      LineCase{L"", std::nullopt}));

INSTANTIATE_TEST_SUITE_P(
    Numbers, HistoryLineTest,
    ::testing::Values(LineCase{L"T,Manual, 2,1,0,abc", Parsed(L"T", 0, 2, 1, 0, L"abc")},
                      LineCase{L"T,Manual,+1,\t1,0,abc", Parsed(L"T", 0, 1, 1, 0, L"abc")},
                      LineCase{L"T,Manual,3abc,1,0,abc", Parsed(L"T", 0, 3, 1, 0, L"abc")},
                      // Fields 3 and 4 keep their low 8 bits; field 5 is a whole int.
                      LineCase{L"T,Manual,300,-1,-2,abc", Parsed(L"T", 0, 44, 255, -2, L"abc")},
                      LineCase{L"T,Manual,0,1,70000,abc", Parsed(L"T", 0, 0, 1, 70000, L"abc")},
                      LineCase{L"T,Manual,x,1,0,abc", std::nullopt},
                      LineCase{L"T,Manual,0,,0,abc", std::nullopt},
                      LineCase{L"T,Manual,0,1,99999999999,abc", std::nullopt}));

TEST(HistoryLineErrorTest, AFieldWithoutDigitsIsLoggedAsAnError) {
    zep::testing::TestPlatform platform;
    DiagnosticsManager manager;
    Entry entry;

    EXPECT_FALSE(manager.ParseScanHistoryLine(L"T,Manual,x,1,0,abc", entry));

    ASSERT_EQ(platform.log->Count("DiagnosticsManager::ParseScanHistoryLine Error reason :: stoi"), 1u);
    EXPECT_EQ(platform.log->Count("[e]"), 1u);
}

}  // namespace
