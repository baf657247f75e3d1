// The command lines the Windows collection launches, compared whole.
#include "artifacts/PowerShellCommands.h"

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "artifacts/PowerShellCollection.h"
#include "platform/util/Paths.h"
#include "support/TestPlatform.h"

namespace {

using zep::artifacts::PowerShellCollection;

const std::wstring kPowerShell =
    L"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe -ExecutionPolicy bypass -NoProfile "
    L"-NonInteractive -WindowStyle Hidden";

TEST(PowerShellCollectionTest, EachOperationLaunchesExactlyItsCommandLine) {
    zep::testing::TestPlatform platform;
    int hostToken = 0;
    PowerShellCollection collection{&hostToken};
    // A folder with a single quote: only the scripts that quote it may double it.
    const auto below = [&](const wchar_t* literal) { return platform.root + zep::path::NativePath(literal); };
    const auto extended = [&](const wchar_t* literal) { return zep::testing::Extended(below(literal)); };
    const std::wstring logs = below(L"\\it's\\ZEP\\Log");
    const std::wstring source = below(L"\\programdata\\Log");

    struct Case {
        std::function<int()> run;
        std::wstring line;
    };
    const Case cases[] = {
        {[&] { return collection.CopyLogs(source, logs, 1234); },
         kPowerShell + L" \"copy-item -Path " + extended(L"\\programdata\\Log") + L"\\* -destination " +
             extended(L"\\it's\\ZEP\\Log") + L" -recurse -Force -erroraction ignore\""},
        {[&] { return collection.RemoveArchives(logs); },
         kPowerShell + L" \"Get-ChildItem -Path " + extended(L"\\it's\\ZEP\\Log") +
             L" -include *.zip -File -Recurse | foreach{$_.Delete()}\""},
        // The limit is the script's own 50 MB whatever the caller asks.
        {[&] { return collection.LimitLogSize(logs, 1); },
         kPowerShell + L" \"$rootFolder='" + extended(L"\\it''s\\ZEP\\Log") +
             L"';$sizeLimitBytes=50MB;$totalSizeBytes=0;Get-ChildItem -Path $rootFolder -File -Recurse|"
             L"Sort-Object LastWriteTime -descending|ForEach-Object{if(($totalSizeBytes += $_.Length) -gt "
             L"$sizeLimitBytes){Remove-Item -Path $_.FullName -Force}}\""},
        {[&] { return collection.ScrubLogs(logs); },
         kPowerShell + L" \"Get-ChildItem -Path " + extended(L"\\it's\\ZEP\\Log") +
             L" -File|ForEach-Object{(Get-Content $_.FullName)| ForEach-Object{if ($_ -notmatch "
             L"'version'){$_ -replace '(?<=\\\")(\\d{1,3}\\.\\d{1,3}\\.\\d{1,3}\\.\\d{1,3})(?=\\\")', "
             L"'[REDACTED_IP]'}else{$_}}|Set-Content $_.FullName }\""},
        {[&] { return collection.ExportRegistry(L"SOFTWARE\\Quorin\\ZEP", L"C:\\stage\\ZEP\\context\\zep.reg"); },
         L"C:\\Windows\\regedit.exe /e \"C:\\stage\\ZEP\\context\\zep.reg\" HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP"},
        {[&] { return collection.CompressFolder(below(L"\\it's\\stage"), below(L"\\it's\\out.zip")); },
         kPowerShell + L" -Command \"Compress-Archive -Path '" + extended(L"\\it''s\\stage\\*") +
             L"' -DestinationPath '" + extended(L"\\it''s\\out.zip") + L"'\""},
        {[&] { return collection.RunPackageScript(L"C:\\repo\\pkg\\temp\\install.ps1", L"C:\\out\\pkg"); },
         kPowerShell + L" /f \"C:\\repo\\pkg\\temp\\install.ps1\" -command \"get-diagnostics\" -outDir \"C:\\out\\pkg\""},
    };
    platform.processes->onLaunch = [](const std::wstring&) { return 0; };
    std::size_t launched = 0;
    for (const Case& c : cases) {
        EXPECT_EQ(c.run(), 0) << "the launcher's verdict is returned";
        const auto lines = platform.processes->CommandLines();
        ASSERT_EQ(lines.size(), ++launched);
        EXPECT_EQ(lines.back(), c.line);
    }
    EXPECT_EQ(platform.processes->lastHostContext, &hostToken);
}

}  // namespace
