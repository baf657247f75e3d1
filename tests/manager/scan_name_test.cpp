#include "manager/ScanName.h"

#include <string>

#include <gtest/gtest.h>

namespace zep::manager {
namespace {

class SafeScanNameTest : public ::testing::TestWithParam<std::wstring> {};
class UnsafeScanNameTest : public ::testing::TestWithParam<std::wstring> {};

TEST_P(SafeScanNameTest, IsAccepted) { EXPECT_TRUE(IsSafeScanName(GetParam())); }
TEST_P(UnsafeScanNameTest, IsRejected) { EXPECT_FALSE(IsSafeScanName(GetParam())); }

INSTANTIATE_TEST_SUITE_P(Names, SafeScanNameTest,
                         ::testing::Values(L"3f2504e0-4f89-41d3-9a0c-0305e82c3301", L"r1", L"abc-123_x.y",
                                           std::wstring(kMaxScanNameLength, L'a')));

INSTANTIATE_TEST_SUITE_P(
    Names, UnsafeScanNameTest,
    ::testing::Values(L"", L".", L"..", L"../x", L"a/b", L"a\\b", L"c:", L"a\nb", L"\x7f",
                      std::wstring(kMaxScanNameLength + 1, L'a'), L"name.", L"name ", L"CON", L"con.txt", L"COM1",
                      L"LPT9", L"a*b", L"a?b", L"a|b", L"a\"b", L"<", L">", L"\t", L"a\x01" L"b"));

TEST(EscapeForLogTest, ShowsControlCharactersAsHexEscapes) {
    EXPECT_EQ(EscapeForLog(L"\n"), L"\\x0A");
    EXPECT_EQ(EscapeForLog(L"id\r\nforged [e] line"), L"id\\x0D\\x0Aforged [e] line");
    EXPECT_EQ(EscapeForLog(L"a\tb\x7f"), L"a\\x09b\\x7F");
    EXPECT_EQ(EscapeForLog(std::wstring(1, L'\0')), L"\\x00");
    EXPECT_EQ(EscapeForLog(L"plain ../name \u00FC"), L"plain ../name \u00FC");
}

}  // namespace
}  // namespace zep::manager
