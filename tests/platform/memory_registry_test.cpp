#include "platform/MemoryRegistry.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zep::platform {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::wstring kZep = L"SOFTWARE\\Quorin\\ZEP";
const std::wstring kSupport = L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport";

std::vector<std::wstring> Paths(const std::vector<RegistryKeyData>& keys) {
    std::vector<std::wstring> out;
    for (const auto& key : keys) out.push_back(key.path);
    return out;
}

// Expected export bytes for an ASCII text: byte-order mark, then each
// character as a little-endian 16-bit unit.
std::string Utf16Le(const std::string& ascii) {
    std::string out = "\xFF\xFE";
    for (const char c : ascii) {
        out.push_back(c);
        out.push_back('\0');
    }
    return out;
}

// ---- The store ----------------------------------------------------------

TEST(MemoryRegistryTest, MatchesKeysAndNamesIgnoringCaseAndKeepsFirstSpelling) {
    MemoryRegistry reg;
    reg.SetDword(Hive::LocalMachine, kSupport, L"TimeoutInSeconds", 60);
    reg.SetString(Hive::LocalMachine, kSupport, L"Mode", L"auto");
    reg.SetDword(Hive::LocalMachine, L"software\\QUORIN\\zep\\devicesupport", L"TIMEOUTINSECONDS", 90);
    reg.CreateKey(Hive::LocalMachine, L"software\\quorin\\zep\\Logs");

    DWORD value = 0;
    EXPECT_TRUE(reg.GetDword(Hive::LocalMachine, L"Software\\Quorin\\Zep\\DEVICESUPPORT", L"timeoutinseconds", value));
    EXPECT_EQ(value, 90u);

    const auto keys = reg.Snapshot(Hive::LocalMachine, kZep);
    // New levels below an existing parent take the parent's spelling.
    EXPECT_THAT(Paths(keys), ElementsAre(kZep, kSupport, kZep + L"\\Logs"));
    // Replaced in place, under the name first written.
    ASSERT_EQ(keys[1].values.size(), 2u);
    EXPECT_EQ(keys[1].values[0].first, L"TimeoutInSeconds");
    EXPECT_EQ(keys[1].values[0].second, RegistryValue(DWORD{90}));
    EXPECT_EQ(keys[1].values[1].first, L"Mode");
}

TEST(MemoryRegistryTest, ToleratesSurroundingBackslashesAndKeepsHivesApart) {
    MemoryRegistry reg;
    reg.SetString(Hive::LocalMachine, L"\\" + kZep + L"\\", L"Name", L"machine");
    std::wstring text;
    EXPECT_TRUE(reg.GetString(Hive::LocalMachine, kZep, L"Name", text));
    EXPECT_EQ(text, L"machine");
    EXPECT_EQ(reg.Snapshot(Hive::LocalMachine, kZep).at(0).path, kZep);
    EXPECT_FALSE(reg.KeyExists(Hive::Users, kZep));
    EXPECT_FALSE(reg.GetString(Hive::Users, kZep, L"Name", text));
}

TEST(MemoryRegistryTest, ReadsOfTheWrongTypeOrMissingValuesFailAndLeaveTheOutputAlone) {
    MemoryRegistry reg;
    reg.SetString(Hive::LocalMachine, kZep, L"Text", L"60");
    reg.SetDword(Hive::LocalMachine, kZep, L"Number", 60);

    DWORD number = 7;
    std::wstring text = L"untouched";
    EXPECT_FALSE(reg.GetDword(Hive::LocalMachine, kZep, L"Text", number));
    EXPECT_FALSE(reg.GetString(Hive::LocalMachine, kZep, L"Number", text));
    EXPECT_FALSE(reg.GetDword(Hive::LocalMachine, kZep, L"Missing", number));
    EXPECT_FALSE(reg.GetDword(Hive::LocalMachine, kZep + L"\\Missing", L"Number", number));
    EXPECT_EQ(number, 7u);
    EXPECT_EQ(text, L"untouched");

    EXPECT_TRUE(reg.DeleteValue(Hive::LocalMachine, kZep, L"NUMBER"));
    EXPECT_FALSE(reg.DeleteValue(Hive::LocalMachine, kZep, L"Number"));
    EXPECT_FALSE(reg.GetDword(Hive::LocalMachine, kZep, L"Number", number));
}

TEST(MemoryRegistryTest, CreatingAKeyCreatesItsParentsButNotNamePrefixes) {
    MemoryRegistry reg;
    reg.SetDword(Hive::LocalMachine, kSupport, L"TimeoutInSeconds", 60);
    EXPECT_TRUE(reg.KeyExists(Hive::LocalMachine, L"SOFTWARE"));
    EXPECT_TRUE(reg.KeyExists(Hive::LocalMachine, L"software\\quorin"));
    EXPECT_TRUE(reg.KeyExists(Hive::LocalMachine, kZep));
    EXPECT_FALSE(reg.KeyExists(Hive::LocalMachine, L"SOFTWARE\\Quor"));
    EXPECT_FALSE(reg.KeyExists(Hive::LocalMachine, kSupport + L"\\Child"));

    reg.Clear();
    EXPECT_FALSE(reg.KeyExists(Hive::LocalMachine, L"SOFTWARE"));
}

TEST(MemoryRegistryTest, SnapshotListsParentsFirstAndSiblingsInTheEditorsOrder) {
    MemoryRegistry reg;
    for (const wchar_t* key : {L"ZEP\\DeviceSupport\\Limits", L"ZEP\\DeviceSupport", L"ZEP\\cache", L"ZEP\\Agent",
                               L"ZEP\\A_B", L"ZEP\\AB", L"ZEP Tools", L"ZEPX"}) {
        reg.CreateKey(Hive::LocalMachine, std::wstring(L"SOFTWARE\\Quorin\\") + key);
    }
    // Case is ignored, '_' sorts after letters (names are compared upper-cased),
    // and a sibling "ZEP Tools" neither splits ZEP's subtree nor joins it.
    EXPECT_THAT(Paths(reg.Snapshot(Hive::LocalMachine, L"software\\quorin\\zep")),
                ElementsAre(kZep, kZep + L"\\AB", kZep + L"\\Agent", kZep + L"\\A_B", kZep + L"\\cache",
                            kZep + L"\\DeviceSupport", kZep + L"\\DeviceSupport\\Limits"));
    EXPECT_THAT(Paths(reg.Snapshot(Hive::LocalMachine, L"SOFTWARE\\Quorin")),
                ElementsAre(L"SOFTWARE\\Quorin", kZep, kZep + L"\\AB", kZep + L"\\Agent", kZep + L"\\A_B",
                            kZep + L"\\cache", kZep + L"\\DeviceSupport", kZep + L"\\DeviceSupport\\Limits",
                            L"SOFTWARE\\Quorin\\ZEP Tools", L"SOFTWARE\\Quorin\\ZEPX"));
    EXPECT_THAT(reg.Snapshot(Hive::LocalMachine, L"SOFTWARE\\Quorin\\Missing"), IsEmpty());
}

// ---- Loading the editor's format ----------------------------------------

const wchar_t kDeviceFile[] =
    L"Windows Registry Editor Version 5.00\r\n"
    L"\r\n"
    L"; ZEP settings of the test device\r\n"
    L"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP]\r\n"
    L"\"InstallPath\"=\"C:\\\\Program Files\\\\Quorin\\\\ZEP\\\\\"\r\n"
    L"\"Banner\"=\"say \\\"hi\\\"\"\r\n"
    L"@=\"default\"\r\n"
    L"this line is garbage\r\n"
    L"\r\n"
    L"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP\\DeviceSupport]\r\n"
    L"\"TimeoutInSeconds\"=dword:0000003c\r\n"
    L"\"GetDiagnosticsMqttRateLimit\"=DWORD:0000000A\r\n"
    L"\"TooLong\"=dword:100000000\r\n"
    L"\"NotHex\"=dword:0000zz3c\r\n"
    L"\"Blob\"=hex:01,02,03,\\\r\n"
    L"  04,05\r\n"
    L"\"Unterminated\"=\"abc\r\n"
    L"\r\n"
    L"[HKEY_CURRENT_USER\\Software\\Quorin]\r\n"
    L"\"Leaked\"=dword:00000001\r\n"
    L"\r\n"
    L"[HKEY_USERS\\S-1-5-21-1004336348-1177238915-682003330-1001\\Software\\Microsoft\\Windows\\"
    L"CurrentVersion\\Explorer\\Shell Folders]\r\n"
    L"\"Local AppData\"=\"C:\\\\Users\\\\dev\\\\AppData\\\\Local\"\r\n";

TEST(RegTextLoadTest, ReadsADeviceFileAndCountsWhatItCannotRead) {
    MemoryRegistry reg;
    int skipped = 0;
    LoadRegText(reg, kDeviceFile, &skipped);

    std::wstring text;
    EXPECT_TRUE(reg.GetString(Hive::LocalMachine, kZep, L"InstallPath", text));
    EXPECT_EQ(text, L"C:\\Program Files\\Quorin\\ZEP\\");
    EXPECT_TRUE(reg.GetString(Hive::LocalMachine, kZep, L"Banner", text));
    EXPECT_EQ(text, L"say \"hi\"");
    EXPECT_TRUE(reg.GetString(Hive::LocalMachine, kZep, L"", text));
    EXPECT_EQ(text, L"default");

    DWORD value = 0;
    EXPECT_TRUE(reg.GetDword(Hive::LocalMachine, kSupport, L"TimeoutInSeconds", value));
    EXPECT_EQ(value, 60u);
    EXPECT_TRUE(reg.GetDword(Hive::LocalMachine, kSupport, L"GetDiagnosticsMqttRateLimit", value));
    EXPECT_EQ(value, 10u);
    EXPECT_EQ(reg.Snapshot(Hive::LocalMachine, kSupport).at(0).values.size(), 2u);

    EXPECT_TRUE(reg.GetString(Hive::Users,
                              L"S-1-5-21-1004336348-1177238915-682003330-1001\\Software\\Microsoft\\Windows\\"
                              L"CurrentVersion\\Explorer\\Shell Folders",
                              L"Local AppData", text));
    EXPECT_EQ(text, L"C:\\Users\\dev\\AppData\\Local");

    // The other hive's value must not land in the section before it.
    EXPECT_FALSE(reg.GetDword(Hive::LocalMachine, kSupport, L"Leaked", value));
    // garbage, two bad dwords, the wrapped binary value (once), the
    // unterminated string, the HKCU section and its value.
    EXPECT_EQ(skipped, 7);
}

TEST(RegTextLoadTest, AcceptsShortHiveNamesOldHeaderAndBareLineFeeds) {
    MemoryRegistry reg;
    int skipped = 0;
    LoadRegText(reg,
                L"REGEDIT4\n"
                L"\"Orphan\"=dword:00000001\n"
                L"[HKLM\\SOFTWARE\\Quorin\\ZEP]\n"
                L"\"Short\"=dword:3c\n"
                L"\"Gone\"=\"x\"\n"
                L"\"Gone\"=-\n"
                L"[-HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP]\n"
                L"\"AfterDelete\"=dword:00000002\n"
                L"[HKU\\.DEFAULT\\Software]\n"
                L"\"User\"=\"yes\"",
                &skipped);

    DWORD value = 0;
    EXPECT_TRUE(reg.GetDword(Hive::LocalMachine, kZep, L"Short", value));
    EXPECT_EQ(value, 0x3cu);
    std::wstring text;
    EXPECT_FALSE(reg.GetString(Hive::LocalMachine, kZep, L"Gone", text));
    EXPECT_FALSE(reg.GetDword(Hive::LocalMachine, kZep, L"AfterDelete", value));
    EXPECT_TRUE(reg.GetString(Hive::Users, L".DEFAULT\\Software", L"User", text));
    EXPECT_EQ(text, L"yes");
    // The value before any section, the key deletion and the value under it.
    EXPECT_EQ(skipped, 3);

    // The count adds to what the caller already has; no count is also fine.
    LoadRegText(reg, L"junk\r\n", &skipped);
    EXPECT_EQ(skipped, 4);
    LoadRegText(reg, L"junk\r\n");
}

// ---- File encodings -----------------------------------------------------

TEST(RegFileDecodeTest, DecodesUtf16WithSurrogatePairsAndUtf8WithOrWithoutMark) {
    // "[A" U+1F600 "é", a lone high surrogate, then an odd trailing byte.
    const std::string utf16("\xFF\xFE[\0A\0\x3D\xD8\x00\xDE\xE9\0\x00\xD8Z", 15);
    EXPECT_EQ(DecodeRegFile(utf16), L"[A\U0001F600\u00E9\uFFFD");

    EXPECT_EQ(DecodeRegFile("\xEF\xBB\xBF" "caf\xC3\xA9"), L"caf\u00E9");
    EXPECT_EQ(DecodeRegFile("caf\xC3\xA9"), L"caf\u00E9");
    EXPECT_EQ(DecodeRegFile(""), L"");
}

TEST(RegFileDecodeTest, EncodesNonBmpCharactersAsSurrogatePairs) {
    EXPECT_EQ(EncodeUtf16LeWithBom(L"A\u00E9\U0001F600"), std::string("\xFF\xFE" "A\0\xE9\0\x3D\xD8\x00\xDE", 10));
}

// ---- Export ---------------------------------------------------------------

TEST(RegExportTest, WritesTheEditorsBytes) {
    MemoryRegistry reg;
    reg.SetDword(Hive::LocalMachine, kSupport, L"TimeoutInSeconds", 60);
    reg.SetString(Hive::LocalMachine, kZep, L"Path", L"C:\\ZEP \"x\"");
    reg.SetDword(Hive::LocalMachine, kZep, L"", 0xDEADBEEF);
    reg.CreateKey(Hive::LocalMachine, kZep + L"\\agent");

    const std::string bytes =
        EncodeUtf16LeWithBom(RenderRegText(Hive::LocalMachine, reg.Snapshot(Hive::LocalMachine, kZep)));
    EXPECT_EQ(bytes, Utf16Le("Windows Registry Editor Version 5.00\r\n\r\n"
                             "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP]\r\n"
                             "\"Path\"=\"C:\\\\ZEP \\\"x\\\"\"\r\n"
                             "@=dword:deadbeef\r\n"
                             "\r\n"
                             "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP\\agent]\r\n"
                             "\r\n"
                             "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP\\DeviceSupport]\r\n"
                             "\"TimeoutInSeconds\"=dword:0000003c\r\n"
                             "\r\n"));
}

TEST(RegExportTest, RoundTripsThroughTheFileFormat) {
    MemoryRegistry source;
    source.SetString(Hive::Users, L"S-1-5-21-1\\Software", L"Trailing", L"C:\\");
    source.SetString(Hive::Users, L"S-1-5-21-1\\Software", L"Quote\"=Name]", L"\"\\\"");
    source.SetString(Hive::Users, L"S-1-5-21-1\\Software", L"", L"");
    source.SetString(Hive::Users, L"S-1-5-21-1\\Software\\Caf\u00E9", L"Emoji", L"\U0001F600 \u00E9");
    source.SetDword(Hive::Users, L"S-1-5-21-1\\Software\\Caf\u00E9", L"Max", 0xFFFFFFFF);
    source.SetDword(Hive::Users, L"S-1-5-21-1\\Software\\Caf\u00E9", L"Zero", 0);

    const auto before = source.Snapshot(Hive::Users, L"S-1-5-21-1");
    MemoryRegistry copy;
    int skipped = 0;
    LoadRegText(copy, DecodeRegFile(EncodeUtf16LeWithBom(RenderRegText(Hive::Users, before))), &skipped);
    const auto after = copy.Snapshot(Hive::Users, L"S-1-5-21-1");

    EXPECT_EQ(skipped, 0);
    ASSERT_EQ(Paths(after), Paths(before));
    for (std::size_t i = 0; i < before.size(); ++i) {
        EXPECT_EQ(after[i].values, before[i].values) << "key " << i;
    }
}

}  // namespace
}  // namespace zep::platform
