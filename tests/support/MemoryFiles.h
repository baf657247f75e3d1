// Files in memory for the tests of code that reads and writes through the
// seam's file objects.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/env/FileSystemEnv.h"

namespace zep::testing {

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

// Collects what is written; refuses writes past `capacity` bytes, as a full disk does.
class MemoryOutput : public platform::OutputFile {
public:
    explicit MemoryOutput(std::size_t capacity = SIZE_MAX) : capacity_(capacity) {}

    bool Write(std::string_view data, platform::FsStatus* status = nullptr) override {
        if (data.size() > capacity_ - bytes.size()) {
            if (status) *status = platform::FsStatus{platform::FsError::Failed, "No space left on device"};
            return false;
        }
        bytes.append(data.data(), data.size());
        return true;
    }
    bool Sync(platform::FsStatus* = nullptr) override { return true; }
    bool SetModified(std::int64_t) override { return true; }
    bool Close(platform::FsStatus* = nullptr) override { return true; }

    std::string bytes;

private:
    std::size_t capacity_;
};

}  // namespace zep::testing
