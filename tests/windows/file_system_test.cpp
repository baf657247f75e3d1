// The Win32 file system: folders held open, extended-length paths, and
// reparse points seen and never followed.
#include "platform/windows/Win32.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "platform/agent/CommonBase.h"
#include "platform/env/Beneath.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "platform/windows/FileTime.h"
#include "platform/windows/WindowsFileSystem.h"
#include "support/Links.h"
#include "support/TestPlatform.h"

namespace zep::platform {
namespace {

namespace fs = std::filesystem;
using testing::ReadText;
using testing::WriteText;

class WindowsFileSystemTest : public ::testing::Test {
protected:
    std::unique_ptr<Folder> Root() {
        auto folder = files.OpenFolder(platform.root);
        EXPECT_NE(folder, nullptr);
        return folder;
    }

    testing::TestPlatform platform;  // installs the system's own files
    WindowsFileSystem files;
};

TEST_F(WindowsFileSystemTest, AnExistingFolderIsOpenedAndAFileInItsWayIsTheWrongKind) {
    // The system says 183 for an existing folder and for a file of that name alike.
    const std::wstring path = JoinPath(platform.root, L"made");
    ASSERT_TRUE(::CreateDirectoryW(path.c_str(), nullptr));
    WriteText(platform.rootPath / "file", "x");

    auto root = Root();
    EXPECT_NE(root->CreateFolder(L"made"), nullptr);
    FsStatus status;
    EXPECT_EQ(root->CreateFolder(L"file", &status), nullptr);
    EXPECT_EQ(status.error, FsError::WrongKind);
    EXPECT_TRUE(FileSystem::createDirectory(path, false));
    EXPECT_TRUE(FileSystem::createDirectory(path, true));
}

TEST_F(WindowsFileSystemTest, PathsLongerThanMaxPathAreMadeReadAndRemoved) {
    std::wstring deep = platform.root;
    for (int i = 0; deep.size() <= 300; ++i) deep = JoinPath(deep, std::wstring(40, static_cast<wchar_t>(L'a' + i)));
    ASSERT_TRUE(FileSystem::createDirectory(deep, true));
    const std::wstring file = JoinPath(deep, L"scan-result.json");
    ASSERT_TRUE(FileSystem::writeFileAtomically(file, "{}"));
    std::string text;
    EXPECT_TRUE(FileSystem::readFile(file, text));
    EXPECT_EQ(text, "{}");
    std::vector<std::wstring> listed;
    FileSystem::GetFileListForFolder(platform.root, L".json", listed);
    EXPECT_EQ(listed, std::vector<std::wstring>{file});
    const std::wstring top = JoinPath(platform.root, std::wstring(40, L'a'));
    EXPECT_TRUE(FileSystem::deleteDirectoryOrFile(top, true));
    EXPECT_FALSE(testing::EntryExists(platform.rootPath / std::wstring(40, L'a')));
}

TEST_F(WindowsFileSystemTest, ATreeIsRemovedWithEverythingBelowIt) {
    WriteText(platform.rootPath / "tree" / "a" / "b" / "file.txt", "x");
    WriteText(platform.rootPath / "tree" / "top.txt", "y");
    ::SetFileAttributesW((platform.rootPath / "tree" / "top.txt").c_str(), FILE_ATTRIBUTE_READONLY);
    auto root = Root();
    FsStatus status;
    EXPECT_TRUE(root->Remove(L"tree", true, &status)) << status.message;
    EXPECT_FALSE(testing::EntryExists(platform.rootPath / "tree"));
    WriteText(platform.rootPath / "full" / "file.txt", "x");
    EXPECT_FALSE(root->Remove(L"full", false, &status));
    EXPECT_EQ(status.error, FsError::WrongKind);
    EXPECT_TRUE(root->Remove(L"nothing-there", true));
}

// A link made from the Unix side (Wine's own CreateSymbolicLinkW makes
// nothing) shows as a reparse point only in the folder's listing and the
// path's attributes, so that is where the backend must see it; a handle
// opened on it reaches what it leads to.
TEST_F(WindowsFileSystemTest, AFolderLinkIsSeenAndNeverFollowed) {
    WriteText(platform.rootPath / "victim" / "secret.txt", "secret");
    ASSERT_TRUE(testing::MakeFolderLink(platform.rootPath / "link", platform.rootPath / "victim"));
    auto root = Root();

    std::vector<EntryInfo> entries;
    ASSERT_TRUE(root->List(entries));
    const auto link = std::find_if(entries.begin(), entries.end(), [](const EntryInfo& e) { return e.name == L"link"; });
    ASSERT_NE(link, entries.end());
    EXPECT_EQ(link->kind, EntryKind::Link);
    EXPECT_EQ(root->Stat(L"link")->kind, EntryKind::Link);

    FsStatus status;
    EXPECT_EQ(root->OpenFolder(L"link", &status), nullptr);
    EXPECT_EQ(status.error, FsError::Link);
    EXPECT_EQ(root->CreateFolder(L"link", &status), nullptr);
    EXPECT_EQ(status.error, FsError::Link);
    EXPECT_EQ(root->OpenFile(L"link", &status), nullptr);
    EXPECT_EQ(status.error, FsError::Link);
    EXPECT_EQ(root->OpenForWriting(L"link", Folder::Create::Truncate, &status), nullptr);
    EXPECT_EQ(status.error, FsError::Link);
    EXPECT_EQ(root->Lock(L"link", false, &status), nullptr);
    EXPECT_EQ(status.error, FsError::Link);
    EXPECT_FALSE(root->Rename(L"link", L"moved", false, &status));
    EXPECT_EQ(status.error, FsError::Link);
    // Removed as itself where the system can do that; never through it.
    const bool removed = root->Remove(L"link", true, &status);
    EXPECT_EQ(removed, !testing::RunningUnderWine()) << status.message;
    EXPECT_EQ(ReadText(platform.rootPath / "victim" / "secret.txt"), "secret");
    if (!removed) testing::RemoveLink(platform.rootPath / "link");
}

TEST_F(WindowsFileSystemTest, AFolderHeldOpenIsNeitherRenamedNorRemoved) {
    auto root = Root();
    auto held = root->CreateFolder(L"held");
    ASSERT_NE(held, nullptr);
    FsStatus status;
    EXPECT_FALSE(root->Rename(L"held", L"other", false, &status));
    EXPECT_FALSE(root->Remove(L"held", true, &status));
    held.reset();
    EXPECT_TRUE(root->Rename(L"held", L"other", false, &status)) << status.message;
    EXPECT_TRUE(root->Remove(L"other", true));
}

TEST_F(WindowsFileSystemTest, FilesAreCreatedAppendedEmptiedAndKeepTheirTime) {
    auto root = Root();
    auto write = [&](Folder::Create mode, const std::string& text) {
        auto out = root->OpenForWriting(L"log.txt", mode);
        return out && out->Write(text) && out->Close();
    };
    EXPECT_TRUE(write(Folder::Create::New, "one\n"));
    FsStatus status;
    EXPECT_EQ(root->OpenForWriting(L"log.txt", Folder::Create::New, &status), nullptr);
    EXPECT_EQ(status.error, FsError::Exists);
    EXPECT_TRUE(write(Folder::Create::Append, "two\n"));
    EXPECT_EQ(ReadText(platform.rootPath / "log.txt"), "one\ntwo\n");
    EXPECT_TRUE(write(Folder::Create::Truncate, "three\n"));
    EXPECT_EQ(ReadText(platform.rootPath / "log.txt"), "three\n");

    // A time before 1970, kept to the tick (100 ns) that Windows keeps.
    constexpr std::int64_t kModified = -1'234'567'890'123'456'700;
    auto out = root->OpenForWriting(L"dated.txt", Folder::Create::New);
    ASSERT_TRUE(out && out->Write("x") && out->SetModified(kModified) && out->Close());
    const auto stat = root->Stat(L"dated.txt");
    ASSERT_TRUE(stat);
    EXPECT_EQ(stat->modifiedNs, kModified);
    // One file, one identity, however it was looked at (a watched file
    // compares the two).
    const auto in = root->OpenFile(L"dated.txt");
    ASSERT_NE(in, nullptr);
    EXPECT_NE(stat->identity, 0u);
    EXPECT_EQ(in->Info().identity, stat->identity);
    EXPECT_EQ(in->Info().size, 1u);
}

TEST_F(WindowsFileSystemTest, NamesThatAreNotOneEntryAreRefused) {
    auto root = Root();
    WriteText(platform.rootPath / "file.txt", "x");
    FsStatus status;
    for (const wchar_t* name : {L"file.txt:stream", L"*.txt", L"a?b", L"a|b", L"a\\b", L"..", L""}) {
        EXPECT_EQ(root->OpenFile(name, &status), nullptr) << text::ToUtf8(name);
        EXPECT_EQ(status.error, FsError::Invalid) << text::ToUtf8(name);
    }
}

TEST_F(WindowsFileSystemTest, FreeSpaceIsWhatTheVolumeGivesThisUser) {
    ULARGE_INTEGER available{};
    ASSERT_TRUE(::GetDiskFreeSpaceExW(platform.root.c_str(), &available, nullptr, nullptr));
    const auto reported = files.FreeSpace(platform.root);
    ASSERT_TRUE(reported);
    // Others write to the disk meanwhile: the same within 64 MiB.
    EXPECT_LT(*reported > available.QuadPart ? *reported - available.QuadPart : available.QuadPart - *reported,
              64u << 20);
    std::uint64_t bytes = 0;
    EXPECT_TRUE(FileSystem::GetDiskFreeSpaceExW(platform.root, bytes));
    EXPECT_FALSE(files.FreeSpace(JoinPath(platform.root, L"no\\such\\folder")).has_value());
}

TEST(FileTimeTest, TicksSince1601AreNanosecondsSince1970) {
    using win32::kUnixEpochTicks;
    EXPECT_EQ(win32::TicksToUnixNs(kUnixEpochTicks), 0);
    EXPECT_EQ(win32::TicksToUnixNs(kUnixEpochTicks + 1), 100);
    EXPECT_EQ(win32::TicksToUnixNs(kUnixEpochTicks - 1), -100);
    // 1601 and 60056 lie beyond what nanoseconds since 1970 can hold.
    EXPECT_EQ(win32::TicksToUnixNs(0), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(win32::TicksToUnixNs(~std::uint64_t{0}), std::numeric_limits<std::int64_t>::max());
    for (const std::int64_t ns : {0LL, 100LL, -100LL, 1'795'256'130'000'000'000LL, -1'234'567'890'123'456'700LL}) {
        EXPECT_EQ(win32::TicksToUnixNs(win32::UnixNsToTicks(ns)), ns);
    }
    EXPECT_EQ(win32::UnixNsToTicks(-1), kUnixEpochTicks - 1) << "rounds to the earlier tick";
}

}  // namespace
}  // namespace zep::platform
