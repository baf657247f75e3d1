#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/CommonBase.h"
#include "platform/Paths.h"
#include "platform/Strings.h"
#include "support/TestPlatform.h"

namespace zep {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;

std::string Hex(const std::string& bytes) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (const char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        out += kHex[b >> 4];
        out += kHex[b & 0x0F];
        out += ' ';
    }
    return out;
}

// ---- UTF-8 <-> wide ------------------------------------------------------

struct Utf8Case {
    const char* label;
    std::wstring wide;
    std::string utf8;
};

void PrintTo(const Utf8Case& c, std::ostream* os) { *os << c.label; }

class Utf8RoundTripTest : public ::testing::TestWithParam<Utf8Case> {};

TEST_P(Utf8RoundTripTest, EncodesAndDecodesBothWays) {
    EXPECT_EQ(Hex(text::ToUtf8(GetParam().wide)), Hex(GetParam().utf8));
    EXPECT_EQ(text::FromUtf8(GetParam().utf8), GetParam().wide);
}

INSTANTIATE_TEST_SUITE_P(
    Values, Utf8RoundTripTest,
    ::testing::Values(Utf8Case{"empty", L"", ""}, Utf8Case{"ascii", L"Hello, world!", "Hello, world!"},
                      Utf8Case{"latin", L"Z\u00FCrich", "Z\xC3\xBCrich"},
                      Utf8Case{"cjk", L"\u65E5\u672C\u8A9E", "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E"},
                      Utf8Case{"emoji", L"\U0001F600", "\xF0\x9F\x98\x80"},
                      Utf8Case{"mixed", L"a\U0001F600\u00FC\u65E5z", "a\xF0\x9F\x98\x80\xC3\xBC\xE6\x97\xA5z"},
                      Utf8Case{"embedded nul", std::wstring(L"a\0b", 3), std::string("a\0b", 3)}));

TEST(Utf8Test, EmojiTakesFourBytes) { EXPECT_EQ(text::ToUtf8(L"\U0001F600").size(), 4u); }

struct InvalidUtf8Case {
    const char* label;
    std::string bytes;
};

void PrintTo(const InvalidUtf8Case& c, std::ostream* os) { *os << c.label; }

class InvalidUtf8Test : public ::testing::TestWithParam<InvalidUtf8Case> {};

// Each case sits between 'x' and 'y' to show that the text around survives.
TEST_P(InvalidUtf8Test, DecodesToReplacementCharactersWithoutThrowing) {
    std::wstring wide;
    ASSERT_NO_THROW(wide = text::FromUtf8("x" + GetParam().bytes + "y"));

    ASSERT_GE(wide.size(), 3u);
    EXPECT_EQ(wide.front(), L'x');
    EXPECT_EQ(wide.back(), L'y');
    for (std::size_t i = 1; i + 1 < wide.size(); ++i) {
        EXPECT_EQ(static_cast<unsigned>(wide[i]), 0xFFFDu) << "at " << i;
    }
    // What came out encodes cleanly again.
    EXPECT_EQ(text::FromUtf8(text::ToUtf8(wide)), wide);
}

INSTANTIATE_TEST_SUITE_P(Values, InvalidUtf8Test,
                         ::testing::Values(InvalidUtf8Case{"lone FF", "\xFF"},
                                           InvalidUtf8Case{"lone continuation", "\x80"},
                                           InvalidUtf8Case{"truncated three-byte", "\xE6\x97"},
                                           InvalidUtf8Case{"truncated four-byte", "\xF0\x9F\x98"},
                                           InvalidUtf8Case{"overlong slash", "\xC0\xAF"},
                                           InvalidUtf8Case{"encoded surrogate", "\xED\xA0\x80"},
                                           InvalidUtf8Case{"beyond U+10FFFF", "\xF4\x90\x80\x80"}));

TEST(Utf8Test, TruncatedSequenceAtTheEndStillDecodes) {
    std::wstring wide;
    ASSERT_NO_THROW(wide = text::FromUtf8("ok\xE6\x97"));
    ASSERT_GE(wide.size(), 3u);
    EXPECT_EQ(wide.substr(0, 2), L"ok");
    EXPECT_THAT(wide.substr(2), ::testing::Each(static_cast<wchar_t>(0xFFFD)));
}

TEST(Utf8Test, LoneSurrogatesInWideTextEncodeAsReplacementCharacter) {
    for (const unsigned surrogate : {0xD800u, 0xDBFFu, 0xDC00u, 0xDFFFu}) {
        const std::wstring wide = L"a" + std::wstring(1, static_cast<wchar_t>(surrogate)) + L"b";
        EXPECT_EQ(Hex(text::ToUtf8(wide)), Hex("a\xEF\xBF\xBD" "b")) << std::hex << surrogate;
    }
}

// ---- Lossless file names ---------------------------------------------------

TEST(FileNameTest, EveryHighByteAloneRoundTrips) {
    for (unsigned b = 0x80; b <= 0xFF; ++b) {
        const std::string bytes(1, static_cast<char>(b));
        const std::wstring name = text::DecodeFileName(bytes);
        EXPECT_EQ(Hex(text::EncodeFileName(name)), Hex(bytes));
        // Carried as a lone surrogate, not as the replacement character.
        EXPECT_EQ(name, std::wstring(1, static_cast<wchar_t>(0xDC00 + b)));
    }
}

TEST(FileNameTest, MixedValidAndInvalidBytesRoundTrip) {
    const std::string cases[] = {
        "caf\xE9.txt",                               // Latin-1
        "a\xC3\xBC\xFF" "b\xF0\x9F\x98\x80\x80",     // valid UTF-8 next to stray bytes
        "\xE6\x97" "x\xE6\x97\xA5",                  // truncated, then complete
        "\xC0\xAF\xED\xA0\x80",                      // overlong and encoded surrogate
        "plain-ascii",
    };
    for (const auto& bytes : cases) {
        EXPECT_EQ(Hex(text::EncodeFileName(text::DecodeFileName(bytes))), Hex(bytes));
    }

    std::string everyByte;
    for (unsigned b = 1; b <= 0xFF; ++b) everyByte.push_back(static_cast<char>(b));
    EXPECT_EQ(Hex(text::EncodeFileName(text::DecodeFileName(everyByte))), Hex(everyByte));
}

TEST(FileNameTest, ValidUtf8DecodesToItsCharacters) {
    EXPECT_EQ(text::DecodeFileName("Z\xC3\xBCrich-\xF0\x9F\x98\x80"), L"Z\u00FCrich-\U0001F600");
    EXPECT_EQ(text::EncodeFileName(L"Z\u00FCrich-\U0001F600"), "Z\xC3\xBCrich-\xF0\x9F\x98\x80");
}

// ---- Case ------------------------------------------------------------------

TEST(CaseTest, MapsAsciiLetterCaseOnly) {
    EXPECT_EQ(text::Lower(L"DeviceSupport-42_X.Y"), L"devicesupport-42_x.y");
    EXPECT_EQ(text::Upper(L"9a1b2c3d-4e5f_z.q"), L"9A1B2C3D-4E5F_Z.Q");
    EXPECT_EQ(text::Lower(L""), L"");
    EXPECT_EQ(text::Upper(L"[@`{]"), L"[@`{]");  // neighbours of the letter ranges
    EXPECT_EQ(text::Lower(L"[@`{]"), L"[@`{]");
}

TEST(CaseTest, EqualsIgnoreCase) {
    struct Case {
        const wchar_t* a;
        const wchar_t* b;
        bool equal;
    };
    const Case cases[] = {
        {L"certPinningError", L"CERTPINNINGERROR", true}, {L"zep", L"ZeP", true}, {L"", L"", true},
        {L"zep", L"zep ", false},                         {L"zep", L"zap", false}, {L"@", L"`", false},
        {L"[", L"{", false},
    };
    for (const auto& c : cases) EXPECT_EQ(text::EqualsIgnoreCase(c.a, c.b), c.equal) << c.a << " / " << c.b;
}

// ---- Paths -----------------------------------------------------------------

TEST(PathTest, NativePathUsesForwardSlashes) {
    EXPECT_EQ(path::NativePath(L"\\diagnostics\\latest\\"), L"/diagnostics/latest/");
    EXPECT_EQ(path::NativePath(L"Quorin\\Zep"), L"Quorin/Zep");
    EXPECT_EQ(path::NativePath(L"already/native"), L"already/native");
}

TEST(PathTest, NonUtf8NamesSurviveTheTripThroughWideText) {
    const fs::path original(std::string("/tmp/dir\xFF/caf\xE9-\xC3\xBC.txt"));
    const std::wstring wide = path::FromFs(original);
    EXPECT_EQ(Hex(path::ToFs(wide).native()), Hex(original.native()));
}

TEST(PathTest, AFileWithANonUtf8NameIsFoundThroughItsWidePath) {
    testing::TestPlatform platform;
    const fs::path file = platform.rootPath / std::string("caf\xE9-\xFF.txt");
    testing::WriteText(file, "x");
    ASSERT_TRUE(fs::is_regular_file(file));

    const std::wstring wide = path::FromFs(file);
    EXPECT_TRUE(FileSystem::fileExists(wide));
    EXPECT_FALSE(FileSystem::directoryExists(wide));
    EXPECT_EQ(FileSystem::fileSize(wide), 1u);
    // A lossy conversion would name a different file.
    EXPECT_FALSE(FileSystem::fileExists(text::FromUtf8(file.native())));

    std::vector<std::wstring> listed;
    FileSystem::GetFileListForFolder(platform.root, L".txt", listed);
    EXPECT_THAT(listed, Contains(wide));
}

}  // namespace
}  // namespace zep
