#include <clocale>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/agent/CommonBase.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "support/TestPlatform.h"

namespace zep {
namespace {

// Plug-in targets and component ids are compared and folded beyond ASCII,
// whatever locale the host process has set.
TEST(CaseTest, SimpleCaseMappingCoversUnicodeInAnyGlobalLocale) {
    struct Case {
        const wchar_t* text;
        const wchar_t* lower;
        const wchar_t* upper;
    };
    const Case cases[] = {
        {L"Z\u00c9P", L"z\u00e9p", L"Z\u00c9P"},
        {L"stra\u00dfe", L"stra\u00dfe", L"STRA\u00dfE"},  // simple mapping: one character each
        {L"\u0416\u0436", L"\u0436\u0436", L"\u0416\u0416"},
        {L"a1-_.", L"a1-_.", L"A1-_."},
    };
    for (const char* global : {"C", "C.UTF-8"}) {
        const std::string previous = std::setlocale(LC_ALL, nullptr);
        std::setlocale(LC_ALL, global);
        for (const auto& c : cases) {
            SCOPED_TRACE(text::ToUtf8(c.text) + " in " + global);
            EXPECT_EQ(text::Lower(c.text), c.lower);
            EXPECT_EQ(text::Upper(c.text), c.upper);
            EXPECT_TRUE(String::CaseInsesitiveEqual(c.text, c.lower));
        }
        EXPECT_FALSE(String::CaseInsesitiveEqual(L"\u00e9", L"e"));
        EXPECT_FALSE(String::CaseInsesitiveEqual(L"ab", L"abc"));
        std::setlocale(LC_ALL, previous.c_str());
    }
}

// The folder listing escapes bytes that are not text, and no real name can look like an escape.
TEST(FileNameTest, ListingTextEscapesWhatIsNotTextReversibly) {
#ifdef _WIN32
    // Names are UTF-16: only a lone surrogate is not text, and its escape
    // cannot be a real name ('<' is not allowed in one).
    const std::pair<std::wstring, std::string> wide[] = {
        {L"C:\\p\\caf\u00e9.log", "C:\\p\\caf\xC3\xA9.log"},
        {std::wstring(L"C:\\p\\caf") + static_cast<wchar_t>(0xDCE9) + L".log", "C:\\p\\caf<U+DCE9>.log"},
    };
    for (const auto& [name, line] : wide) EXPECT_EQ(text::ListingText(name), line);
#else
    const std::pair<std::string, std::string> cases[] = {
        {"/p/caf\xC3\xA9.log", "/p/caf\xC3\xA9.log"},
        {"/p/caf\xE9.log", "/p/caf\\xE9.log"},
        {"/p/caf\\xE9.log", "/p/caf\\\\xE9.log"},  // a real name that reads like an escape
        {"/p/line\nbreak\x7F", "/p/line\\x0Abreak\\x7F"},
        {"/p/\xED\xA0\x80\xFF", "/p/\\xED\\xA0\\x80\\xFF"},
    };
    for (const auto& [bytes, line] : cases) {
        EXPECT_EQ(text::ListingText(text::DecodeFileName(bytes)), line) << bytes;
    }
#endif
}

TEST(FileNameTest, AnyBytesRoundTripThroughWideText) {
    std::string everyByte;
    for (unsigned b = 1; b <= 0xFF; ++b) everyByte.push_back(static_cast<char>(b));
    for (const std::string& bytes : {std::string("caf\xE9.txt"), std::string("a\xC3\xBC\xFF" "b\xF0\x9F\x98\x80\x80"),
                                     std::string("\xE6\x97" "x\xE6\x97\xA5"), std::string("\xC0\xAF\xED\xA0\x80"),
                                     everyByte}) {
        EXPECT_EQ(text::EncodeFileName(text::DecodeFileName(bytes)), bytes);
    }
    // A stray byte is carried as a lone surrogate, not as the replacement character.
    EXPECT_EQ(text::DecodeFileName("\xE9"), std::wstring(1, static_cast<wchar_t>(0xDCE9)));
    EXPECT_EQ(text::DecodeFileName("Z\xC3\xBCrich-\xF0\x9F\x98\x80"), L"Z\u00FCrich-\U0001F600");
}

TEST(PathTest, AFileIsFoundThroughItsWidePathWhateverItsName) {
    testing::TestPlatform platform;
#ifdef _WIN32
    // Characters that the ANSI code page cannot spell.
    const std::filesystem::path file = platform.rootPath / std::wstring(L"caf\u00e9-\u65e5\u672c-\U0001F600.txt");
    // What the ANSI code page makes of it.
    std::wstring lossy = file.native();
    for (wchar_t& c : lossy) c = c < 0x80 ? c : L'?';
#else
    // A name that is not UTF-8.
    const std::filesystem::path file = platform.rootPath / std::string("caf\xE9-\xFF.txt");
    const std::wstring lossy = text::FromUtf8(file.native());
#endif
    testing::WriteText(file, "x");
    const std::wstring wide = path::FromFs(file);
    EXPECT_EQ(path::ToFs(wide).native(), file.native());
    EXPECT_EQ(FileSystem::fileSize(wide), 1u);
    // A lossy conversion would name a different file.
    EXPECT_FALSE(FileSystem::fileExists(lossy));
    std::vector<std::wstring> listed;
    FileSystem::GetFileListForFolder(platform.root, L".txt", listed);
    EXPECT_THAT(listed, ::testing::Contains(wide));
}

}  // namespace
}  // namespace zep
