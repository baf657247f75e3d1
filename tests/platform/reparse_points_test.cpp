// Junctions and links to files as the Windows backend reports them (Wine can
// make neither): a folder double whose chosen entries read as links and refuse
// to be opened. Nothing behind them is listed, copied, read, written or deleted.
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/agent/CommonBase.h"
#include "platform/env/Beneath.h"
#include "platform/util/Paths.h"
#include "support/TestPlatform.h"

namespace zep::platform {
namespace {

namespace fs = std::filesystem;
using testing::ReadText;
using testing::WriteText;

class ReparsePoints : public FileSystemEnvWrapper {
public:
    ReparsePoints(std::shared_ptr<FileSystemEnv> files, std::set<std::wstring> names)
        : FileSystemEnvWrapper(std::move(files)), names_(std::move(names)) {}

    std::unique_ptr<Folder> OpenFolder(const std::wstring& path, FsStatus* status) override {
        return Wrap(FileSystemEnvWrapper::OpenFolder(path, status));
    }

private:
    class LinkFolder : public FolderWrapper {
    public:
        LinkFolder(std::unique_ptr<Folder> folder, const std::set<std::wstring>& names)
            : FolderWrapper(std::move(folder)), names_(names) {}

        bool List(std::vector<EntryInfo>& entries, FsStatus* status) override {
            if (!target().List(entries, status)) return false;
            for (auto& entry : entries) {
                if (IsLink(entry.name)) entry.kind = EntryKind::Link;
            }
            return true;
        }
        std::optional<EntryInfo> Stat(std::wstring_view name, FsStatus* status) override {
            auto entry = target().Stat(name, status);
            if (entry && IsLink(name)) entry->kind = EntryKind::Link;
            return entry;
        }
        std::unique_ptr<Folder> OpenFolder(std::wstring_view name, FsStatus* status) override {
            if (IsLink(name)) return Refuse<Folder>(status);
            auto opened = target().OpenFolder(name, status);
            return opened ? std::make_unique<LinkFolder>(std::move(opened), names_) : nullptr;
        }
        std::unique_ptr<Folder> CreateFolder(std::wstring_view name, FsStatus* status) override {
            if (IsLink(name)) return Refuse<Folder>(status);
            auto made = target().CreateFolder(name, status);
            return made ? std::make_unique<LinkFolder>(std::move(made), names_) : nullptr;
        }
        std::unique_ptr<InputFile> OpenFile(std::wstring_view name, FsStatus* status) override {
            return IsLink(name) ? Refuse<InputFile>(status) : target().OpenFile(name, status);
        }
        std::unique_ptr<OutputFile> OpenForWriting(std::wstring_view name, Create mode, FsStatus* status) override {
            return IsLink(name) ? Refuse<OutputFile>(status) : target().OpenForWriting(name, mode, status);
        }
        // The backend removes a reparse point as itself; here that is a
        // record, and what lies behind stays.
        bool Remove(std::wstring_view name, bool recursive, FsStatus* status) override {
            if (!IsLink(name)) return target().Remove(name, recursive, status);
            removedLinks.insert(std::wstring(name));
            return true;
        }

        inline static std::set<std::wstring> removedLinks;

    private:
        bool IsLink(std::wstring_view name) const { return names_.count(std::wstring(name)) != 0; }
        template <typename T>
        static std::unique_ptr<T> Refuse(FsStatus* status) {
            if (status != nullptr) *status = FsStatus{FsError::Link, {}};
            return nullptr;
        }
        const std::set<std::wstring>& names_;
    };

    std::unique_ptr<Folder> Wrap(std::unique_ptr<Folder> folder) {
        return folder ? std::make_unique<LinkFolder>(std::move(folder), names_) : nullptr;
    }

    std::set<std::wstring> names_;

public:
    static const std::set<std::wstring>& RemovedLinks() { return LinkFolder::removedLinks; }
};

TEST(ReparsePointTest, JunctionsAndFileLinksAreLeftOutAndNeverGoneThrough) {
    testing::TestPlatform platform;
    platform.env.files = std::make_shared<ReparsePoints>(platform.env.files,
                                                         std::set<std::wstring>{L"junction", L"file-link.txt"});
    platform.Reinstall();
    const fs::path data = platform.rootPath / "programdata" / "plugin-data" / "acme" / "diagnostics";
    WriteText(data / "Log" / "plugin.log", "agent");
    WriteText(data / "junction" / "secret.txt", "victim");  // what a junction would lead to
    WriteText(data / "file-link.txt", "victim");
    const auto wide = [](const fs::path& path) { return path::FromFs(path); };

    std::vector<std::wstring> files;
    FileSystem::GetFileListForFolder(wide(data), L"", files);
    EXPECT_THAT(files, ::testing::ElementsAre(wide(data / "Log" / "plugin.log")));
    EXPECT_TRUE(FileSystem::copyDir(wide(data), wide(platform.rootPath / "copy")));
    EXPECT_TRUE(fs::exists(platform.rootPath / "copy" / "Log" / "plugin.log"));
    EXPECT_FALSE(fs::exists(platform.rootPath / "copy" / "junction"));
    EXPECT_FALSE(fs::exists(platform.rootPath / "copy" / "file-link.txt"));

    std::string text;
    EXPECT_FALSE(FileSystem::fileExists(wide(data / "file-link.txt")));
    EXPECT_FALSE(FileSystem::readFile(wide(data / "file-link.txt"), text));
    EXPECT_FALSE(FileSystem::writeFile(wide(data / "file-link.txt"), "agent"));
    EXPECT_FALSE(FileSystem::directoryExists(wide(data / "junction")));
    EXPECT_FALSE(FileSystem::readFile(wide(data / "junction" / "secret.txt"), text));
    EXPECT_FALSE(FileSystem::deleteDirectoryOrFile(wide(data / "junction" / "secret.txt"), false));
    EXPECT_FALSE(FileSystem::createDirectory(wide(data / "junction" / "deeper"), true));
    EXPECT_TRUE(FileSystem::deleteDirectoryOrFile(wide(data / "junction"), true));
    EXPECT_EQ(ReparsePoints::RemovedLinks(), std::set<std::wstring>{L"junction"}) << "removed as itself";

    EXPECT_EQ(ReadText(data / "junction" / "secret.txt"), "victim");
    EXPECT_EQ(ReadText(data / "file-link.txt"), "victim");
    EXPECT_FALSE(fs::exists(data / "junction" / "deeper"));
}

}  // namespace
}  // namespace zep::platform
