// The log scrub (LogScrub.h) from one open file into another.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/collect/LogScrub.h"
#include "platform/env/FileSystemEnv.h"

namespace zep::collect {

struct ScrubLimits {
    std::size_t chunkBytes = 64 * 1024;                           // one read
    std::size_t maxLineBytes = LogScrubber::kDefaultMaxLineBytes;  // see LogScrub.h
    std::uint64_t maxInputBytes = UINT64_MAX;  // read no more of the file than this
};

struct ScrubOutcome {
    bool ok = false;       // read and written completely
    bool changed = false;  // at least one address was replaced
    platform::FsStatus status;  // of the failed read or write
};

// Scrubs the rest of `in` into `out`, in memory bounded by the limits
// whatever the file and line sizes.
ScrubOutcome ScrubFile(platform::InputFile& in, platform::OutputFile& out, const ScrubLimits& limits = {});

}  // namespace zep::collect
