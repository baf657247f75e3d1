// A child's standard output, of which only the last `limit` bytes are kept
// (all with 0): a child may write without end, and the answer it gives comes
// last. Memory stays below twice the limit while reading.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include "platform/env/ProcessEnv.h"

namespace zep::platform {

class OutputTail {
public:
    explicit OutputTail(std::size_t limit) : limit_(limit) {}

    void Append(const char* data, std::size_t size) {
        bytes_.append(data, size);
        if (limit_ != 0 && bytes_.size() > 2 * limit_) Trim();
    }

    void MoveInto(ProcessResult& result) {
        if (limit_ != 0 && bytes_.size() > limit_) Trim();
        result.output = std::move(bytes_);
        result.outputTruncated = truncated_;
    }

private:
    void Trim() {
        bytes_.erase(0, bytes_.size() - limit_);
        truncated_ = true;
    }

    std::size_t limit_;
    std::string bytes_;
    bool truncated_ = false;
};

}  // namespace zep::platform
