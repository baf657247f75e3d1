// Reading one line of the scan history back.
#include <optional>
#include <tuple>

#include <gtest/gtest.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/util/Strings.h"
#include "support/TestPlatform.h"

namespace {

using Entry = DiagnosticsManager::ScanHistoryEntry;

auto Fields(const Entry& e) {
    return std::make_tuple(zep::text::ToUtf8(e.timeStamp), e.triggerType, int{e.sentToCloud}, int{e.artifactStatus},
                           e.failedTestCount, zep::text::ToUtf8(e.problemSignature));
}

TEST(HistoryLineTest, ParsesOrRejectsEachLine) {
    struct Case {
        const wchar_t* line;
        std::optional<Entry> expected;  // nullopt: the line does not parse
    };
    const Case cases[] = {
        // Triggers are matched case-insensitively; anything else is rejected.
        {L"T,MQTT,2,1,3,abc", Entry{L"T", 2, 2, 1, 3, L"abc"}},
        {L"2026-11-21T10:15:30Z,manual,0,1,0,\"\"", Entry{L"2026-11-21T10:15:30Z", 0, 0, 1, 0, L"\"\""}},
        {L"T,sCHEDULED,1,0,7,x y", Entry{L"T", 1, 1, 0, 7, L"x y"}},
        {L"T,Remote,0,1,0,abc", std::nullopt},
        // Exactly six fields; a trailing comma opens no empty sixth one.
        {L"T,Manual,0,1,0", std::nullopt},
        {L"T,Manual,0,1,0,", std::nullopt},
        {L"T,Manual,0,1,0,abc,extra", std::nullopt},
        {L"21/11/2026, 10:15,Manual,0,1,0,abc", std::nullopt},
        {L"", std::nullopt},
        // Numbers read like stoi: leading blanks and sign, trailing junk ignored.
        {L"T,Manual, 2,1,0,abc", Entry{L"T", 0, 2, 1, 0, L"abc"}},
        {L"T,Manual,+1,\t1,0,abc", Entry{L"T", 0, 1, 1, 0, L"abc"}},
        {L"T,Manual,3abc,1,0,abc", Entry{L"T", 0, 3, 1, 0, L"abc"}},
        // Fields 3 and 4 keep their low 8 bits; field 5 is a whole int.
        {L"T,Manual,300,-1,-2,abc", Entry{L"T", 0, 44, 255, -2, L"abc"}},
        {L"T,Manual,0,1,70000,abc", Entry{L"T", 0, 0, 1, 70000, L"abc"}},
        {L"T,Manual,x,1,0,abc", std::nullopt},
        {L"T,Manual,0,,0,abc", std::nullopt},
        {L"T,Manual,0,1,99999999999,abc", std::nullopt},
    };
    zep::testing::TestPlatform platform;
    DiagnosticsManager manager;
    for (const Case& c : cases) {
        SCOPED_TRACE(zep::text::ToUtf8(c.line));
        Entry entry;
        ASSERT_EQ(manager.ParseScanHistoryLine(c.line, entry), c.expected.has_value());
        if (!c.expected) continue;
        EXPECT_EQ(Fields(entry), Fields(*c.expected));
    }
}

}  // namespace
