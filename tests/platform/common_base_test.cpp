#include "platform/CommonBase.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <set>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "platform/CivilTime.h"

namespace {

using std::chrono::system_clock;

// ---- GUIDs -----------------------------------------------------------------

bool IsLowerHex(wchar_t c) { return (c >= L'0' && c <= L'9') || (c >= L'a' && c <= L'f'); }

TEST(NewGuidTest, LowerCaseFormIsARandomVersionFourGuidWithoutBraces) {
    for (int i = 0; i < 50; ++i) {
        const std::wstring guid = CGuid::NewGuid(1);
        ASSERT_EQ(guid.size(), 36u) << guid;
        for (std::size_t pos = 0; pos < guid.size(); ++pos) {
            if (pos == 8 || pos == 13 || pos == 18 || pos == 23) {
                EXPECT_EQ(guid[pos], L'-') << guid;
            } else {
                EXPECT_TRUE(IsLowerHex(guid[pos])) << guid << " at " << pos;
            }
        }
        EXPECT_EQ(guid[14], L'4') << guid;
        EXPECT_NE(std::wstring(L"89ab").find(guid[19]), std::wstring::npos) << guid;
    }
}

TEST(NewGuidTest, ThousandGuidsAreAllDistinct) {
    std::set<std::wstring> seen;
    for (int i = 0; i < 1000; ++i) seen.insert(CGuid::NewGuid(1));
    EXPECT_EQ(seen.size(), 1000u);
}

// ---- SHA-256 -----------------------------------------------------------------

TEST(Sha256Test, KnownDigestsInLowerCaseHex) {
    const std::pair<std::string, std::string> cases[] = {
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"The quick brown fox jumps over the lazy dog",
         "d7a8fbb307d7809469ca9abcb0082e4f8d5651e46d3cdb762d02d0bf37c9e592"},
    };
    for (const auto& [input, expected] : cases) {
        std::string digest = "stale text from an earlier call";
        EXPECT_EQ(CoreUtility::CreateSHA256Hash(digest, input), 0ul);
        EXPECT_EQ(digest, expected) << input;
    }
}

TEST(Sha256Test, BinaryInputIsHashedWholeIncludingNulBytes) {
    std::string withNul;
    std::string truncated;
    ASSERT_EQ(CoreUtility::CreateSHA256Hash(withNul, std::string("a\0b", 3)), 0ul);
    ASSERT_EQ(CoreUtility::CreateSHA256Hash(truncated, "a"), 0ul);
    EXPECT_EQ(withNul.size(), 64u);
    EXPECT_NE(withNul, truncated);
}

// ---- Dates and times -----------------------------------------------------------

GmtDateTime Gmt(int year, int month, int day, int hour, int minute, int second, int millisecond = 0) {
    GmtDateTime t;
    t.year = year;
    t.month = month;
    t.day = day;
    t.hour = hour;
    t.minute = minute;
    t.second = second;
    t.millisecond = millisecond;
    return t;
}

// All fields, for comparing and for failure messages.
std::string Show(const GmtDateTime& t) {
    char text[96];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", t.year, t.month, t.day, t.hour, t.minute,
                  t.second, t.millisecond);
    return text;
}

TEST(GmtTextTest, RendersIso8601ToTheSecond) {
    EXPECT_EQ(DateTimeUtility::convertGMTTimeToString(Gmt(2026, 11, 21, 10, 15, 30)), "2026-11-21T10:15:30Z");
    EXPECT_EQ(DateTimeUtility::convertGMTTimeToString(Gmt(2028, 2, 9, 3, 4, 5, 999)), "2028-02-09T03:04:05Z");
    EXPECT_EQ(System::GetTime(Gmt(2026, 12, 31, 23, 59, 59)), L"2026-12-31T23:59:59Z");
}

TEST(CivilTimeTest, CalendarFieldsRoundTrip) {
    const GmtDateTime cases[] = {
        Gmt(2028, 2, 29, 23, 59, 59, 999),  // leap day
        Gmt(2026, 12, 31, 23, 59, 59, 999),  // year end
        Gmt(2027, 1, 1, 0, 0, 0),
        Gmt(2100, 3, 1, 12, 0, 0),  // 2100 is no leap year
        Gmt(2000, 2, 29, 6, 30, 0),  // 2000 is one
        Gmt(1970, 1, 1, 0, 0, 0),
        Gmt(1969, 12, 31, 23, 59, 59, 500),
    };
    for (const auto& t : cases) EXPECT_EQ(Show(zep::civil::ToGmt(zep::civil::FromGmt(t))), Show(t));
}

TEST(CivilTimeTest, KnownInstants) {
    EXPECT_EQ(zep::civil::FromGmt(Gmt(2026, 11, 21, 10, 15, 30)),
              system_clock::time_point(std::chrono::milliseconds(1795256130000)));
    EXPECT_EQ(zep::civil::FromGmt(Gmt(1970, 1, 1, 0, 0, 0)), system_clock::time_point());
    // The day after the leap day, and after the last day of the year.
    EXPECT_EQ(Show(zep::civil::ToGmt(zep::civil::FromGmt(Gmt(2028, 2, 29, 12, 0, 0)) + std::chrono::hours(24))),
              "2028-03-01 12:00:00.000");
    EXPECT_EQ(Show(zep::civil::ToGmt(zep::civil::FromGmt(Gmt(2026, 12, 31, 23, 59, 59)) + std::chrono::seconds(1))),
              "2027-01-01 00:00:00.000");
    EXPECT_EQ(Show(zep::civil::ToGmt(system_clock::time_point(std::chrono::milliseconds(1795256130000)))),
              "2026-11-21 10:15:30.000");
}

TEST(CivilTimeTest, ParsesIso8601Utc) {
    const auto expected = system_clock::time_point(std::chrono::milliseconds(1795256130000));
    EXPECT_EQ(zep::civil::ParseIso8601Utc("2026-11-21T10:15:30Z"), expected);
    EXPECT_EQ(zep::civil::ParseIso8601Utc("2026-11-21T10:15:30.750Z"), expected);
    EXPECT_EQ(zep::civil::ParseIso8601Utc("2028-02-29T00:00:00Z"), zep::civil::FromGmt(Gmt(2028, 2, 29, 0, 0, 0)));
}

class ParseIso8601GarbageTest : public ::testing::TestWithParam<const char*> {};

TEST_P(ParseIso8601GarbageTest, IsRejected) { EXPECT_FALSE(zep::civil::ParseIso8601Utc(GetParam()).has_value()); }

INSTANTIATE_TEST_SUITE_P(Values, ParseIso8601GarbageTest,
                         ::testing::Values("", "garbage", "Z", "2026-11-21", "2026-11-21T10:15:30",
                                           "2026-11-21 10:15:30Z", "2026/11/21T10:15:30Z", "2026-11-21T10:15:30+01:00",
                                           "20x6-11-21T10:15:30Z", "2026-1-21T10:15:30Z", "2026-00-21T10:15:30Z",
                                           "2026-13-21T10:15:30Z", "2026-11-00T10:15:30Z", "2026-11-32T10:15:30Z",
                                           "2026-11-21T24:00:00Z", "2026-11-21T10:60:00Z", "2026-11-21T10:15:61Z",
                                           "-026-11-21T10:15:30Z", "2026-11-21T10:15:30 garbage Z",
                                           "2026-11-21T10:15:30+0100Z"));

}  // namespace
