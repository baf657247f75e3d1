// The log scrub: the line rule, the encodings told by the byte-order mark,
// pieces of any size and lines longer than the memory bound.
#include "platform/collect/LogScrub.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/collect/LogScrubFile.h"
#include "support/MemoryFiles.h"

namespace zep::collect {
namespace {

TEST(LogScrubTest, RedactsExactlyTheQuotedDottedQuadsOfLinesWithoutVersion) {
    const struct {
        const char* input;
        const char* expected;
    } cases[] = {
        {R"(peer="10.1.2.3" up)", R"(peer="[REDACTED_IP]" up)"},
        {R"(a="1.2.3.4" b="5.6.7.8")", R"(a="[REDACTED_IP]" b="[REDACTED_IP]")"},
        {R"("999.1.2.3")", R"("[REDACTED_IP]")"},  // octet values are not checked
        {R"("1.2.3.4"5.6.7.8")", R"("[REDACTED_IP]"[REDACTED_IP]")"},  // one quote closes and opens
        {"from 10.1.2.3 to", "from 10.1.2.3 to"},
        {R"("1.2.3.4)", R"("1.2.3.4)"},
        {R"("1.2.3")", R"("1.2.3")"},
        {R"("1.2.3.4.5")", R"("1.2.3.4.5")"},
        {R"("1.2.3.4567")", R"("1.2.3.4567")"},
        {R"(Version "10.1.2.3")", R"(Version "10.1.2.3")"},
        {R"(host="10.1.2.3" agentVERSION=4.1)", R"(host="10.1.2.3" agentVERSION=4.1)"},
        {R"(verversion "1.2.3.4")", R"(verversion "1.2.3.4")"},  // a false start still finds it
        {R"(versio n "1.2.3.4")", R"(versio n "[REDACTED_IP]")"},
        // Lines end at LF and at CR alike; the rule applies per line.
        {"version 1\r\"10.0.0.4\"\r\n\"10.0.0.5\" version", "version 1\r\"[REDACTED_IP]\"\r\n\"10.0.0.5\" version"},
        {"raw \xff\xfe \"10.0.0.3\"", "raw \xff\xfe \"[REDACTED_IP]\""},  // no mark: bytes as they are
    };
    for (const auto& c : cases) EXPECT_EQ(ScrubText(c.input), c.expected) << c.input;
}

// The text's bytes in `encoding`, behind its byte-order mark. `text` is UTF-8
// with code points below U+10000.
std::string Encode(const std::u16string& text, LogEncoding encoding) {
    std::string out;
    const auto put = [&](char16_t unit, std::size_t width, bool big) {
        for (std::size_t k = 0; k < width; ++k) {
            const std::size_t shift = 8 * (big ? width - 1 - k : k);
            out.push_back(static_cast<char>((static_cast<std::uint32_t>(unit) >> shift) & 0xFFu));
        }
    };
    switch (encoding) {
        case LogEncoding::Utf16Le: out = "\xFF\xFE"; for (auto u : text) put(u, 2, false); break;
        case LogEncoding::Utf16Be: out = "\xFE\xFF"; for (auto u : text) put(u, 2, true); break;
        case LogEncoding::Utf32Le: out = std::string("\xFF\xFE\0\0", 4); for (auto u : text) put(u, 4, false); break;
        case LogEncoding::Utf32Be: out = std::string("\0\0\xFE\xFF", 4); for (auto u : text) put(u, 4, true); break;
        case LogEncoding::Utf8Bom:
        case LogEncoding::Bytes:
            if (encoding == LogEncoding::Utf8Bom) out = "\xEF\xBB\xBF";
            for (auto u : text) {  // UTF-8
                if (u < 0x80) {
                    out.push_back(static_cast<char>(u));
                } else if (u < 0x800) {
                    out.push_back(static_cast<char>(0xC0 | (u >> 6)));
                    out.push_back(static_cast<char>(0x80 | (u & 0x3F)));
                } else {
                    out.push_back(static_cast<char>(0xE0 | (u >> 12)));
                    out.push_back(static_cast<char>(0x80 | ((u >> 6) & 0x3F)));
                    out.push_back(static_cast<char>(0x80 | (u & 0x3F)));
                }
            }
            break;
    }
    return out;
}

// Windows software writes UTF-16 logs: they are decoded by their mark, the
// same rule applies, and they are written back in their own encoding, fed in
// pieces of any size (a code unit or an address split between two).
TEST(LogScrubTest, DecodesByTheByteOrderMarkAndWritesBackInTheFilesOwnEncoding) {
    const std::u16string input = u"caf\u00e9 \u65e5 \"10.1.2.3\"\r\nVersion \"10.1.2.3\"\n\"1.2.3.4\"";
    const std::u16string expected = u"caf\u00e9 \u65e5 \"[REDACTED_IP]\"\r\nVersion \"10.1.2.3\"\n\"[REDACTED_IP]\"";
    for (const LogEncoding encoding : {LogEncoding::Bytes, LogEncoding::Utf8Bom, LogEncoding::Utf16Le,
                                       LogEncoding::Utf16Be, LogEncoding::Utf32Le, LogEncoding::Utf32Be}) {
        const std::string bytes = Encode(input, encoding);
        for (const std::size_t piece : {1u, 3u, 7u, 4096u}) {
            SCOPED_TRACE("encoding " + std::to_string(static_cast<int>(encoding)) + ", pieces of " +
                         std::to_string(piece));
            LogScrubber scrubber;
            std::string out;
            for (std::size_t i = 0; i < bytes.size(); i += piece) scrubber.Feed(bytes.substr(i, piece), out);
            scrubber.Finish(out);
            EXPECT_EQ(out, Encode(expected, encoding));
            EXPECT_EQ(scrubber.Encoding(), encoding);
            EXPECT_TRUE(scrubber.Changed());
        }
    }
    // What is not whole text stays as it was: a last unit cut short, UTF-16
    // without a mark (read as bytes, like Get-Content without a mark does).
    const std::string cut = Encode(u"\"1.2.3.4\"", LogEncoding::Utf16Le) + "\x41";
    EXPECT_EQ(ScrubText(cut), Encode(u"\"[REDACTED_IP]\"", LogEncoding::Utf16Le) + "\x41");
    const std::string unmarked = Encode(u"\"1.2.3.4\"", LogEncoding::Utf16Le).substr(2);
    EXPECT_EQ(ScrubText(unmarked), unmarked);
    for (const std::string& tiny : {std::string(""), std::string("\xFF"), std::string("\xFF\xFE"),
                                   std::string("\xFF\xFE\x00", 3)}) {
        EXPECT_EQ(ScrubText(tiny), tiny);
    }
}

// Memory stays bounded: a line longer than the bound is decided at the bound.
// "version" before it leaves the line alone; after it, too late, the line is
// redacted (the safe side). Within the bound the rule is exact.
TEST(LogScrubTest, ALineLongerThanTheBoundIsDecidedAtTheBound) {
    const std::string filler(200, 'x');
    const std::string early = "version " + filler + " \"10.0.0.6\"";
    const std::string late = "keep \"10.9.8.7\" " + filler + " VERSION";
    const std::string lateRedacted = "keep \"[REDACTED_IP]\" " + filler + " VERSION";
    const std::string input = "a=\"10.0.0.1\"\r\n" + early + "\n" + late + "\r\nlast \"10.0.0.5\"";
    for (const std::size_t bound : {std::size_t{64}, LogScrubber::kDefaultMaxLineBytes}) {
        const std::string expected = "a=\"[REDACTED_IP]\"\r\n" + early + "\n" + (bound == 64 ? lateRedacted : late) +
                                     "\r\nlast \"[REDACTED_IP]\"";
        for (const std::size_t chunk : {1u, 7u, 4096u}) {
            zep::testing::MemoryInput in(input);
            zep::testing::MemoryOutput out;
            const ScrubOutcome outcome = ScrubFile(in, out, ScrubLimits{chunk, bound});
            EXPECT_TRUE(outcome.ok && outcome.changed);
            EXPECT_EQ(out.bytes, expected) << "chunk " << chunk << ", bound " << bound;
        }
    }
}

}  // namespace
}  // namespace zep::collect
