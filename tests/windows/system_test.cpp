// The system's folders and the user, as Windows gives them.
#include "platform/windows/Win32.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/windows/WindowsSystem.h"
#include "support/Links.h"

namespace zep::platform {
namespace {

TEST(WindowsSystemTest, FoldersAreTheSystemsOwn) {
    WindowsSystem system;
    wchar_t buffer[MAX_PATH];
    const UINT length = ::GetSystemDirectoryW(buffer, MAX_PATH);
    EXPECT_EQ(system.SystemDirectory(), std::wstring(buffer, length));
    const std::wstring windows = system.WindowsDirectory();
    ASSERT_FALSE(windows.empty());
    EXPECT_NE(windows.back(), L'\\');
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::path(windows) / "regedit.exe"));
    const std::wstring temp = system.TempFolder();
    ASSERT_FALSE(temp.empty());
    EXPECT_EQ(temp.back(), L'\\');
    EXPECT_TRUE(std::filesystem::is_directory(temp));
}

TEST(WindowsSystemTest, TheUserIsAnAccountSidAndTheAgentsRootExistsOrIsAbsent) {
    WindowsSystem system;
    // Not LocalSystem here: the process's own user.
    EXPECT_EQ(system.LoggedInUserSid().rfind(L"S-1-5-", 0), 0u) << "not a SID";

    wchar_t programData[MAX_PATH];
    ASSERT_GT(::GetEnvironmentVariableW(L"ProgramData", programData, MAX_PATH), 0u);
    const std::filesystem::path root = std::filesystem::path(programData) / "Quorin" / "Zep";
    if (!std::filesystem::exists(root)) {
        EXPECT_FALSE(system.AppDataRoot().has_value());
        if (!testing::RunningUnderWine()) return;  // a real machine's ProgramData is not ours to change
        std::filesystem::create_directories(root);
        EXPECT_EQ(system.AppDataRoot(), root.native());
        std::filesystem::remove_all(root.parent_path());
    } else {
        EXPECT_EQ(system.AppDataRoot(), root.native());
    }
}

}  // namespace
}  // namespace zep::platform
