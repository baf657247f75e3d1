#include "platform/agent/CommonBase.h"

#include <chrono>
#include <random>
#include <regex>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "platform/util/CivilTime.h"
#include "platform/util/Paths.h"
#include "support/TestPlatform.h"

namespace {

TEST(NewGuidTest, IsADistinctLowerCaseVersionFourGuidWithoutBraces) {
    const std::wregex shape(L"[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    std::set<std::wstring> seen;
    for (int i = 0; i < 1000; ++i) {
        const std::wstring guid = CGuid::NewGuid(1);
        EXPECT_TRUE(std::regex_match(guid, shape)) << guid;
        seen.insert(guid);
    }
    EXPECT_EQ(seen.size(), 1000u);
}

TEST(CivilTimeTest, ParsesIso8601UtcAndRejectsAnythingElse) {
    const auto expected = std::chrono::system_clock::time_point(std::chrono::milliseconds(1795256130000));
    EXPECT_EQ(zep::civil::ParseIso8601Utc("2026-11-21T10:15:30Z"), expected);
    EXPECT_EQ(zep::civil::ParseIso8601Utc("2026-11-21T10:15:30.750Z"), expected);
    EXPECT_EQ(zep::civil::ParseIso8601Utc("2028-02-29T00:00:00Z"),
              std::chrono::system_clock::time_point(std::chrono::seconds(1835395200)));
    for (const char* garbage : {"", "2026-11-21T10:15:30", "2026-11-21T10:15:30+01:00", "20x6-11-21T10:15:30Z",
                                "2026-13-21T10:15:30Z", "2026-11-32T10:15:30Z", "2026-11-21T24:00:00Z",
                                "2026-11-21T10:15:30 garbage Z"}) {
        EXPECT_FALSE(zep::civil::ParseIso8601Utc(garbage).has_value()) << garbage;
    }
}

TEST(FileHashTest, DigestOfTheBytesUnderEverySpellingOfTheNameAndEmptyForAnythingElse) {
    zep::testing::TestPlatform platform;
    const auto hash = [&](const char* file, const wchar_t* name) {
        return utility::GetFileHash(zep::path::FromFs(platform.rootPath / file), name);
    };
    zep::testing::WriteText(platform.rootPath / "abc.txt", "abc");
    for (const wchar_t* name : {L"SHA-256", L"sha256"}) {
        EXPECT_EQ(hash("abc.txt", name), L"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad") << name;
    }
    for (const wchar_t* name : {L"", L"MD5", L"SHA-2566"}) EXPECT_EQ(hash("abc.txt", name), L"");
    EXPECT_EQ(hash("missing.zip", L"SHA-256"), L"");
    EXPECT_EQ(utility::GetFileHash(platform.root, L"SHA-256"), L"") << "a folder";

    // Many chunks and a short last one; the digest is sha256sum's (std::mt19937 is the same everywhere).
    std::string bytes(3 * 1024 * 1024 + 13, '\0');
    std::mt19937 random(42);
    for (char& c : bytes) c = static_cast<char>(random());
    zep::testing::WriteText(platform.rootPath / "big.zip", bytes);
    EXPECT_EQ(hash("big.zip", L"SHA-256"), L"db8455125c23305fc5a52444afcf3ad746b9349d1cad6049fcec074d465ddba3");
}

}  // namespace
