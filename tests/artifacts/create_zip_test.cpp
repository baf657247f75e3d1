// CreateZip through PowerShell: the staging folder goes only once the archive is there.
#include <filesystem>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "artifacts/PowerShellCollection.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "support/ManagerFixture.h"

namespace {

namespace fs = std::filesystem;
using zep::path::ToFs;
using zep::testing::WriteText;

class CreateZipTest : public zep::testing::ManagerTest {};

TEST_F(CreateZipTest, SourceIsDeletedOnlyWhenTheLaunchSucceededAndTheZipExists) {
    struct Case {
        const wchar_t* name;
        int verdict;
        bool writesZip;
        bool sourceDeleted;
    };
    const Case cases[] = {
        {L"LD-TEST01_scan1.zip", 1, true, true},
        {L"  ..\\..\\LD-TEST01_scan1.zip. ", 1, true, true},  // the name cannot climb out
        {L"LD-TEST01_scan1.zip", 0, false, false},
        {L"LD-TEST01_scan1.zip", 1, false, false},  // a claimed success without the file
        {L"LD-TEST01_scan1.zip", 0, true, false},   // a file after a failed launch
    };
    int hostToken = 0;
    platform.env.collection = std::make_shared<zep::artifacts::PowerShellCollection>(&hostToken);
    platform.Reinstall();
    peer->SetHostContext(&hostToken);
    const std::wstring latest = platform.root + zep::path::NativePath(L"\\programdata\\diagnostics\\latest");
    const std::wstring staging = latest + zep::path::NativePath(L"\\LD-TEST01_scan1");
    const std::wstring zip = staging + L".zip";

    std::size_t launched = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(zep::text::ToUtf8(c.name) + " verdict " + std::to_string(c.verdict));
        fs::remove(ToFs(zip));
        WriteText(ToFs(staging) / "ZEP" / "component-result.json", "{\"componentId\":\"ZEP\"}");
        platform.processes->onLaunch = [&](const std::wstring&) {
            if (c.writesZip) WriteText(ToFs(zip), "PK new");
            return c.verdict;
        };

        manager->CreateZip(staging, latest, c.name);

        const auto lines = platform.processes->CommandLines();
        ASSERT_EQ(lines.size(), ++launched);
        EXPECT_EQ(lines.back(), L"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe -ExecutionPolicy "
                                L"bypass -NoProfile -NonInteractive -WindowStyle Hidden -Command \"Compress-Archive "
                                L"-Path '" + zep::testing::Extended(staging + zep::path::NativePath(L"\\*")) +
                                L"' -DestinationPath '" + zep::testing::Extended(zip) + L"'\"");
        EXPECT_EQ(platform.processes->lastHostContext, &hostToken);
        EXPECT_EQ(fs::exists(ToFs(staging)), !c.sourceDeleted);
    }
}

}  // namespace
