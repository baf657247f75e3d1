#include "artifacts/ZipNames.h"

#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "platform/Strings.h"

namespace {

using zep::artifacts::EscapeSingleQuotes;
using zep::artifacts::SanitizeZipFileName;
using zep::artifacts::TrimTrailingSeparators;

TEST(SanitizeZipFileNameTest, NamesThatTryToLeaveTheFolderKeepOnlyTheirLastComponent) {
    EXPECT_EQ(SanitizeZipFileName(L"..\\..\\evil.zip"), L"evil.zip");
    EXPECT_EQ(SanitizeZipFileName(L"../../evil.zip"), L"evil.zip");
    EXPECT_EQ(SanitizeZipFileName(L"C:\\Windows\\System32/evil.zip"), L"evil.zip");
    EXPECT_EQ(SanitizeZipFileName(L"\\\\server\\share\\evil.zip"), L"evil.zip");
}

TEST(SanitizeZipFileNameTest, ForbiddenCharactersBecomeUnderscores) {
    EXPECT_EQ(SanitizeZipFileName(L"a:b?.zip "), L"a_b_.zip");
    EXPECT_EQ(SanitizeZipFileName(L"a\"b*c<d>e|f.zip"), L"a_b_c_d_e_f.zip");
    // Control characters, up to and including 31; a blank (32) inside stays.
    EXPECT_EQ(SanitizeZipFileName(std::wstring(L"a\x01") + L"b.zip"), L"a_b.zip");
    EXPECT_EQ(SanitizeZipFileName(std::wstring(L"a\x1f") + L"b.zip"), L"a_b.zip");
    EXPECT_EQ(SanitizeZipFileName(L"a\nb\rc.zip"), L"a_b_c.zip");
    EXPECT_EQ(SanitizeZipFileName(L"a b.zip"), L"a b.zip");
    // A tab survives the trim only inside the name, where it is replaced.
    EXPECT_EQ(SanitizeZipFileName(L"\t a\tb.zip \t"), L"a_b.zip");
    EXPECT_EQ(SanitizeZipFileName(L"\u00e9t\u00e9-\u65e5\u672c.zip"), L"\u00e9t\u00e9-\u65e5\u672c.zip");
}

TEST(SanitizeZipFileNameTest, TrailingBlanksAndDotsAreRemovedLast) {
    EXPECT_EQ(SanitizeZipFileName(L"a.zip. . "), L"a.zip");
    EXPECT_EQ(SanitizeZipFileName(L"a.zip..."), L"a.zip");
    // Leading dots and a blank that follows the last separator are kept: only
    // the outer blanks and tabs are trimmed, before the component is taken.
    EXPECT_EQ(SanitizeZipFileName(L".hidden.zip"), L".hidden.zip");
    EXPECT_EQ(SanitizeZipFileName(L"dir\\ a.zip"), L" a.zip");
    // A replaced character is not a dot: "a?" keeps its underscore.
    EXPECT_EQ(SanitizeZipFileName(L"a?"), L"a_");
}

TEST(SanitizeZipFileNameTest, NamesWithNothingUsableLeftBecomeEmpty) {
    for (const std::wstring name : {L"", L"   ", L"\t\t", L"...", L"\t.. \t", L". . .", L"dir\\", L"a/b/",
                                    L"x\\ ", L"x/..."}) {
        EXPECT_EQ(SanitizeZipFileName(name), L"") << "input: [" << zep::text::ToUtf8(name) << "]";
    }
}

TEST(TrimTrailingSeparatorsTest, RemovesEveryTrailingSeparatorOfEitherKind) {
    const std::pair<std::wstring, std::wstring> cases[] = {
        {L"C:\\out\\\\\\", L"C:\\out"},
        {L"///", L""},
        {L"", L""},
        {L"/a/b/", L"/a/b"},
        {L"a\\/\\/", L"a"},
        {L"C:\\out", L"C:\\out"},
        {L"\\\\server\\share\\", L"\\\\server\\share"},
        {L"a\\\\b", L"a\\\\b"},
    };
    for (const auto& [input, expected] : cases) {
        EXPECT_EQ(TrimTrailingSeparators(input), expected) << zep::text::ToUtf8(input);
    }
}

TEST(EscapeSingleQuotesTest, EverySingleQuoteIsDoubled) {
    EXPECT_EQ(EscapeSingleQuotes(L"C:\\it's\\x"), L"C:\\it''s\\x");
    EXPECT_EQ(EscapeSingleQuotes(L"'"), L"''");
    EXPECT_EQ(EscapeSingleQuotes(L"''a'"), L"''''a''");
    EXPECT_EQ(EscapeSingleQuotes(L"no quotes \"here\""), L"no quotes \"here\"");
    EXPECT_EQ(EscapeSingleQuotes(L""), L"");
}

TEST(EscapeSingleQuotesTest, TypographicSingleQuotesAreDoubledToo) {
    // PowerShell closes a single-quoted string at any of these.
    EXPECT_EQ(EscapeSingleQuotes(L"a\u2018b\u2019c\u201Ad\u201Be"),
              L"a\u2018\u2018b\u2019\u2019c\u201A\u201Ad\u201B\u201Be");
    EXPECT_EQ(EscapeSingleQuotes(L"\u201Cdouble\u201D"), L"\u201Cdouble\u201D");
}

}  // namespace
