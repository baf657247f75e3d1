#include "artifacts/PowerShellCommands.h"
#include "artifacts/ZipNames.h"

#include <chrono>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "artifacts/PowerShellCollection.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "support/TestPlatform.h"

namespace {

using zep::artifacts::EscapeSingleQuotes;
using zep::artifacts::PowerShellCollection;
using zep::artifacts::SanitizeZipFileName;
using zep::artifacts::ZipFolderName;

TEST(SanitizeZipFileNameTest, KeepsOnlyASafeLastComponent) {
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {
        // Names that try to leave the folder keep only their last component.
        {L"..\\..\\evil.zip", L"evil.zip"},
        {L"C:\\Windows\\System32/evil.zip", L"evil.zip"},
        // Forbidden characters and controls up to 31 become underscores; a blank (32) inside stays.
        {L"a:b?.zip ", L"a_b_.zip"},
        {L"a\"b*c<d>e|f.zip", L"a_b_c_d_e_f.zip"},
        {L"a\x1f" L"b\x01.zip", L"a_b_.zip"},
        {L"a b.zip", L"a b.zip"},
        {L"\t a\tb.zip \t", L"a_b.zip"},
        {L"\u00e9t\u00e9-\u65e5\u672c.zip", L"\u00e9t\u00e9-\u65e5\u672c.zip"},
        // Trailing blanks and dots go last; leading dots and a blank after the separator stay.
        {L"a.zip. . ", L"a.zip"},
        {L".hidden.zip", L".hidden.zip"},
        {L"dir\\ a.zip", L" a.zip"},
        {L"a?", L"a_"},  // a replaced character is not a dot
        // Nothing usable left.
        {L"", L""}, {L"\t.. \t", L""}, {L". . .", L""}, {L"a/b/", L""}, {L"x\\ ", L""}, {L"x/...", L""},
    };
    for (const auto& [input, expected] : cases) {
        EXPECT_EQ(SanitizeZipFileName(input), expected) << "input: [" << zep::text::ToUtf8(input) << "]";
    }
}

// One name for staging, the archive and the upload: packing must not change it.
TEST(ZipFolderNameTest, IsOneSafeNameThatPackingKeepsAsItIs) {
    const std::wstring longId(300, L'\u00e9');
    struct Case {
        std::wstring logical, scan, expected;
    };
    const Case cases[] = {
        {L"LD-1", L"scan1", L"LD-1_scan1"},
        {L"LD:1?", L"scan1", L"LD_1__scan1"},
        {L"../../../escape", L"scan1", L".._.._.._escape_scan1"},
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
        {[&] { return collection.RunPackageScript(L"C:\\pkg\\install.ps1", L"C:\\out\\vpn"); },
         kPowerShell + L" /f \"C:\\pkg\\install.ps1\" -command \"get-diagnostics\" -outDir \"C:\\out\\vpn\""},
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
    EXPECT_EQ(platform.processes->lastCeiling, std::chrono::minutes(30));  // the child-process ceiling
}

}  // namespace
