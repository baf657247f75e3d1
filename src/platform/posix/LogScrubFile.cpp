#include "platform/posix/LogScrubFile.h"

#include <unistd.h>

#include <cerrno>
#include <new>
#include <string>
#include <vector>

namespace zep::platform {
namespace {

// pread that retries interrupted calls; -1 with errno on failure.
ssize_t ReadAt(int fd, char* data, std::size_t size, off_t offset) {
    for (;;) {
        const ssize_t n = ::pread(fd, data, size, offset);
        if (n >= 0 || errno != EINTR) return n;
    }
}

// Writes everything; the errno of a failure, else 0.
int WriteAll(int fd, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno;
        done += static_cast<std::size_t>(n);
    }
    return 0;
}

}  // namespace

ScrubOutcome ScrubFile(int inFd, int outFd, const ScrubLimits& limits) {
    ScrubOutcome outcome;
    try {
        constexpr std::size_t kFlushAt = 64 * 1024;
        LogScrubber scrubber(limits.maxLineBytes);
        std::vector<char> chunk(limits.chunkBytes == 0 ? 1 : limits.chunkBytes);
        std::string out;
        off_t position = 0;
        for (;;) {
            const ssize_t got = ReadAt(inFd, chunk.data(), chunk.size(), position);
            if (got < 0) {
                outcome.error = errno;
                return outcome;
            }
            if (got == 0) break;
            position += got;
            scrubber.Feed(std::string_view(chunk.data(), static_cast<std::size_t>(got)), out);
            if (out.size() >= kFlushAt) {
                if ((outcome.error = WriteAll(outFd, out)) != 0) return outcome;
                out.clear();
            }
        }
        scrubber.Finish(out);
        if ((outcome.error = WriteAll(outFd, out)) != 0) return outcome;
        outcome.ok = true;
        outcome.changed = scrubber.Changed();
    } catch (const std::bad_alloc&) {
        outcome = ScrubOutcome{};
        outcome.error = ENOMEM;
    }
    return outcome;
}

}  // namespace zep::platform
