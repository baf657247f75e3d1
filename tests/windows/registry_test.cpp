// The Windows registry: values absent, of another type and present, the
// tree as the registry editor exports it, and the editor's own export.
#include "platform/windows/Win32.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "artifacts/PowerShellCollection.h"
#include "platform/agent/CommonBase.h"
#include "platform/env/Env.h"
#include "platform/util/MemoryRegistry.h"
#include "platform/util/Strings.h"
#include "platform/windows/WindowsRegistry.h"
#include "support/TempFolder.h"
#include "support/TestPlatform.h"

namespace zep::platform {
namespace {

// A key of its own below the agent's, in the 64-bit view, removed afterwards.
class WindowsRegistryTest : public ::testing::Test {
protected:
    void SetUp() override {
        key = L"SOFTWARE\\Quorin\\ZEPTest\\" + std::to_wstring(::GetCurrentProcessId());
        if (Create(key) == nullptr) GTEST_SKIP() << "HKEY_LOCAL_MACHINE is not writable here (not elevated)";
    }
    void TearDown() override {
        ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Quorin\\ZEPTest");
        for (HKEY open : opened) ::RegCloseKey(open);
    }

    HKEY Create(const std::wstring& path) {
        HKEY created = nullptr;
        if (::RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS | KEY_WOW64_64KEY,
                              nullptr, &created, nullptr) != ERROR_SUCCESS) {
            return nullptr;
        }
        opened.push_back(created);
        return created;
    }
    static void Set(HKEY at, const wchar_t* name, DWORD type, const void* data, std::size_t size) {
        ASSERT_EQ(::RegSetValueExW(at, name, 0, type, static_cast<const BYTE*>(data), static_cast<DWORD>(size)),
                  ERROR_SUCCESS);
    }
    static void SetDword(HKEY at, const wchar_t* name, DWORD value) { Set(at, name, REG_DWORD, &value, sizeof value); }
    static void SetText(HKEY at, const wchar_t* name, const std::wstring& text, DWORD type = REG_SZ) {
        Set(at, name, type, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
    }

    std::wstring key;
    std::vector<HKEY> opened;
    WindowsRegistry registry;
};

TEST_F(WindowsRegistryTest, OnlyAPresentValueOfItsTypeIsRead) {
    HKEY at = Create(key);
    SetDword(at, L"Timeout", 45);
    SetText(at, L"Name", L"Z\u00fcrich \"q\" \\ \U0001F600");
    SetText(at, L"NumberAsText", L"45");
    SetDword(at, L"TextAsNumber", 7);
    SetText(at, L"Expandable", L"%TEMP%", REG_EXPAND_SZ);
    const unsigned char binary[] = {1, 2, 3, 4};
    Set(at, L"Binary", REG_BINARY, binary, sizeof binary);

    DWORD number = 99;
    EXPECT_TRUE(registry.GetDword(Hive::LocalMachine, key, L"Timeout", number));
    EXPECT_EQ(number, 45u);
    std::wstring text = L"default";
    EXPECT_TRUE(registry.GetString(Hive::LocalMachine, key, L"Name", text));
    EXPECT_EQ(text, L"Z\u00fcrich \"q\" \\ \U0001F600");

    for (const wchar_t* name : {L"Missing", L"NumberAsText", L"Binary", L"Expandable"}) {
        number = 99;
        EXPECT_FALSE(registry.GetDword(Hive::LocalMachine, key, name, number)) << text::ToUtf8(name);
        EXPECT_EQ(number, 99u);
    }
    for (const wchar_t* name : {L"Missing", L"TextAsNumber", L"Binary"}) {
        text = L"default";
        EXPECT_FALSE(registry.GetString(Hive::LocalMachine, key, name, text)) << text::ToUtf8(name);
        EXPECT_EQ(text, L"default");
    }
    EXPECT_FALSE(registry.GetDword(Hive::LocalMachine, key + L"\\NoSuchKey", L"Timeout", number));
    EXPECT_TRUE(registry.KeyExists(Hive::LocalMachine, key));
    EXPECT_TRUE(registry.KeyExists(Hive::LocalMachine, L"\\" + key + L"\\"));
    EXPECT_FALSE(registry.KeyExists(Hive::LocalMachine, key + L"\\NoSuchKey"));

    // The agent's own names read through the same registry.
    Env env = DefaultEnv();
    InstallEnv(env);
    number = 99;
    EXPECT_EQ(CRegUtil::GetRegValueOfDwordType(HKEY_LOCAL_MACHINE, key, L"Timeout", number), 1);
    EXPECT_EQ(number, 45u);
    EXPECT_TRUE(CRegUtil::DoesKeyExists(HKEY_LOCAL_MACHINE, key));
}

// The registry editor's own export (the agent's command line, through the
// module's process layer) against the module's rendering of the same tree:
// UTF-16LE with a byte-order mark, the editor's header, CR LF, the key and
// then its sub-keys, parents first, siblings in order of their names.
TEST_F(WindowsRegistryTest, TheEditorsExportIsWhatTheTreeRendersTo) {
    HKEY top = Create(key);
    SetDword(top, L"GetDiagnosticsMqttRateLimit", 10);
    SetText(top, L"InstallDir", L"C:\\Program Files\\Quorin\\ZEP\\");
    SetText(top, L"Quoted", L"say \"hi\"");
    SetDword(Create(key + L"\\DeviceSupport"), L"TimeoutInSeconds", 60);
    SetText(Create(key + L"\\DeviceSupport\\Deeper"), L"Leaf", L"x");
    SetDword(Create(key + L"\\alpha"), L"First", 1);

    const auto snapshot = registry.Snapshot(Hive::LocalMachine, key);
    ASSERT_EQ(snapshot.size(), 4u);
    EXPECT_EQ(snapshot[0].path, key);
    EXPECT_EQ(snapshot[1].path, key + L"\\alpha");
    EXPECT_EQ(snapshot[2].path, key + L"\\DeviceSupport");
    EXPECT_EQ(snapshot[3].path, key + L"\\DeviceSupport\\Deeper");
    EXPECT_TRUE(registry.Snapshot(Hive::LocalMachine, key + L"\\NoSuchKey").empty());

    testing::TestPlatform platform;
    platform.env = DefaultEnv();  // the real registry, editor and processes
    platform.Reinstall();
    const std::filesystem::path file = platform.rootPath / "zep.reg";
    artifacts::PowerShellCollection collection(nullptr);
    ASSERT_NE(collection.ExportRegistry(key, file.native()), 0);
    const std::string bytes = testing::ReadText(file);
    ASSERT_GE(bytes.size(), 2u);
    EXPECT_EQ(bytes.substr(0, 2), "\xFF\xFE");
    EXPECT_EQ(bytes, EncodeUtf16LeWithBom(RenderRegText(Hive::LocalMachine, snapshot)));
    const std::wstring exported = DecodeRegFile(bytes);
    EXPECT_EQ(exported.rfind(L"Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\" + key + L"]\r\n", 0),
              0u);

    // The editor exits with 0 also when the key is not there: only the file
    // tells.
    const std::filesystem::path missing = platform.rootPath / "missing.reg";
    EXPECT_NE(collection.ExportRegistry(key + L"\\NoSuchKey", missing.native()), 0);
    EXPECT_FALSE(std::filesystem::exists(missing));
}

}  // namespace
}  // namespace zep::platform
