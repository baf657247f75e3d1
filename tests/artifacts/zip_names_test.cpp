#include "artifacts/ZipNames.h"

#include <string>

#include <gtest/gtest.h>

#include "platform/util/Strings.h"

namespace {

using zep::artifacts::EscapeSingleQuotes;
using zep::artifacts::SanitizeZipFileName;
using zep::artifacts::ZipFolderName;

TEST(SanitizeZipFileNameTest, KeepsOnlyASafeLastComponent) {
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {
        // Names that try to leave the folder keep only their last component.
        {L"..\\..\\evil.zip", L"evil.zip"},
        {L"../../evil.zip", L"evil.zip"},
        {L"C:\\Windows\\System32/evil.zip", L"evil.zip"},
        {L"\\\\server\\share\\evil.zip", L"evil.zip"},
        // Forbidden characters and controls up to 31 become underscores; a blank (32) inside stays.
        {L"a:b?.zip ", L"a_b_.zip"},
        {L"a\"b*c<d>e|f.zip", L"a_b_c_d_e_f.zip"},
        {L"a\x01" L"b.zip", L"a_b.zip"},
        {L"a\x1f" L"b.zip", L"a_b.zip"},
        {L"a\nb\rc.zip", L"a_b_c.zip"},
        {L"a b.zip", L"a b.zip"},
        {L"\t a\tb.zip \t", L"a_b.zip"},
        {L"\u00e9t\u00e9-\u65e5\u672c.zip", L"\u00e9t\u00e9-\u65e5\u672c.zip"},
        // Trailing blanks and dots go last; leading dots and a blank after the separator stay.
        {L"a.zip. . ", L"a.zip"},
        {L"a.zip...", L"a.zip"},
        {L".hidden.zip", L".hidden.zip"},
        {L"dir\\ a.zip", L" a.zip"},
        {L"a?", L"a_"},  // a replaced character is not a dot
        // Nothing usable left.
        {L"", L""}, {L"   ", L""}, {L"\t\t", L""}, {L"...", L""}, {L"\t.. \t", L""}, {L". . .", L""},
        {L"dir\\", L""}, {L"a/b/", L""}, {L"x\\ ", L""}, {L"x/...", L""},
    };
    for (const auto& [input, expected] : cases) {
        EXPECT_EQ(SanitizeZipFileName(input), expected) << "input: [" << zep::text::ToUtf8(input) << "]";
    }
}

// One name for staging, the archive and the upload: never outside the
// latest folder, never empty, unchanged when packing sanitises it again.
TEST(ZipFolderNameTest, IsOneSafeNameThatPackingKeepsAsItIs) {
    const std::wstring longId(300, L'\u00e9');
    struct Case {
        std::wstring logical, scan, expected;
    };
    const Case cases[] = {
        {L"LD-1", L"scan1", L"LD-1_scan1"},
        {L"LD:1?", L"scan1", L"LD_1__scan1"},
        {L"../../../escape", L"scan1", L".._.._.._escape_scan1"},
        {L"LD", L"x\\..", L"LD_x_"},
        {L" LD", L"urn:req:42", L"LD_urn_req_42"},
        {L"", L"...", L"_"},
        {L"LD", longId, L"LD_" + std::wstring(98, L'\u00e9')},  // 200 bytes as UTF-8
        {L"...." + std::wstring(200, L'.'), L"scan", L"_"},
    };
    for (const auto& c : cases) {
        const std::wstring name = ZipFolderName(c.logical, c.scan);
        const std::string shown = zep::text::ToUtf8(c.logical + L" | " + c.scan);
        EXPECT_EQ(name, c.expected) << shown;
        EXPECT_EQ(SanitizeZipFileName(name + L".zip"), name + L".zip") << shown;
        EXPECT_LE(zep::text::ToUtf8(name).size(), 200u) << shown;
    }
}

// PowerShell closes a single-quoted string at any of the typographic single quotes too.
TEST(EscapeSingleQuotesTest, EverySingleQuoteIsDoubled) {
    EXPECT_EQ(EscapeSingleQuotes(L"''a'"), L"''''a''");
    EXPECT_EQ(EscapeSingleQuotes(L"a\u2018b\u2019c\u201Ad\u201Be"),
              L"a\u2018\u2018b\u2019\u2019c\u201A\u201Ad\u201B\u201Be");
    EXPECT_EQ(EscapeSingleQuotes(L"\u201Cdouble\u201D \"x\""), L"\u201Cdouble\u201D \"x\"");
}

}  // namespace
