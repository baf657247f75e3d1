#include "platform/collect/LogScrubFile.h"

#include <algorithm>
#include <new>
#include <string>
#include <vector>

namespace zep::collect {

ScrubOutcome ScrubFile(platform::InputFile& in, platform::OutputFile& out, const ScrubLimits& limits) {
    ScrubOutcome outcome;
    try {
        constexpr std::size_t kFlushAt = 64 * 1024;
        LogScrubber scrubber(limits.maxLineBytes);
        std::vector<char> chunk(limits.chunkBytes == 0 ? 1 : limits.chunkBytes);
        std::string scrubbed;
        std::size_t got = 0;
        for (std::uint64_t left = limits.maxInputBytes; left > 0; left -= got) {
            got = 0;
            const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(chunk.size(), left));
            if (!in.Read(chunk.data(), want, got, &outcome.status)) return outcome;
            if (got == 0) break;
            scrubber.Feed(std::string_view(chunk.data(), got), scrubbed);
            if (scrubbed.size() >= kFlushAt) {
                if (!out.Write(scrubbed, &outcome.status)) return outcome;
                scrubbed.clear();
            }
        }
        scrubber.Finish(scrubbed);
        if (!out.Write(scrubbed, &outcome.status)) return outcome;
        outcome.ok = true;
        outcome.changed = scrubber.Changed();
    } catch (const std::bad_alloc&) {
        outcome = ScrubOutcome{};
        outcome.status = platform::FsStatus{platform::FsError::Failed, "out of memory"};
    }
    return outcome;
}

}  // namespace zep::collect
