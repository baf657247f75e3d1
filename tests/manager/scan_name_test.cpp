// Which names each system takes as one file name: the scan is named by the
// request id only then.
#include "manager/ScanName.h"

#include <string>

#include <gtest/gtest.h>

#include "platform/util/Strings.h"

namespace zep::manager {
namespace {

// `text` `count` times over (an emoji is one wide character or two).
std::wstring Repeated(const std::wstring& text, int count) {
    std::wstring out;
    for (int i = 0; i < count; ++i) out += text;
    return out;
}

TEST(ScanNameTest, EachSystemsFileNameRules) {
    const struct {
        std::wstring name;
        bool posix;
        bool windows;
    } cases[] = {
        {L"r1", true, true},
        {L"urn:req:42", true, false},
        {L"with blanks", true, true},
        {L"\u00e9t\u00e9 \U0001F600", true, true},
        {std::wstring(255, L'a'), true, true},
        {std::wstring(256, L'a'), false, false},
        {std::wstring(128, L'\u00e9'), false, true},  // 256 bytes as UTF-8, 128 UTF-16 units
        {Repeated(L"\U0001F600", 128), false, false},  // 512 bytes, 256 units
        {L"name.", true, false},
        {L"name ", true, false},
        {L"a\\b", true, false},
        {L"a*b?c", true, false},
        {L"CON", true, false},
        {L"con.txt", true, false},
        {L"Nul .log", true, false},
        {L"COM\u00b9", true, false},
        {L"CONOUT$", true, false},
        {L"COM10", true, true},
        {L"", false, false},
        {L".", false, false},
        {L"..", false, false},
        {L"...", true, false},
        {L"a/b", false, false},
        {L"x\ny", false, false},
        {L"del\x7f", false, false},
        {L"nel\u0085", false, false},
        {std::wstring{L'a', static_cast<wchar_t>(0xDC80)}, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(text::ToUtf8(c.name));
        EXPECT_EQ(IsOneFileName(c.name, NameRules::Posix), c.posix);
        EXPECT_EQ(IsOneFileName(c.name, NameRules::Windows), c.windows);
    }
}

}  // namespace
}  // namespace zep::manager
