// The real file system with a test's hand in between: folders at any depth
// pass each file they open through the test's hooks, which may watch it,
// limit it or change it just before it is opened.
#pragma once

#include <cstdint>
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

}  // namespace zep::testing
