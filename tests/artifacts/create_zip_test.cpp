#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "artifacts/PowerShellCollection.h"
#include "platform/Paths.h"
#include "platform/Strings.h"
#include "support/ManagerFixture.h"

namespace {

namespace fs = std::filesystem;
using zep::path::ToFs;
using zep::testing::ReadText;
using zep::testing::WriteText;
using zep::text::ToUtf8;

const std::wstring kPowerShell =
    L"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe -ExecutionPolicy bypass -NoProfile "
    L"-NonInteractive -WindowStyle Hidden";

// Files as the platform has them, except that one path cannot be removed.
class RefusingRemove : public zep::platform::FileSystemEnvWrapper {
public:
    RefusingRemove(std::shared_ptr<zep::platform::FileSystemEnv> inner, std::wstring refused)
        : FileSystemEnvWrapper(std::move(inner)), refused_(std::move(refused)) {}
    bool Remove(const std::wstring& p, bool r) override { return p != refused_ && FileSystemEnvWrapper::Remove(p, r); }

private:
    std::wstring refused_;
};

class CreateZipTest : public zep::testing::ManagerTest {
protected:
    CreateZipTest() {
        latest = platform.root + L"/programdata/diagnostics/latest";
        staging = latest + L"/LD-TEST01_scan1";
        zipPath = staging + L".zip";
        WriteText(ToFs(staging) / "ZEP" / "component-result.json", "{\"componentId\":\"ZEP\"}");
        WriteText(ToFs(staging) / "scan-result.json", "{}");
    }

    // The Windows way, with the host context the manager got from Init.
    void UsePowerShell() {
        platform.env.collection = std::make_shared<zep::artifacts::PowerShellCollection>(&hostToken);
        platform.Reinstall();
        peer->SetHostContext(&hostToken);
    }

    // Plays PowerShell: optionally writes the archive, then answers `verdict`.
    void PowerShellAnswers(int verdict, bool writesZip) {
        platform.processes->onLaunch = [this, verdict, writesZip](const std::wstring&) {
            zipExistedAtLaunch = fs::exists(ToFs(zipPath));
            if (writesZip) WriteText(ToFs(zipPath), "PK new");
            return verdict;
        };
    }

    std::wstring CompressLine(const std::wstring& source, const std::wstring& zip) const {
        return kPowerShell + L" -Command \"Compress-Archive -Path '" + source + L"/*' -DestinationPath '" + zip +
               L"'\"";
    }

    // How many times CreateZip logged exactly this message (label omitted).
    std::size_t Logged(const std::wstring& message) const {
        const std::string wanted = "DiagnosticsManager::CreateZip " + ToUtf8(message);
        std::size_t count = 0;
        for (const auto& logged : platform.log->Messages()) count += logged == wanted ? 1u : 0u;
        return count;
    }

    int hostToken = 0;
    bool zipExistedAtLaunch = false;
    std::wstring latest;
    std::wstring staging;
    std::wstring zipPath;
};

// ---- The PowerShell way -------------------------------------------------------------

TEST_F(CreateZipTest, RunsCompressArchiveOnTheStagingFolderAndDeletesItOnceTheZipExists) {
    UsePowerShell();
    PowerShellAnswers(1, true);
    ASSERT_EQ(platform.root.front(), L'/');

    manager->CreateZip(staging, latest, L"LD-TEST01_scan1.zip");

    const auto lines = platform.processes->CommandLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], CompressLine(staging, zipPath));
    EXPECT_EQ(platform.processes->lastHostContext, &hostToken);
    EXPECT_FALSE(fs::exists(ToFs(staging)));
    EXPECT_EQ(ReadText(ToFs(zipPath)), "PK new");
    EXPECT_EQ(Logged(L"Created Zip for diagnostics successfully: " + staging), 1u);
    EXPECT_EQ(Logged(L"Source directory deleted successfully: " + staging), 1u);
}

TEST_F(CreateZipTest, InputsAreNormalisedBeforeTheCommandIsBuilt) {
    UsePowerShell();
    PowerShellAnswers(1, true);

    // Trailing separators go; the name cannot climb out of the destination.
    manager->CreateZip(staging + L"//", latest + L"///", L"  ..\\..\\LD-TEST01_scan1.zip. ");

    const auto lines = platform.processes->CommandLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], CompressLine(staging, zipPath));
    EXPECT_FALSE(fs::exists(ToFs(staging)));
}

TEST_F(CreateZipTest, SourceFolderWithASingleQuoteReachesPowerShellDoubled) {
    UsePowerShell();
    const std::wstring quoted = platform.root + L"/it's";
    WriteText(ToFs(quoted) / "stage" / "a.txt", "a");
    PowerShellAnswers(1, false);

    manager->CreateZip(quoted + L"/stage", quoted, L"out.zip");

    const auto lines = platform.processes->CommandLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], CompressLine(platform.root + L"/it''s/stage", platform.root + L"/it''s/out.zip"));
}

TEST_F(CreateZipTest, SourceStaysWhenTheArchiveIsNotThere) {
    UsePowerShell();
    PowerShellAnswers(0, false);
    manager->CreateZip(staging, latest, L"LD-TEST01_scan1.zip");
    EXPECT_TRUE(fs::is_directory(ToFs(staging)));

    // A launcher that claims success is not believed without the file.
    PowerShellAnswers(1, false);
    manager->CreateZip(staging, latest, L"LD-TEST01_scan1.zip");
    EXPECT_TRUE(fs::exists(ToFs(staging) / "ZEP" / "component-result.json"));
    EXPECT_EQ(platform.processes->CommandLines().size(), 2u);
    EXPECT_FALSE(platform.log->Contains("Created Zip"));
}

TEST_F(CreateZipTest, SourceStaysWhenTheZipAppearsButTheLaunchFailed) {
    UsePowerShell();
    PowerShellAnswers(0, true);
    manager->CreateZip(staging, latest, L"LD-TEST01_scan1.zip");
    EXPECT_TRUE(fs::is_directory(ToFs(staging)));
    EXPECT_TRUE(fs::exists(ToFs(zipPath)));
    EXPECT_FALSE(platform.log->Contains("Created Zip"));
    EXPECT_FALSE(platform.log->Contains("deleted"));
}

TEST_F(CreateZipTest, AnExistingZipIsRemovedBeforeCompressing) {
    UsePowerShell();
    WriteText(ToFs(zipPath), "PK old");
    PowerShellAnswers(1, true);

    manager->CreateZip(staging, latest, L"LD-TEST01_scan1.zip");

    EXPECT_FALSE(zipExistedAtLaunch);
    EXPECT_EQ(Logged(L"Removed existing destination zip: " + zipPath), 1u);
    EXPECT_EQ(ReadText(ToFs(zipPath)), "PK new");
    EXPECT_FALSE(fs::exists(ToFs(staging)));
}

TEST_F(CreateZipTest, AnExistingZipThatCannotBeRemovedStopsBeforeCompressing) {
    UsePowerShell();
    WriteText(ToFs(zipPath), "PK old");
    platform.env.files = std::make_shared<RefusingRemove>(zep::platform::DefaultEnv().files, zipPath);
    platform.Reinstall();
    PowerShellAnswers(1, true);

    manager->CreateZip(staging, latest, L"LD-TEST01_scan1.zip");

    EXPECT_EQ(Logged(L"Failed to remove existing zip before compress: " + zipPath), 1u);
    EXPECT_TRUE(platform.processes->CommandLines().empty());
    EXPECT_EQ(ReadText(ToFs(zipPath)), "PK old");
    EXPECT_TRUE(fs::is_directory(ToFs(staging)));
}

TEST_F(CreateZipTest, SecondCallFindsTheSourceGoneAndLeavesTheArchiveAlone) {
    UsePowerShell();
    PowerShellAnswers(1, true);
    manager->CreateZip(staging, latest, L"LD-TEST01_scan1.zip");
    WriteText(ToFs(zipPath), "PK first");

    manager->CreateZip(staging, latest, L"LD-TEST01_scan1.zip");

    EXPECT_EQ(platform.processes->CommandLines().size(), 1u);
    EXPECT_EQ(Logged(L"Source directory missing or invalid: " + staging), 1u);
    EXPECT_EQ(ReadText(ToFs(zipPath)), "PK first");
    EXPECT_FALSE(platform.log->Contains("Removed existing"));
}

TEST_F(CreateZipTest, WithoutAPlatformCollectionPowerShellRunsWithTheHostsContext) {
    platform.env.collection = nullptr;
    platform.Reinstall();
    peer->SetHostContext(&hostToken);
    PowerShellAnswers(1, true);

    manager->CreateZip(staging, latest, L"LD-TEST01_scan1.zip");

    const auto lines = platform.processes->CommandLines();
    ASSERT_EQ(lines.size(), 1u) << "an Env without a collection must mean the PowerShell way";
    EXPECT_EQ(lines[0], CompressLine(staging, zipPath));
    EXPECT_EQ(platform.processes->lastHostContext, &hostToken);
}

// ---- Inputs refused before anything runs ---------------------------------------

TEST_F(CreateZipTest, MissingOrInvalidSourceIsRefused) {
    UsePowerShell();
    manager->CreateZip(L"", latest, L"a.zip");
    manager->CreateZip(L"///", latest, L"a.zip");
    manager->CreateZip(latest + L"/absent/", latest, L"a.zip");
    WriteText(ToFs(latest) / "file", "x");
    manager->CreateZip(latest + L"/file", latest, L"a.zip");

    EXPECT_EQ(Logged(L"Source directory missing or invalid: "), 2u);
    EXPECT_EQ(Logged(L"Source directory missing or invalid: " + latest + L"/absent"), 1u);
    EXPECT_EQ(Logged(L"Source directory missing or invalid: " + latest + L"/file"), 1u);
    EXPECT_TRUE(platform.processes->CommandLines().empty());
}

TEST_F(CreateZipTest, EmptyDestinationIsRefusedWithoutCheckingExistence) {
    UsePowerShell();
    manager->CreateZip(staging, L"", L"a.zip");
    manager->CreateZip(staging, L"\\/", L"a.zip");
    EXPECT_EQ(Logged(L"Destination directory missing or invalid."), 2u);
    EXPECT_TRUE(platform.processes->CommandLines().empty());

    // A destination that does not exist is handed on: PowerShell reports it.
    PowerShellAnswers(0, false);
    manager->CreateZip(staging, latest + L"/absent", L"a.zip");
    EXPECT_EQ(platform.processes->CommandLines().size(), 1u);
    EXPECT_TRUE(fs::is_directory(ToFs(staging)));
}

TEST_F(CreateZipTest, NameEmptyAfterSanitisingIsRefusedWithTheCallersInput) {
    UsePowerShell();
    manager->CreateZip(staging, latest, L"   ");
    manager->CreateZip(staging, latest, L"...");
    manager->CreateZip(staging, latest, L"..\\");
    EXPECT_EQ(Logged(L"Zip file name empty or invalid after sanitization (input:    )."), 1u);
    EXPECT_EQ(Logged(L"Zip file name empty or invalid after sanitization (input: ...)."), 1u);
    EXPECT_EQ(Logged(L"Zip file name empty or invalid after sanitization (input: ..\\)."), 1u);
    EXPECT_TRUE(platform.processes->CommandLines().empty());
    EXPECT_TRUE(fs::is_directory(ToFs(staging)));
}

TEST_F(CreateZipTest, ChecksRunInOrderSourceThenDestinationThenName) {
    UsePowerShell();
    platform.log->Clear();
    manager->CreateZip(latest + L"/absent", L"", L"...");
    manager->CreateZip(staging, L"", L"...");
    const auto messages = platform.log->Messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_NE(messages[0].find("Source directory missing"), std::string::npos) << messages[0];
    EXPECT_NE(messages[1].find("Destination directory missing"), std::string::npos) << messages[1];
}

// ---- The native way ----------------------------------------------------------------

TEST_F(CreateZipTest, NativeCollectionPacksTheFolderWithoutAnyCommandLine) {
    manager->CreateZip(staging, latest, L"LD-TEST01_scan1.zip");

    EXPECT_TRUE(platform.processes->CommandLines().empty());
    ASSERT_TRUE(fs::is_regular_file(ToFs(zipPath)));
    EXPECT_FALSE(fs::exists(ToFs(staging)));
    const std::string zip = ReadText(ToFs(zipPath));
    EXPECT_EQ(zip.rfind("PK\x03\x04", 0), 0u);
    // Entries are named relative to the staging folder.
    EXPECT_NE(zip.find("ZEP/component-result.json"), std::string::npos);
    EXPECT_NE(zip.find("scan-result.json"), std::string::npos);
    EXPECT_EQ(zip.find("LD-TEST01_scan1/"), std::string::npos);
    EXPECT_EQ(Logged(L"Source directory deleted successfully: " + staging), 1u);
}

// ---- Intermediate directories --------------------------------------------------------

class IntermediateDirectoriesTest : public zep::testing::ManagerTest {
protected:
    fs::path Root() const { return platform.rootPath; }
};

TEST_F(IntermediateDirectoriesTest, CreatesEveryMissingLevelOfAnAbsolutePath) {
    EXPECT_TRUE(peer->CreateIntermediateDirectories(platform.root + L"/a/b/c"));
    EXPECT_TRUE(fs::is_directory(Root() / "a" / "b" / "c"));

    WriteText(Root() / "a" / "b" / "keep.txt", "kept");
    EXPECT_TRUE(peer->CreateIntermediateDirectories(platform.root + L"/a/b/c/d"));
    EXPECT_TRUE(fs::is_directory(Root() / "a" / "b" / "c" / "d"));
    EXPECT_EQ(ReadText(Root() / "a" / "b" / "keep.txt"), "kept");
}

TEST_F(IntermediateDirectoriesTest, TrailingAndDoubledSeparatorsAreHarmless) {
    EXPECT_TRUE(peer->CreateIntermediateDirectories(platform.root + L"/x/"));
    EXPECT_TRUE(fs::is_directory(Root() / "x"));
    EXPECT_TRUE(peer->CreateIntermediateDirectories(platform.root + L"/y//z"));
    EXPECT_TRUE(fs::is_directory(Root() / "y" / "z"));
}

TEST_F(IntermediateDirectoriesTest, AFileInThePlaceOfTheLastLevelCountsAsExisting) {
    WriteText(Root() / "f", "file");
    EXPECT_TRUE(peer->CreateIntermediateDirectories(platform.root + L"/f"));
    EXPECT_TRUE(fs::is_regular_file(Root() / "f"));
}

TEST_F(IntermediateDirectoriesTest, ALevelThatCannotBeCreatedFailsAndStopsTheWalk) {
    WriteText(Root() / "f", "file");
    EXPECT_FALSE(peer->CreateIntermediateDirectories(platform.root + L"/f/sub/deeper"));
    EXPECT_TRUE(fs::is_regular_file(Root() / "f"));
}

}  // namespace
