// Packing a plug-in's diagnostics folder: the disk-space floor, what goes into
// the zip (natively), and the PowerShell line of the Windows way.
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "DiagnosticScanner/PluginDiagnosticsProcessor.h"
#include "platform/Paths.h"
#include "support/ManagerFixture.h"
#include "support/ZipReader.h"

namespace {

namespace fs = std::filesystem;
using zep::path::FromFs;
using zep::testing::WriteText;

// The real file system, with the free space a test chooses.
class FreeSpaceFiles : public zep::platform::FileSystemEnvWrapper {
public:
    explicit FreeSpaceFiles(std::shared_ptr<zep::platform::FileSystemEnv> real) : FileSystemEnvWrapper(std::move(real)) {}
    std::optional<std::uint64_t> FreeSpace(const std::wstring& p) override {
        asked.push_back(p);
        return free;
    }

    std::optional<std::uint64_t> free;
    std::vector<std::wstring> asked;
};

class PluginZipTest : public zep::testing::ManagerTest {
protected:
    bool Zip(std::wstring& zipPath) {
        return PluginDiagnosticsProcessor::CreatePluginZip(*manager, FromFs(diag), L"acme", zipPath);
    }

    const fs::path diag = platform.rootPath / "programdata" / "plugin-data" / "acme" / "diagnostics";
    const fs::path zip = diag / "latest" / "0f4c2d1e-aaaa-bbbb-cccc-000000000001_acme.zip";
};

// ---- Disk space ---------------------------------------------------------------

TEST_F(PluginZipTest, NeedsFiftyMebibytesFreeOnTheFolderVolume) {
    WriteText(diag / "plugin.log", "trace");
    auto files = std::make_shared<FreeSpaceFiles>(platform.env.files);
    platform.env.files = files;
    platform.Reinstall();

    struct Case {
        std::optional<std::uint64_t> free;
        bool zipped;
    };
    for (const Case& c : {Case{52428799, false}, Case{52428800, true}, Case{std::nullopt, false}}) {
        fs::remove_all(diag / "latest");
        platform.log->Clear();
        files->free = c.free;
        std::wstring zipPath;

        EXPECT_EQ(Zip(zipPath), c.zipped) << c.free.value_or(0);

        EXPECT_EQ(fs::exists(zip), c.zipped);
        EXPECT_EQ(platform.log->Contains(
                      "PluginDiagnosticsProcessor::CreatePluginZip: insufficient disk space for plugin zip, "
                      "plugin=acme"),
                  !c.zipped);
    }
    EXPECT_EQ(files->asked.back(), FromFs(diag));
}

// ---- What the zip holds (the native way) ----------------------------------------

TEST_F(PluginZipTest, PacksTheTopLevelAndLatestScanResultButNotHistoryPreferenceOrArchives) {
    WriteText(diag / "component-result.json", R"({"componentId":"acme"})");
    WriteText(diag / "plugin.log", "trace");
    WriteText(diag / "traces" / "run1" / "trace.etl", "etl");
    // Below the top level nothing is filtered.
    WriteText(diag / "traces" / "inner.zip", "PK");
    WriteText(diag / "traces" / "plugin-upload-meta.json", "{}");
    WriteText(diag / "scan-history.log", "2026-11-21T10:15:30Z,Mqtt,1,1,0,\"\"\n");
    WriteText(diag / "plugin-upload-meta.json", R"({"deleteFilesOnUpload":true})");
    WriteText(diag / "a.zip", "PK");
    WriteText(diag / "b.ZIP", "PK");
    // The plug-in's own file of that name gives way to the agent's scan result.
    WriteText(diag / "scan-result.json", "plugin's own");
    WriteText(diag / "latest" / "scan-result.json", R"({"id":"scan1"})");
    WriteText(diag / "latest" / "plugin-upload-meta.json", R"({"deleteFilesOnUpload":false})");
    WriteText(diag / "latest" / "notes.txt", "latest's other files stay out");
    // A zip of an earlier request is replaced, not merged into.
    WriteText(zip, "stale");

    std::wstring zipPath;
    ASSERT_TRUE(Zip(zipPath));

    EXPECT_EQ(zipPath, FromFs(zip));
    EXPECT_EQ(zep::testing::ZipEntries(zip),
              (std::set<std::string>{"component-result.json", "plugin.log", "scan-result.json", "traces/",
                                     "traces/inner.zip", "traces/plugin-upload-meta.json", "traces/run1/",
                                     "traces/run1/trace.etl"}));
    EXPECT_EQ(zep::testing::ZipRead(zip, "scan-result.json"), std::optional<std::string>(R"({"id":"scan1"})"));
    EXPECT_EQ(zep::testing::ZipRead(zip, "traces/run1/trace.etl"), std::optional<std::string>("etl"));
    EXPECT_TRUE(platform.log->Contains("PluginDiagnosticsProcessor::CreatePluginZip: plugin zip result=1 path=" +
                                       zip.string()));
}

TEST_F(PluginZipTest, NeverFollowsLinksNorOpensSpecialFiles) {
    const fs::path outside = platform.rootPath / "outside";
    WriteText(outside / "secret.txt", "secret");
    WriteText(outside / "scan-result.json", R"({"forged":true})");
    WriteText(diag / "plugin.log", "trace");
    fs::create_symlink(outside / "secret.txt", diag / "secret-link.txt");
    fs::create_symlink(outside, diag / "folder-link");
    ASSERT_EQ(::mkfifo((diag / "pipe.log").c_str(), 0600), 0);
    // A linked scan result in "latest" is not taken either.
    fs::create_directories(diag / "latest");
    fs::create_symlink(outside / "scan-result.json", diag / "latest" / "scan-result.json");

    std::wstring zipPath;
    ASSERT_TRUE(Zip(zipPath));

    EXPECT_EQ(zep::testing::ZipEntries(zip), (std::set<std::string>{"plugin.log"}));
}

TEST_F(PluginZipTest, FailsWithoutAFileWhenOnlyTheHistoryAndAnEmptyLatestAreThere) {
    WriteText(diag / "scan-history.log", "2026-11-21T10:15:30Z,Mqtt,1,1,0,\"\"\n");
    fs::create_directories(diag / "latest");

    std::wstring zipPath;
    EXPECT_FALSE(Zip(zipPath));

    EXPECT_TRUE(fs::is_empty(diag / "latest"));
    EXPECT_TRUE(platform.log->Contains("PluginDiagnosticsProcessor::CreatePluginZip: plugin zip result=0"));
    EXPECT_TRUE(
        platform.log->Contains("PluginDiagnosticsProcessor::CreatePluginZip: plugin zip creation failed for plugin=acme"));
}

// ---- The Windows way ------------------------------------------------------------

class PowerShellPluginZipTest : public PluginZipTest {
protected:
    PowerShellPluginZipTest() {
        platform.env.collection = nullptr;
        platform.Reinstall();
        peer->SetHostContext(&hostContext);
        WriteText(diag / "plugin.log", "trace");
    }
    int hostContext = 0;
};

TEST_F(PowerShellPluginZipTest, RunsTheLineWithTheHostContextAndNeedsAGoodRunAndANewZip) {
    struct Case {
        int exitResult;
        bool writesZip;
        bool zipped;
    };
    for (const Case& c : {Case{1, true, true}, Case{1, false, false}, Case{0, true, false}}) {
        // An earlier request's zip must not pass for this one's.
        WriteText(zip, "stale");
        platform.processes->onLaunch = [&](const std::wstring&) {
            if (c.writesZip) WriteText(zip, "PK");
            return c.exitResult;
        };
        std::wstring zipPath;

        EXPECT_EQ(Zip(zipPath), c.zipped) << c.exitResult << c.writesZip;

        const std::wstring d = FromFs(diag);
        EXPECT_EQ(platform.processes->CommandLines().back(),
                  L"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe -ExecutionPolicy bypass "
                  L"-NoProfile -NonInteractive -WindowStyle Hidden -Command \"$root='" +
                      d +
                      L"';$items=@();$items += Get-ChildItem -Path $root -Force | Where-Object { $_.Name -ne "
                      L"'scan-history.log' -and $_.Name -ne 'latest' };$scanResult='" +
                      d +
                      L"\\latest\\scan-result.json';if (Test-Path $scanResult) { $items += Get-Item $scanResult };"
                      L"$items = $items | Where-Object { $_.Name -ne 'plugin-upload-meta.json' -and $_.Extension "
                      L"-ne '.zip' };if ($items.Count -eq 0) { exit 1 };Compress-Archive -Path ($items | "
                      L"ForEach-Object { $_.FullName }) -DestinationPath '" +
                      FromFs(zip) + L"' -Force\"");
        EXPECT_EQ(platform.processes->lastHostContext, &hostContext);
    }
}

}  // namespace
