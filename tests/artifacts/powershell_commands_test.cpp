#include "artifacts/PowerShellCommands.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "artifacts/PowerShellCollection.h"
#include "platform/Env.h"
#include "support/TestPlatform.h"

namespace {

using namespace zep::artifacts;

const std::wstring kSystemDir = L"C:\\Windows\\System32";
const std::wstring kPowerShell =
    L"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe -ExecutionPolicy bypass -NoProfile "
    L"-NonInteractive -WindowStyle Hidden";

// ---- The command lines, compared whole ----------------------------------------

TEST(PowerShellCommandsTest, ScriptCommandPutsTheScriptInDoubleQuotesAfterThePrefix) {
    EXPECT_EQ(PowerShellPrefix(kSystemDir), kPowerShell);
    EXPECT_EQ(PowerShellScriptCommand(kSystemDir, L"Get-Date"),
              L"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe -ExecutionPolicy bypass -NoProfile "
              L"-NonInteractive -WindowStyle Hidden \"Get-Date\"");
}

TEST(PowerShellCommandsTest, LogScriptsInsertTheirFoldersAsGiven) {
    const std::wstring source = L"\\\\?\\C:\\ProgramData\\Quorin\\ZEP\\Log";
    const std::wstring destination = L"\\\\?\\C:\\stage\\it's\\ZEP\\Log";

    EXPECT_EQ(CopyLogsScript(source, destination),
              L"copy-item -Path \\\\?\\C:\\ProgramData\\Quorin\\ZEP\\Log\\* -destination "
              L"\\\\?\\C:\\stage\\it's\\ZEP\\Log -recurse -Force -erroraction ignore");
    EXPECT_EQ(RemoveZipsScript(destination),
              L"Get-ChildItem -Path \\\\?\\C:\\stage\\it's\\ZEP\\Log -include *.zip -File -Recurse | "
              L"foreach{$_.Delete()}");
    EXPECT_EQ(LimitLogsScript(L"\\\\?\\C:\\stage\\it''s\\ZEP\\Log"),
              L"$rootFolder='\\\\?\\C:\\stage\\it''s\\ZEP\\Log';$sizeLimitBytes=50MB;$totalSizeBytes=0;"
              L"Get-ChildItem -Path $rootFolder -File -Recurse|Sort-Object LastWriteTime -descending|"
              L"ForEach-Object{if(($totalSizeBytes += $_.Length) -gt $sizeLimitBytes)"
              L"{Remove-Item -Path $_.FullName -Force}}");
    EXPECT_EQ(ScrubPiiScript(destination),
              L"Get-ChildItem -Path \\\\?\\C:\\stage\\it's\\ZEP\\Log -File|ForEach-Object{(Get-Content "
              L"$_.FullName)| ForEach-Object{if ($_ -notmatch 'version'){$_ -replace "
              L"'(?<=\\\")(\\d{1,3}\\.\\d{1,3}\\.\\d{1,3}\\.\\d{1,3})(?=\\\")', '[REDACTED_IP]'}else{$_}}"
              L"|Set-Content $_.FullName }");
}

TEST(PowerShellCommandsTest, RegistryExportQuotesTheFileButNotTheKey) {
    EXPECT_EQ(RegistryExportCommand(L"C:\\Windows", L"C:\\stage\\ZEP\\context\\zep.reg", L"SOFTWARE\\Quorin\\ZEP"),
              L"C:\\Windows\\regedit.exe /e \"C:\\stage\\ZEP\\context\\zep.reg\" "
              L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP");
}

TEST(PowerShellCommandsTest, CompressArchiveEscapesBothPathsInsideTheCommandText) {
    EXPECT_EQ(CompressArchiveCommand(kSystemDir, L"\\\\?\\C:\\it's\\stage\\*", L"\\\\?\\C:\\it's\\out.zip"),
              L"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe -ExecutionPolicy bypass -NoProfile "
              L"-NonInteractive -WindowStyle Hidden -Command \"Compress-Archive -Path '\\\\?\\C:\\it''s\\stage\\*' "
              L"-DestinationPath '\\\\?\\C:\\it''s\\out.zip'\"");
}

TEST(PowerShellCommandsTest, PackageScriptGetsTheCommandAndTheOutputFolder) {
    EXPECT_EQ(PackageScriptCommand(kSystemDir, L"C:\\repo\\pkg\\temp\\install.ps1", L"C:\\Temp\\Quorin\\Zep\\s1\\pkg"),
              L"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe -ExecutionPolicy bypass -NoProfile "
              L"-NonInteractive -WindowStyle Hidden /f \"C:\\repo\\pkg\\temp\\install.ps1\" -command "
              L"\"get-diagnostics\" -outDir \"C:\\Temp\\Quorin\\Zep\\s1\\pkg\"");
}

// ---- The collection that runs them ----------------------------------------------

class PowerShellCollectionTest : public ::testing::Test {
protected:
    PowerShellCollectionTest() {
        // A folder with a single quote: only the scripts that quote it may double it.
        logs = platform.root + L"/it's/ZEP/Log";
        source = platform.root + L"/programdata/Log";
    }

    std::wstring Only() {
        const auto lines = platform.processes->CommandLines();
        EXPECT_EQ(lines.size(), 1u);
        return lines.empty() ? std::wstring() : lines.back();
    }

    zep::testing::TestPlatform platform;
    int hostToken = 0;
    PowerShellCollection collection{&hostToken};
    std::wstring logs;
    std::wstring source;
};

TEST_F(PowerShellCollectionTest, CopyUsesTheAbsolutePathsUnescaped) {
    ASSERT_EQ(platform.root.front(), L'/');
    EXPECT_EQ(collection.CopyLogs(source, logs, 1234), 1);
    EXPECT_EQ(Only(), kPowerShell + L" \"copy-item -Path " + source + L"\\* -destination " + logs +
                          L" -recurse -Force -erroraction ignore\"");
    EXPECT_EQ(platform.processes->lastHostContext, &hostToken);
}

TEST_F(PowerShellCollectionTest, ZipScrubUsesTheFolderUnescaped) {
    collection.RemoveArchives(logs);
    EXPECT_EQ(Only(), kPowerShell + L" \"Get-ChildItem -Path " + logs +
                          L" -include *.zip -File -Recurse | foreach{$_.Delete()}\"");
}

TEST_F(PowerShellCollectionTest, SizeLimitDoublesTheQuoteAndKeepsItsOwnFiftyMegabytes) {
    const std::wstring expected =
        kPowerShell + L" \"$rootFolder='" + platform.root +
        L"/it''s/ZEP/Log';$sizeLimitBytes=50MB;$totalSizeBytes=0;Get-ChildItem -Path $rootFolder -File -Recurse|"
        L"Sort-Object LastWriteTime -descending|ForEach-Object{if(($totalSizeBytes += $_.Length) -gt "
        L"$sizeLimitBytes){Remove-Item -Path $_.FullName -Force}}\"";
    collection.LimitLogSize(logs, 1);
    collection.LimitLogSize(logs, 50ull * 1024 * 1024);
    const auto lines = platform.processes->CommandLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], expected);
    EXPECT_EQ(lines[1], expected);
}

TEST_F(PowerShellCollectionTest, PiiScrubUsesTheFolderUnescaped) {
    collection.ScrubLogs(logs);
    EXPECT_EQ(Only(), kPowerShell + L" \"Get-ChildItem -Path " + logs +
                          L" -File|ForEach-Object{(Get-Content $_.FullName)| ForEach-Object{if ($_ -notmatch "
                          L"'version'){$_ -replace '(?<=\\\")(\\d{1,3}\\.\\d{1,3}\\.\\d{1,3}\\.\\d{1,3})(?=\\\")', "
                          L"'[REDACTED_IP]'}else{$_}}|Set-Content $_.FullName }\"");
}

TEST_F(PowerShellCollectionTest, RegistryExportUsesThePlatformsWindowsDirectory) {
    collection.ExportRegistry(L"SOFTWARE\\Quorin\\ZEP", L"C:\\stage\\ZEP\\context\\zep.reg");
    EXPECT_EQ(Only(), L"C:\\Windows\\regedit.exe /e \"C:\\stage\\ZEP\\context\\zep.reg\" "
                      L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP");
}

TEST_F(PowerShellCollectionTest, CompressAddsTheWildcardAndEscapesBothPaths) {
    collection.CompressFolder(platform.root + L"/it's/stage", platform.root + L"/it's/out.zip");
    EXPECT_EQ(Only(), kPowerShell + L" -Command \"Compress-Archive -Path '" + platform.root +
                          L"/it''s/stage/*' -DestinationPath '" + platform.root + L"/it''s/out.zip'\"");
}

TEST_F(PowerShellCollectionTest, PackageScriptIsInstallPs1RunWithItsOutputFolder) {
    EXPECT_EQ(collection.PackageScriptName(), L"install.ps1");
    collection.RunPackageScript(L"C:\\repo\\pkg\\temp\\install.ps1", L"C:\\out\\pkg");
    EXPECT_EQ(Only(), kPowerShell + L" /f \"C:\\repo\\pkg\\temp\\install.ps1\" -command \"get-diagnostics\" "
                                    L"-outDir \"C:\\out\\pkg\"");
}

TEST_F(PowerShellCollectionTest, EveryOperationReturnsTheLaunchersVerdict) {
    for (const int verdict : {0, 1}) {
        platform.processes->onLaunch = [verdict](const std::wstring&) { return verdict; };
        EXPECT_EQ(collection.CopyLogs(source, logs, 0), verdict);
        EXPECT_EQ(collection.RemoveArchives(logs), verdict);
        EXPECT_EQ(collection.LimitLogSize(logs, 0), verdict);
        EXPECT_EQ(collection.ScrubLogs(logs), verdict);
        EXPECT_EQ(collection.ExportRegistry(L"SOFTWARE\\Quorin\\ZEP", logs + L"/zep.reg"), verdict);
        EXPECT_EQ(collection.CompressFolder(logs, logs + L".zip"), verdict);
        EXPECT_EQ(collection.RunPackageScript(L"install.ps1", logs), verdict);
    }
    EXPECT_EQ(platform.processes->lastHostContext, &hostToken);
}

TEST_F(PowerShellCollectionTest, CollectorPrefersThePlatformsOwnCollection) {
    auto native = std::make_shared<PowerShellCollection>(nullptr);
    platform.env.collection = native;
    platform.Reinstall();
    EXPECT_EQ(Collector(&hostToken), native);
}

TEST_F(PowerShellCollectionTest, CollectorFallsBackToPowerShellWithTheHostContext) {
    platform.env.collection = nullptr;
    platform.Reinstall();
    auto collector = Collector(&hostToken);
    ASSERT_NE(dynamic_cast<PowerShellCollection*>(collector.get()), nullptr)
        << "an Env without a collection must mean the PowerShell way";
    collector->ScrubLogs(logs);
    EXPECT_EQ(platform.processes->lastHostContext, &hostToken);
}

}  // namespace
