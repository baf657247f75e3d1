// Files for the tests of code that reads and writes through the seam: in
// memory, or the real file system with a test's hand in between.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/env/FileSystemEnv.h"

namespace zep::testing {

// Forward everything to the wrapped file; a double overrides what it changes.
class InputFileWrapper : public platform::InputFile {
public:
    explicit InputFileWrapper(std::unique_ptr<platform::InputFile> file) : file_(std::move(file)) {}
    bool Read(char* buffer, std::size_t size, std::size_t& got, platform::FsStatus* status = nullptr) override {
        return file_->Read(buffer, size, got, status);
    }
    bool SeekTo(std::uint64_t offset, platform::FsStatus* status = nullptr) override {
        return file_->SeekTo(offset, status);
    }
    platform::EntryInfo Info() override { return file_->Info(); }

private:
    std::unique_ptr<platform::InputFile> file_;
};

class OutputFileWrapper : public platform::OutputFile {
public:
    explicit OutputFileWrapper(std::unique_ptr<platform::OutputFile> file) : file_(std::move(file)) {}
    bool Write(std::string_view data, platform::FsStatus* status = nullptr) override {
        return file_->Write(data, status);
    }
    bool Sync(platform::FsStatus* status = nullptr) override { return file_->Sync(status); }
    bool SetModified(std::int64_t modifiedNs) override { return file_->SetModified(modifiedNs); }
    bool Close(platform::FsStatus* status = nullptr) override { return file_->Close(status); }

private:
    std::unique_ptr<platform::OutputFile> file_;
};

// Folders at any depth pass each file they open through the test's hooks,
// which may watch it, limit it or change it just before it is opened.
// Fails every write once the file would grow past `limit` bytes, as a full
// disk does (the bytes before the limit are written).
class LimitedOutput : public OutputFileWrapper {
public:
    LimitedOutput(std::unique_ptr<platform::OutputFile> file, std::uint64_t limit)
        : OutputFileWrapper(std::move(file)), left_(limit) {}
    bool Write(std::string_view data, platform::FsStatus* status = nullptr) override {
        if (data.size() <= left_) {
            left_ -= data.size();
            return OutputFileWrapper::Write(data, status);
        }
        OutputFileWrapper::Write(data.substr(0, static_cast<std::size_t>(left_)), status);
        left_ = 0;
        if (status != nullptr) *status = platform::FsStatus{platform::FsError::Failed, "no space left on the disk"};
        return false;
    }

private:
    std::uint64_t left_;
};

class HookedFiles : public platform::FileSystemEnvWrapper {
public:
    using FileSystemEnvWrapper::FileSystemEnvWrapper;
    using Input = std::unique_ptr<platform::InputFile>;
    using Output = std::unique_ptr<platform::OutputFile>;

    std::unique_ptr<platform::Folder> OpenFolder(const std::wstring& path, platform::FsStatus* status) override;

    // Each may be empty. `beforeOpen` runs before a file is opened for
    // reading; `input` and `output` get every file that could be opened.
    std::function<void(const std::wstring& name)> beforeOpen;
    std::function<Input(const std::wstring& name, Input file)> input;
    std::function<Output(const std::wstring& name, Output file)> output;

private:
    class HookedFolder;
};

// Reads `bytes`, at most `step` bytes a call.
class MemoryInput : public platform::InputFile {
public:
    explicit MemoryInput(std::string bytes, std::size_t step = SIZE_MAX) : bytes_(std::move(bytes)), step_(step) {}

    bool Read(char* buffer, std::size_t size, std::size_t& got, platform::FsStatus* = nullptr) override {
        got = std::min({size, step_, bytes_.size() - position_});
        std::memcpy(buffer, bytes_.data() + position_, got);
        position_ += got;
        return true;
    }
    bool SeekTo(std::uint64_t offset, platform::FsStatus* = nullptr) override {
        position_ = static_cast<std::size_t>(std::min<std::uint64_t>(offset, bytes_.size()));
        return true;
    }
    platform::EntryInfo Info() override {
        platform::EntryInfo info;
        info.kind = platform::EntryKind::File;
        info.size = bytes_.size();
        return info;
    }

private:
    std::string bytes_;
    std::size_t step_;
    std::size_t position_ = 0;
};

// Collects what is written.
class MemoryOutput : public platform::OutputFile {
public:
    bool Write(std::string_view data, platform::FsStatus* = nullptr) override {
        bytes.append(data.data(), data.size());
        return true;
    }
    bool Sync(platform::FsStatus* = nullptr) override { return true; }
    bool SetModified(std::int64_t) override { return true; }
    bool Close(platform::FsStatus* = nullptr) override { return true; }

    std::string bytes;
};

}  // namespace zep::testing
