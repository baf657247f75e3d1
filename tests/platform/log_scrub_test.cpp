#include "platform/posix/LogScrub.h"

#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zep::platform {
namespace {

struct Case {
    const char* input;
    const char* expected;
};

TEST(ScrubLineTest, RedactsExactlyTheQuotedDottedQuads) {
    const Case cases[] = {
        {R"(peer="10.1.2.3" up)", R"(peer="[REDACTED_IP]" up)"},
        {R"(a="1.2.3.4" b="5.6.7.8")", R"(a="[REDACTED_IP]" b="[REDACTED_IP]")"},
        {R"("999.1.2.3")", R"("[REDACTED_IP]")"},  // octet values are not checked
        {R"(""1.2.3.4"")", R"(""[REDACTED_IP]"")"},
        // The closing quote of one address opens the next.
        {R"("1.2.3.4"5.6.7.8")", R"("[REDACTED_IP]"[REDACTED_IP]")"},
        {"from 10.1.2.3 to", "from 10.1.2.3 to"},
        {R"("1.2.3")", R"("1.2.3")"},
        {R"("1.2.3.4.5")", R"("1.2.3.4.5")"},
        {R"("1.2.3.4567")", R"("1.2.3.4567")"},
        {R"("1234.1.1.1")", R"("1234.1.1.1")"},
        {R"("1..2.3")", R"("1..2.3")"},
        {R"(".1.2.3")", R"(".1.2.3")"},
        {R"(" 1.2.3.4")", R"(" 1.2.3.4")"},
        {R"("1.2.3.4)", R"("1.2.3.4)"},
        {"'1.2.3.4'", "'1.2.3.4'"},
        {R"(Version "10.1.2.3")", R"(Version "10.1.2.3")"},
        {R"(host="10.1.2.3" agentVERSION=4.1)", R"(host="10.1.2.3" agentVERSION=4.1)"},
    };
    for (const auto& c : cases) EXPECT_EQ(ScrubLine(c.input), c.expected) << c.input;
}

TEST(ScrubLineTest, FindsVersionInAnyCaseAfterFalseStarts) {
    EXPECT_TRUE(MentionsVersion("VeRsIoN"));
    EXPECT_TRUE(MentionsVersion("vversion"));
    EXPECT_TRUE(MentionsVersion("verversion"));
    EXPECT_FALSE(MentionsVersion("versio n"));
    EXPECT_FALSE(MentionsVersion(""));
}

// ---- Whole files ---------------------------------------------------------

int MemoryFile(const std::string& bytes) {
    const int fd = ::memfd_create("scrub", MFD_CLOEXEC);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(::pwrite(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    return fd;
}

std::string Contents(int fd) {
    std::string out;
    char buffer[4096];
    off_t offset = 0;
    for (ssize_t n; (n = ::pread(fd, buffer, sizeof buffer, offset)) > 0; offset += n) {
        out.append(buffer, static_cast<std::size_t>(n));
    }
    return out;
}

ScrubOutcome Scrub(const std::string& input, std::string& output, const ScrubLimits& limits = {}) {
    const int in = MemoryFile(input);
    const int out = ::memfd_create("scrubbed", MFD_CLOEXEC);
    const ScrubOutcome outcome = ScrubFile(in, out, limits);
    output = Contents(out);
    ::close(in);
    ::close(out);
    return outcome;
}

TEST(ScrubFileTest, ChangesOnlyTheAddressesByteForByte) {
    const std::string input =
        "a=\"10.0.0.1\"\r\n"
        "Version \"10.0.0.2\"\r\n"
        "raw \xff\xfe \"10.0.0.3\"\n"
        "\n"
        "version 1\r\"10.0.0.4\"\r"  // a lone CR ends a line too
        "last \"10.0.0.5\"";         // no final line end
    const std::string expected =
        "a=\"[REDACTED_IP]\"\r\n"
        "Version \"10.0.0.2\"\r\n"
        "raw \xff\xfe \"[REDACTED_IP]\"\n"
        "\n"
        "version 1\r\"[REDACTED_IP]\"\r"
        "last \"[REDACTED_IP]\"";
    std::string output;
    const ScrubOutcome outcome = Scrub(input, output);
    EXPECT_TRUE(outcome.ok);
    EXPECT_TRUE(outcome.changed);
    EXPECT_EQ(output, expected);
}

TEST(ScrubFileTest, ReportsAFileWithNothingToRedactAsUnchanged) {
    std::string output;
    const ScrubOutcome outcome = Scrub("plain 10.0.0.1\r\nVersion=\"1.2.3.4\"", output);
    EXPECT_TRUE(outcome.ok);
    EXPECT_FALSE(outcome.changed);
    EXPECT_EQ(output, "plain 10.0.0.1\r\nVersion=\"1.2.3.4\"");
}

TEST(ScrubFileTest, ReportsAnUnreadableInput) {
    const int out = ::memfd_create("scrubbed", MFD_CLOEXEC);
    const ScrubOutcome outcome = ScrubFile(-1, out);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.error, EBADF);
    ::close(out);
}

// Lines longer than what is held are read twice and streamed; addresses that
// straddle reads and a "version" far beyond the held part must still count.
TEST(ScrubFileTest, SmallReadsAndLongLinesGiveTheSameResult) {
    const std::string filler(200, 'x');
    const std::string input = "k=\"192.168.100.200\" " + filler + " \"1.2.3.4\"\n" +  //
                              "keep \"10.9.8.7\" " + filler + " VERSION\r\n" +         //
                              "\"1.2.3.4\"5.6.7.8\"\"1.2.3.45678\"\n" +               //
                              "tail \"8.8.8.8";
    const std::string expected = "k=\"[REDACTED_IP]\" " + filler + " \"[REDACTED_IP]\"\n" +
                                 "keep \"10.9.8.7\" " + filler + " VERSION\r\n" +
                                 "\"[REDACTED_IP]\"[REDACTED_IP]\"\"1.2.3.45678\"\n" + "tail \"8.8.8.8";
    for (const std::size_t chunk : {1u, 3u, 7u, 4096u}) {
        for (const std::size_t maxLine : {0u, 5u, 64u, 100000u}) {
            std::string output;
            const ScrubOutcome outcome = Scrub(input, output, ScrubLimits{chunk, maxLine});
            EXPECT_TRUE(outcome.ok);
            EXPECT_TRUE(outcome.changed);
            EXPECT_EQ(output, expected) << "chunk " << chunk << ", line " << maxLine;
        }
    }
}

}  // namespace
}  // namespace zep::platform
