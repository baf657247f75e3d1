// A disk that fills up: every file written through it fails once it would
// grow past `limit` bytes, as on a full disk (the bytes before the limit
// are written). Everything else goes to the real file system.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "support/HookedFiles.h"

namespace zep::testing {

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

class FullDisk : public HookedFiles {
public:
    FullDisk(std::shared_ptr<platform::FileSystemEnv> target, std::uint64_t limit) : HookedFiles(std::move(target)) {
        output = [limit](const std::wstring&, Output file) -> Output {
            return std::make_unique<LimitedOutput>(std::move(file), limit);
        };
    }
};

}  // namespace zep::testing
