// A disk that fills up: every file written through it fails once it would
// grow past `limit` bytes, as on a full disk (the bytes before the limit
// are written). Everything else goes to the real file system.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "platform/env/FileSystemEnv.h"

namespace zep::testing {

class FullDisk : public platform::FileSystemEnvWrapper {
public:
    FullDisk(std::shared_ptr<platform::FileSystemEnv> target, std::uint64_t limit)
        : FileSystemEnvWrapper(std::move(target)), limit_(limit) {}

    std::unique_ptr<platform::Folder> OpenFolder(const std::wstring& path, platform::FsStatus* status) override {
        return Wrap(FileSystemEnvWrapper::OpenFolder(path, status), limit_);
    }

private:
    using Status = platform::FsStatus;

    class LimitedFile : public platform::OutputFile {
    public:
        LimitedFile(std::unique_ptr<platform::OutputFile> file, std::uint64_t limit)
            : file_(std::move(file)), left_(limit) {}
        bool Write(std::string_view data, Status* status) override {
            if (data.size() <= left_) {
                left_ -= data.size();
                return file_->Write(data, status);
            }
            file_->Write(data.substr(0, static_cast<std::size_t>(left_)), status);
            left_ = 0;
            if (status != nullptr) *status = Status{platform::FsError::Failed, "no space left on the disk"};
            return false;
        }
        bool Sync(Status* status) override { return file_->Sync(status); }
        bool SetModified(std::int64_t modifiedNs) override { return file_->SetModified(modifiedNs); }
        bool Close(Status* status) override { return file_->Close(status); }

    private:
        std::unique_ptr<platform::OutputFile> file_;
        std::uint64_t left_;
    };

    class LimitedFolder : public platform::FolderWrapper {
    public:
        LimitedFolder(std::unique_ptr<platform::Folder> folder, std::uint64_t limit)
            : FolderWrapper(std::move(folder)), limit_(limit) {}
        std::unique_ptr<platform::Folder> OpenFolder(std::wstring_view name, Status* status) override {
            return Wrap(target().OpenFolder(name, status), limit_);
        }
        std::unique_ptr<platform::Folder> CreateFolder(std::wstring_view name, Status* status) override {
            return Wrap(target().CreateFolder(name, status), limit_);
        }
        std::unique_ptr<platform::OutputFile> OpenForWriting(std::wstring_view name, Create mode,
                                                             Status* status) override {
            auto file = target().OpenForWriting(name, mode, status);
            return file ? std::make_unique<LimitedFile>(std::move(file), limit_) : nullptr;
        }

    private:
        std::uint64_t limit_;
    };

    static std::unique_ptr<platform::Folder> Wrap(std::unique_ptr<platform::Folder> folder, std::uint64_t limit) {
        return folder ? std::make_unique<LimitedFolder>(std::move(folder), limit) : nullptr;
    }

    std::uint64_t limit_;
};

}  // namespace zep::testing
