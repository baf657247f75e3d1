// zepdiag.exe and DiagnosticScanner.dll driving a scan of a device folder
// under Wine, the PowerShell way, with the stand-in powershell.exe: every
// command line the module launches is compared whole with the agent's own
// template, filled in with the real paths. The stand-in only records, so no
// archive is made: what follows from that is checked too.
#include "platform/windows/Win32.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "platform/env/CollectionEnv.h"
#include "platform/util/MemoryRegistry.h"
#include "platform/util/Strings.h"
#include "platform/windows/WindowsProcess.h"
#include "support/Links.h"
#include "support/Programs.h"
#include "support/TempFolder.h"
#include "support/TestPlatform.h"
#include "support/ZipReader.h"
#include "windows/support/StandIn.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using zep::testing::ReadText;

// The agent's command lines; {PS} is PowerShell with its fixed options, the
// other names in braces are paths.
constexpr char kPowerShell[] =
    "{SYS}\\WindowsPowerShell\\v1.0\\powershell.exe -ExecutionPolicy bypass -NoProfile -NonInteractive "
    "-WindowStyle Hidden";
constexpr char kPackageScript[] =
    R"({PS} /f "{DEV}\packages\com.quorin.vpnclient\temp\install.ps1" -command "get-diagnostics" )"
    R"(-outDir "{DEV}\temp\Quorin\Zep\{SCAN}\com.quorin.vpnclient")";
constexpr char kCopyLogs[] =
    R"({PS} "copy-item -Path \\?\{DEV}\programdata\Log\* -destination \\?\{STAGE}\ZEP\Log -recurse -Force )"
    R"(-erroraction ignore")";
constexpr char kRemoveZips[] =
    R"({PS} "Get-ChildItem -Path \\?\{STAGE}\ZEP\Log -include *.zip -File -Recurse | foreach{$_.Delete()}")";
constexpr char kLimitLogs[] =
    R"({PS} "$rootFolder='\\?\{STAGE}\ZEP\Log';$sizeLimitBytes=50MB;$totalSizeBytes=0;Get-ChildItem -Path )"
    R"($rootFolder -File -Recurse|Sort-Object LastWriteTime -descending|ForEach-Object{if(($totalSizeBytes += )"
    R"($_.Length) -gt $sizeLimitBytes){Remove-Item -Path $_.FullName -Force}}")";
constexpr char kScrubPii[] =
    R"({PS} "Get-ChildItem -Path \\?\{STAGE}\ZEP\Log -File|ForEach-Object{(Get-Content $_.FullName)| )"
    R"(ForEach-Object{if ($_ -notmatch 'version'){$_ -replace '(?<=\")(\d{1,3}\.\d{1,3}\.\d{1,3}\.\d{1,3})(?=\")', )"
    R"('[REDACTED_IP]'}else{$_}}|Set-Content $_.FullName }")";
constexpr char kCompressScan[] =
    R"({PS} -Command "Compress-Archive -Path '\\?\{STAGE}\*' -DestinationPath '\\?\{STAGE}.zip'")";
constexpr char kCompressPlugin[] =
    R"({PS} -Command "$root='{PLUGIN}';$items=@();$items += Get-ChildItem -Path $root -Force | Where-Object )"
    R"({ $_.Name -ne 'scan-history.log' -and $_.Name -ne 'latest' };$scanResult='{PLUGIN}\latest\scan-result.json')"
    R"(;if (Test-Path $scanResult) { $items += Get-Item $scanResult };$items = $items | Where-Object { $_.Name )"
    R"(-ne 'plugin-upload-meta.json' -and $_.Extension -ne '.zip' };if ($items.Count -eq 0) { exit 1 };)"
    R"(Compress-Archive -Path ($items | ForEach-Object { $_.FullName }) -DestinationPath )"
    R"('{PLUGIN}\latest\7C3E9A12-5B4D-4E8F-9A61-2D0B7F3C8E45_com.quorin.demoplugin.zip' -Force")";

class ZepdiagScanTest : public ::testing::Test {
protected:
    void SetUp() override {
        folder = zep::testing::MakeTempFolder("zep-scan-");
        device = folder / "device";
        record = (folder / "powershell.txt").native();
        std::string why;
        if (!zep::testing::InstallPowerShellStandIn(record, why)) GTEST_SKIP() << why;
        wchar_t system[MAX_PATH];
        values["{SYS}"] = zep::text::ToUtf8(std::wstring(system, ::GetSystemDirectoryW(system, MAX_PATH)));
        values["{DEV}"] = zep::text::ToUtf8(device.native());
    }
    void TearDown() override { zep::testing::RemoveTree(folder); }

    // zepdiag.exe with `arguments`, its standard output, its exit status.
    zep::platform::ProcessResult Zepdiag(std::vector<std::wstring> arguments) {
        zep::platform::ProcessRequest request;
        request.argv = {zep::testing::ProgramBesideTests("zepdiag").native()};
        request.argv.insert(request.argv.end(), arguments.begin(), arguments.end());
        request.captureOutput = true;
        request.timeout = std::chrono::minutes(2);
        return zep::platform::WindowsProcess().Spawn(request);
    }

    // A template with the names in braces filled in.
    std::string Line(std::string text) {
        for (int pass = 0; pass < 2; ++pass) {  // {PS} brings {SYS} with it
            for (const auto& [name, value] : values) {
                for (std::size_t at = text.find(name); at != std::string::npos; at = text.find(name, at)) {
                    text.replace(at, name.size(), value);
                    at += value.size();
                }
            }
        }
        return text;
    }

    fs::path folder, device;
    std::wstring record;
    std::map<std::string, std::string> values = {{"{PS}", kPowerShell}};
};

TEST_F(ZepdiagScanTest, AScanLaunchesTheAgentsCommandLinesAndKeepsWhatWasNotPacked) {
    const auto init = Zepdiag({L"init", L"--device", device.native()});
    ASSERT_EQ(init.exitCode, 0) << init.output;
    EXPECT_THAT(init.output, HasSubstr("Imported registry.reg into the registry"));
    // regedit /s reported its import truthfully (zepdiag read the values back):
    // the scan's pinning test reads certPinningError = 0 from the registry.
    const auto scan = Zepdiag({L"scan", L"--device", device.native()});
    ASSERT_EQ(scan.exitCode, 0) << scan.output;
    EXPECT_THAT(scan.output, HasSubstr("xrs_api_cert_pinning   success     success     PASS"));

    Json::Value result;
    std::istringstream(ReadText(device / "programdata" / "diagnostics" / "latest" / "scan-result.json")) >> result;
    const std::string scanId = result["id"].asString();
    ASSERT_EQ(scanId.size(), 36u);
    values["{SCAN}"] = scanId;
    const fs::path stage = device / "programdata" / "diagnostics" / "latest" / ("LD-4F2A9C_" + scanId);
    values["{STAGE}"] = zep::text::ToUtf8(stage.native());

    EXPECT_EQ(zep::testing::RecordedCommandLines(record),
              (std::vector<std::string>{Line(kPackageScript), Line(kCopyLogs), Line(kRemoveZips), Line(kLimitLogs),
                                        Line(kScrubPii), Line(kCompressScan)}));

    // No archive: the staged files stay for the next try, the upload reports
    // the missing file, and the history says so.
    EXPECT_THAT(scan.output, HasSubstr("Zip:               not produced"));
    EXPECT_TRUE(fs::is_regular_file(stage / "ZEP" / "component-result.json"));
    EXPECT_TRUE(fs::is_regular_file(stage / "scan-result.json"));
    EXPECT_FALSE(fs::exists(stage.native() + L".zip"));
    EXPECT_THAT(ReadText(device / "outbox" / "failed.log"), HasSubstr(",LD-4F2A9C_" + scanId + ".zip,1\n"));
    EXPECT_THAT(ReadText(device / "programdata" / "diagnostics" / "scan-history.log"),
                HasSubstr(",Manual,1,0,0,\"\"\r\n"));

    // zep.reg is the real registry editor's export of the agent's key.
    const std::string reg = ReadText(stage / "ZEP" / "context" / "zep.reg");
    ASSERT_GE(reg.size(), 2u);
    EXPECT_EQ(reg.substr(0, 2), "\xFF\xFE");
    const std::wstring text = zep::platform::DecodeRegFile(reg);
    EXPECT_EQ(text.rfind(L"Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP]\r\n", 0),
              0u);
    const std::size_t subKey = text.find(L"\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP\\DeviceSupport]\r\n");
    ASSERT_NE(subKey, std::wstring::npos);
    EXPECT_NE(text.find(L"\r\n\"TimeoutInSeconds\"=dword:0000003c\r\n", subKey), std::wstring::npos);
}

TEST_F(ZepdiagScanTest, APluginRunsAndItsFolderIsPackedWithTheAgentsLine) {
    ASSERT_EQ(Zepdiag({L"init", L"--device", device.native()}).exitCode, 0);
    const auto notify = Zepdiag({L"notify", L"--device", device.native(), L"--payload",
                                 LR"({"zep-message":{"action":{"cmd_param":{"requestId":"r1","target":["demo-plugin"]}}}})"});
    ASSERT_EQ(notify.exitCode, 0) << notify.output;
    const fs::path plugin = device / "programdata" / "plugin-data" / "com.quorin.demoplugin" / "diagnostics";
    values["{PLUGIN}"] = zep::text::ToUtf8(plugin.native());
    EXPECT_EQ(zep::testing::RecordedCommandLines(record), std::vector<std::string>{Line(kCompressPlugin)});

    // The plug-in's own program ran (demo-plugin.exe, argument vector and
    // all); its zip did not come, so nothing went up and the history says so.
    EXPECT_THAT(ReadText(plugin / "component-result.json"), HasSubstr("com.quorin.demoplugin"));
    EXPECT_THAT(ReadText(plugin / "Log" / "demo-plugin.log"), HasSubstr("started by the elevated instance"));
    EXPECT_THAT(notify.output, HasSubstr("Zip:               none in latest/"));
    EXPECT_THAT(ReadText(plugin / "scan-history.log"), HasSubstr(",Mqtt,1,1,0,\"\"\r\n"));
}

// Asked for by name, the one-pass packer makes the archive itself: no
// PowerShell line but the package script's, and the zip (read with libzip) holds the scan's documents,
// the registry export read through RegGetValueW and the scrubbed logs.
TEST_F(ZepdiagScanTest, TheNativeWayPacksTheArchiveWithoutPowerShell) {
    ASSERT_EQ(Zepdiag({L"init", L"--device", device.native()}).exitCode, 0);
    const fs::path log = device / "programdata" / "Log" / "agent.log";
    zep::testing::WriteText(log, "connect \"10.1.2.3\" version \"1.2.3.4\"\r\nplain \"192.168.0.1\"\r\n");
    const auto scan = Zepdiag({L"scan", L"--native", L"--device", device.native()});
    ASSERT_EQ(scan.exitCode, 0) << scan.output;

    Json::Value result;
    std::istringstream(ReadText(device / "programdata" / "diagnostics" / "latest" / "scan-result.json")) >> result;
    values["{SCAN}"] = result["id"].asString();
    // The package's install.ps1 is the one PowerShell line left.
    EXPECT_EQ(zep::testing::RecordedCommandLines(record), std::vector<std::string>{Line(kPackageScript)});
    const std::string name = "LD-4F2A9C_" + result["id"].asString() + ".zip";
    const fs::path zip = device / "outbox" / "0001" / name;
    const std::set<std::string> entries = zep::testing::ZipEntries(zip);
    EXPECT_THAT(entries, ::testing::IsSupersetOf({"scan-result.json", "ZEP/context/zep.reg", "ZEP/Log/agent.log"})) << scan.output;
    const auto scrubbed = zep::testing::ZipRead(zip, "ZEP/Log/agent.log");
    ASSERT_TRUE(scrubbed.has_value());
    EXPECT_THAT(*scrubbed, HasSubstr("\"10.1.2.3\" version"));  // a line naming a version is kept
    EXPECT_THAT(*scrubbed, HasSubstr("plain \"[REDACTED_IP]\""));
    const auto reg = zep::testing::ZipRead(zip, "ZEP/context/zep.reg");
    ASSERT_TRUE(reg.has_value());
    EXPECT_EQ(reg->substr(0, 2), std::string("\xFF\xFE")) << "UTF-16LE with its byte-order mark, as regedit writes";
}

}  // namespace
