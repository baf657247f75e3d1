// The log scrub (LogScrub.h) from one file descriptor into another.
#pragma once

#include <cstddef>

#include "platform/posix/LogScrub.h"

namespace zep::platform {

struct ScrubLimits {
    std::size_t chunkBytes = 64 * 1024;                           // one read
    std::size_t maxLineBytes = LogScrubber::kDefaultMaxLineBytes;  // see LogScrub.h
};

struct ScrubOutcome {
    bool ok = false;       // read and written completely
    bool changed = false;  // at least one address was replaced
    int error = 0;         // errno of the failed read or write
};

// Scrubs the regular file `inFd` (read with pread from offset 0) into
// `outFd`, in memory bounded by the limits whatever the file and line sizes.
ScrubOutcome ScrubFile(int inFd, int outFd, const ScrubLimits& limits = {});

}  // namespace zep::platform
