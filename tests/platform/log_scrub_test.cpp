// The log scrub: the line rule, the encodings told by the byte-order mark,
// pieces of any size and lines longer than the memory bound.
#include "platform/collect/LogScrub.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/collect/LogScrubFile.h"
#include "platform/util/Strings.h"
#include "support/HookedFiles.h"

namespace zep::collect {
namespace {

TEST(LogScrubTest, RedactsExactlyTheQuotedDottedQuadsOfLinesWithoutVersion) {
    const struct {
        const char* input;
        const char* expected;
    } cases[] = {
        {R"(peer="10.1.2.3" up)", R"(peer="[REDACTED_IP]" up)"},
        {R"(a="1.2.3.4" b="5.6.7.8")", R"(a="[REDACTED_IP]" b="[REDACTED_IP]")"},
        {R"("1.2.3.4"5.6.7.8")", R"("[REDACTED_IP]"[REDACTED_IP]")"},  // one quote closes and opens
        {"from 10.1.2.3 to", "from 10.1.2.3 to"},
        {R"("1.2.3.4)", R"("1.2.3.4)"},
        {R"("1.2.3")", R"("1.2.3")"},
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

// The text's bytes in `encoding`, behind its byte-order mark (code points below U+10000).
std::string Encode(const std::wstring& wide, LogEncoding encoding) {
    const auto units = [&wide](std::string out, std::size_t width, bool big) {
        for (const wchar_t unit : wide) {
            for (std::size_t k = 0; k < width; ++k) {
                out.push_back(static_cast<char>(static_cast<std::uint32_t>(unit) >> (8 * (big ? width - 1 - k : k))));
            }
        }
        return out;
    };
    switch (encoding) {
        case LogEncoding::Utf16Le: return units("\xFF\xFE", 2, false);
        case LogEncoding::Utf16Be: return units("\xFE\xFF", 2, true);
        case LogEncoding::Utf32Le: return units(std::string("\xFF\xFE\0\0", 4), 4, false);
        case LogEncoding::Utf32Be: return units(std::string("\0\0\xFE\xFF", 4), 4, true);
        case LogEncoding::Utf8Bom: return "\xEF\xBB\xBF" + text::ToUtf8(wide);
        case LogEncoding::Bytes: break;
    }
    return text::ToUtf8(wide);
}

// Logs are decoded by their mark and written back in their own encoding, fed
// in pieces of any size (a code unit or an address split between two).
TEST(LogScrubTest, DecodesByTheByteOrderMarkAndWritesBackInTheFilesOwnEncoding) {
    const std::wstring input = L"caf\u00e9 \u65e5 \"10.1.2.3\"\r\nVersion \"10.1.2.3\"\n\"1.2.3.4\"";
    const std::wstring expected = L"caf\u00e9 \u65e5 \"[REDACTED_IP]\"\r\nVersion \"10.1.2.3\"\n\"[REDACTED_IP]\"";
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
    // What is not whole text stays as it was: a last unit cut short, UTF-16 without a mark.
    const std::string cut = Encode(L"\"1.2.3.4\"", LogEncoding::Utf16Le) + "\x41";
    EXPECT_EQ(ScrubText(cut), Encode(L"\"[REDACTED_IP]\"", LogEncoding::Utf16Le) + "\x41");
    const std::string unmarked = Encode(L"\"1.2.3.4\"", LogEncoding::Utf16Le).substr(2);
    EXPECT_EQ(ScrubText(unmarked), unmarked);
    for (const std::string& tiny : {std::string(""), std::string("\xFF"), std::string("\xFF\xFE"),
                                   std::string("\xFF\xFE\x00", 3)}) {
        EXPECT_EQ(ScrubText(tiny), tiny);
    }
}

// Memory stays bounded: "version" past the bound is seen too late, and the
// line is redacted (the safe side). Within the bound the rule is exact.
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
