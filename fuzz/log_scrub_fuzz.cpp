// A log file through the scrub: the same output whatever the pieces it is
// fed in, and nothing but addresses changed. The first byte picks the line
// bound (small ones reach the paths of lines too long to hold) and the piece
// size.
#include "FuzzSupport.h"
#include "platform/collect/LogScrub.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using zep::collect::LogScrubber;
    if (size == 0) return 0;
    const std::size_t bound = (data[0] & 0x0F) == 0 ? LogScrubber::kDefaultMaxLineBytes : (data[0] & 0x0F) * 4u;
    const std::size_t piece = 1 + (data[0] >> 4);
    const std::string_view input = zep::fuzz::Bytes(data + 1, size - 1);

    const std::string whole = zep::collect::ScrubText(input, bound);
    LogScrubber scrubber(bound);
    std::string pieces;
    for (std::size_t i = 0; i < input.size(); i += piece) scrubber.Feed(input.substr(i, piece), pieces);
    scrubber.Finish(pieces);
    ZEP_FUZZ_CHECK(pieces == whole);
    // Without a double quote nothing can be an address.
    if (input.find('"') == std::string_view::npos) ZEP_FUZZ_CHECK(whole == input);
    ZEP_FUZZ_CHECK(scrubber.Changed() == (whole != input));
    return 0;
}
