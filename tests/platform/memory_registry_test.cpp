#include "platform/util/MemoryRegistry.h"

#include <string>

#include <gtest/gtest.h>

#include "support/TestPlatform.h"

namespace zep::platform {
namespace {

const std::wstring kZep = L"SOFTWARE\\Quorin\\ZEP";
const std::wstring kSupport = L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport";

// Keys in another case: the health tests read what they set under another spelling.
TEST(MemoryRegistryTest, NamesMatchIgnoringCaseKeepTheirFirstSpellingAndReadsCheckTypes) {
    MemoryRegistry reg;
    reg.SetDword(Hive::LocalMachine, kSupport, L"TimeoutInSeconds", 60);
    reg.SetDword(Hive::LocalMachine, kSupport, L"TIMEOUTINSECONDS", 90);
    DWORD value = 0;
    EXPECT_TRUE(reg.GetDword(Hive::LocalMachine, kSupport, L"timeoutinseconds", value));
    EXPECT_EQ(value, 90u);
    const auto keys = reg.Snapshot(Hive::LocalMachine, kSupport);
    EXPECT_EQ(keys.at(0).values, (decltype(keys[0].values){{L"TimeoutInSeconds", RegistryValue(DWORD{90})}}));
    EXPECT_FALSE(reg.KeyExists(Hive::Users, kZep));
    // Reads of the wrong type or of missing values fail and leave the output alone.
    reg.SetString(Hive::LocalMachine, kZep, L"Text", L"60");
    std::wstring text = L"untouched";
    EXPECT_FALSE(reg.GetDword(Hive::LocalMachine, kZep, L"Text", value));
    EXPECT_FALSE(reg.GetString(Hive::LocalMachine, kSupport, L"TimeoutInSeconds", text));
    EXPECT_FALSE(reg.GetDword(Hive::LocalMachine, kZep, L"Missing", value));
    EXPECT_EQ(value, 90u);
    EXPECT_EQ(text, L"untouched");
}

TEST(RegTextLoadTest, ReadsADeviceFileAndCountsWhatItCannotRead) {
    MemoryRegistry reg;
    int skipped = 0;
    LoadRegText(reg,
                L"Windows Registry Editor Version 5.00\r\n\r\n"
                L"; comment\r\n"
                L"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP]\r\n"
                L"\"InstallPath\"=\"C:\\\\Program Files\\\\ZEP \\\"x\\\"\"\r\n"
                L"this line is garbage\r\n"
                L"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP\\DeviceSupport]\r\n"
                L"\"TimeoutInSeconds\"=DWORD:0000003C\r\n"
                L"\"TooLong\"=dword:100000000\r\n"
                L"\"Blob\"=hex:01,02,03,\\\r\n"
                L"  04,05\r\n"
                L"\"Unterminated\"=\"abc\r\n"
                L"[HKEY_CURRENT_USER\\Software\\Quorin]\r\n"
                L"\"Leaked\"=dword:00000001\r\n"
                L"[HKEY_USERS\\S-1-5-21-1\\Software]\r\n"
                L"\"Local AppData\"=\"C:\\\\Users\"\r\n",
                &skipped);
    std::wstring text;
    EXPECT_TRUE(reg.GetString(Hive::LocalMachine, kZep, L"InstallPath", text));
    EXPECT_EQ(text, L"C:\\Program Files\\ZEP \"x\"");
    DWORD value = 0;
    EXPECT_TRUE(reg.GetDword(Hive::LocalMachine, kSupport, L"TimeoutInSeconds", value));
    EXPECT_EQ(value, 60u);
    EXPECT_EQ(reg.Snapshot(Hive::LocalMachine, kSupport).at(0).values.size(), 1u);
    // The unsupported hive's value must not land in the section before it.
    EXPECT_FALSE(reg.GetDword(Hive::LocalMachine, kSupport, L"Leaked", value));
    EXPECT_TRUE(reg.GetString(Hive::Users, L"S-1-5-21-1\\Software", L"Local AppData", text));
    EXPECT_EQ(text, L"C:\\Users");
    // garbage, the bad dword, the wrapped binary value (once), the
    // unterminated string, the HKCU section and its value.
    EXPECT_EQ(skipped, 6);
}

TEST(RegFileTest, DecodesUtf16AndUtf8AndEncodesSurrogatePairs) {
    // "[A" U+1F600 "é", a lone high surrogate, then an odd trailing byte.
    const std::string utf16("\xFF\xFE[\0A\0\x3D\xD8\x00\xDE\xE9\0\x00\xD8Z", 15);
    EXPECT_EQ(DecodeRegFile(utf16), L"[A\U0001F600\u00E9\uFFFD");
    EXPECT_EQ(DecodeRegFile("\xEF\xBB\xBF" "caf\xC3\xA9"), L"caf\u00E9");
    EXPECT_EQ(EncodeUtf16LeWithBom(L"A\u00E9\U0001F600"), std::string("\xFF\xFE" "A\0\xE9\0\x3D\xD8\x00\xDE", 10));
}

TEST(RegExportTest, WritesTheEditorsBytes) {
    MemoryRegistry reg;
    reg.SetDword(Hive::LocalMachine, kSupport, L"TimeoutInSeconds", 60);
    reg.SetString(Hive::LocalMachine, kZep, L"Path", L"C:\\ZEP \"x\"");
    reg.SetDword(Hive::LocalMachine, kZep, L"", 0xDEADBEEF);
    reg.CreateKey(Hive::LocalMachine, kZep + L"\\agent");
    const std::string text = "Windows Registry Editor Version 5.00\r\n\r\n"
                             "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP]\r\n"
                             "\"Path\"=\"C:\\\\ZEP \\\"x\\\"\"\r\n"
                             "@=dword:deadbeef\r\n\r\n"
                             "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP\\agent]\r\n\r\n"
                             "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP\\DeviceSupport]\r\n"
                             "\"TimeoutInSeconds\"=dword:0000003c\r\n\r\n";
    EXPECT_EQ(EncodeUtf16LeWithBom(RenderRegText(Hive::LocalMachine, reg.Snapshot(Hive::LocalMachine, kZep))),
              zep::testing::Utf16Le(text));
}

}  // namespace
}  // namespace zep::platform
