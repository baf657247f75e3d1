// Paths below the trusted roots: nothing the agent reads, writes, copies or
// deletes there may be reached through a link or by climbing out with "..".
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/agent/CommonBase.h"
#include "platform/env/Beneath.h"
#include "platform/util/Paths.h"
#include "support/Links.h"
#include "support/TestPlatform.h"

namespace zep::platform {
namespace {

namespace fs = std::filesystem;
using testing::EntryExists;
using testing::ReadText;
using testing::WriteText;

class TrustedPathsTest : public ::testing::Test {
protected:
    // a/b/c/file.txt below the data root; outside every root, a victim of the same shape.
    TrustedPathsTest() {
        WriteText(Data() / "a" / "b" / "c" / "file.txt", "agent");
        for (const auto* tail : {"", "b/c"}) WriteText(Victim() / tail / "file.txt", "victim");
        WriteText(Victim() / "b" / "c" / "Log" / "secret.log", "victim");
    }

    fs::path Data() const { return platform.rootPath / "programdata"; }
    fs::path Victim() const { return platform.rootPath / "victim"; }
    std::wstring Wide(const fs::path& path) const { return path::FromFs(path); }

    void PlantLink(const fs::path& relative, const fs::path& target) {
        fs::remove_all(Data() / relative);
        ASSERT_TRUE(testing::MakeFolderLink(Data() / relative, target));
    }

    std::vector<std::string> VictimState() const {
        std::vector<std::string> state;
        for (const auto& entry : fs::recursive_directory_iterator(Victim())) {
            state.push_back(entry.path().string() + "=" + (entry.is_regular_file() ? ReadText(entry.path()) : "/"));
        }
        std::sort(state.begin(), state.end());
        return state;
    }

    testing::TestPlatform platform;
};

// One operation per opener: a file's parent, a folder made on the way, a tree removed.
TEST_F(TrustedPathsTest, NoOperationPassesThroughALink) {
    using Run = std::function<bool(const std::wstring& file, const std::wstring& folder)>;
    std::string text;
    const std::vector<std::pair<const char*, Run>> operations = {
        {"read", [&](auto& file, auto&) { return FileSystem::readFile(file, text); }},
        {"write", [](auto& file, auto&) { return FileSystem::writeFileAtomically(file, "agent"); }},
        {"delete tree", [](auto&, auto& folder) { return FileSystem::deleteDirectoryOrFile(JoinPath(folder, L"Log"), true); }},
        {"create", [](auto&, auto& folder) {
             return FileSystem::createDirectory(JoinPath(JoinPath(folder, L"latest"), L"deep"), true);
         }},
    };
    const std::wstring folder = Wide(Data() / "a" / "b" / "c");
    const auto before = VictimState();
    for (const auto& [name, run] : operations) {  // a/b leads to the victim's folder of the same shape
        PlantLink("a/b", Victim() / "b");
        EXPECT_FALSE(run(JoinPath(folder, L"file.txt"), folder)) << name;
        EXPECT_EQ(VictimState(), before) << name;
        testing::RemoveLink(Data() / "a" / "b");
        WriteText(Data() / "a" / "b" / "c" / "file.txt", "agent");
    }
    fs::create_directories(Data() / "a" / "b" / "c" / "Log");
    for (const auto& [name, run] : operations) {  // without links, the same operations work
        WriteText(Data() / "a" / "b" / "c" / "file.txt", "agent");
        EXPECT_TRUE(run(JoinPath(folder, L"file.txt"), folder)) << name;
    }
    EXPECT_FALSE(LocateBelow(L"/data/zep/../../etc", {L"/data", L"/data/zep/"})) << "climbing is refused, not resolved";
}

// Links are neither listed as what they lead to nor copied, even by the walks
// that take the kind from the listing alone; a link is removed as itself.
// (FIFOs: the device folder's documents and the log collection's traps.)
TEST_F(TrustedPathsTest, LinksAreNeitherListedNorCopiedAndAreRemovedAsThemselves) {
    ASSERT_TRUE(testing::MakeFolderLink(Data() / "a" / "to-victim", Victim()));
    WriteText(Data() / "a" / "top.log", "agent");
    std::map<std::wstring, EntryKind> expected = {
        {L"b", EntryKind::Folder}, {L"top.log", EntryKind::File}, {L"to-victim", EntryKind::Link}};
#ifndef _WIN32
    // Wine shows a link to a file as the file itself.
    fs::create_symlink(Victim() / "file.txt", Data() / "a" / "file-link.txt");
    expected[L"file-link.txt"] = EntryKind::Link;
#endif
    const auto folder = FileSystem::openFolder(Wide(Data() / "a"), false);
    ASSERT_NE(folder, nullptr);
    const auto kinds = [](const std::vector<EntryInfo>& entries) {
        std::map<std::wstring, EntryKind> byName;
        for (const auto& entry : entries) byName[entry.name] = entry.kind;
        return byName;
    };
    std::vector<EntryInfo> full, light;
    ASSERT_TRUE(folder->List(full));
    ASSERT_TRUE(folder->ListKinds(light));
    EXPECT_EQ(kinds(full), expected);
    EXPECT_EQ(kinds(light), expected);

    EXPECT_TRUE(FileSystem::copyDir(Wide(Data() / "a"), Wide(Data() / "copy")));
    EXPECT_TRUE(fs::exists(Data() / "copy" / "b" / "c" / "file.txt"));
    for (const char* name : {"to-victim", "file-link.txt"}) EXPECT_FALSE(EntryExists(Data() / "copy" / name));

    const auto before = VictimState();
    const bool removed = FileSystem::deleteDirectoryOrFile(Wide(Data() / "a"), true);
    if (testing::RunningUnderWine()) {
        // Wine acts on what a Unix link leads to: the link cannot be removed as itself there.
        EXPECT_FALSE(removed);
        EXPECT_TRUE(EntryExists(Data() / "a" / "to-victim"));
    } else {
        EXPECT_TRUE(removed);
        EXPECT_FALSE(EntryExists(Data() / "a"));
    }
    EXPECT_EQ(VictimState(), before);
}

TEST_F(TrustedPathsTest, ASecondNameOfAFileIsNeverWrittenThrough) {
    fs::create_hard_link(Victim() / "file.txt", Data() / "a" / "hard.txt");
    // Writing through a second name would change the victim's file.
    EXPECT_FALSE(FileSystem::writeFile(Wide(Data() / "a" / "hard.txt"), "agent"));
    EXPECT_EQ(ReadText(Victim() / "file.txt"), "victim");
    // Replacing the name is fine: the victim keeps its file.
    EXPECT_TRUE(FileSystem::writeFileAtomically(Wide(Data() / "a" / "hard.txt"), "agent"));
    EXPECT_EQ(ReadText(Victim() / "file.txt"), "victim");
}

TEST_F(TrustedPathsTest, ReadsAreBoundedAndTailsStartAtALine) {
    const fs::path file = Data() / "history.log";
    WriteText(file, "first line\nsecond\nthird\n");
    std::string text;
    EXPECT_FALSE(FileSystem::readFile(Wide(file), text, 10));
    EXPECT_TRUE(text.empty());
    EXPECT_EQ(platform.log->Count("is larger than 10 bytes; not read"), 1u);
    EXPECT_TRUE(FileSystem::readFile(Wide(file), text, 64));
    EXPECT_EQ(text, "first line\nsecond\nthird\n");

    EXPECT_TRUE(FileSystem::readFileTail(Wide(file), 10, text));
    EXPECT_EQ(text, "third\n");  // "d\nthird\n" loses its cut first line
    EXPECT_TRUE(FileSystem::readFileTail(Wide(file), 100, text));
    EXPECT_EQ(text, "first line\nsecond\nthird\n");
}

}  // namespace
}  // namespace zep::platform
