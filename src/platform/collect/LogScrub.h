// Redaction of IPv4 addresses in the agent's log files, the same result as the
// Windows collection's PowerShell line filter
//   (Get-Content $f) | ForEach-Object { if ($_ -notmatch 'version') { $_ -replace
//     '(?<=")(\d{1,3}\.\d{1,3}\.\d{1,3}\.\d{1,3})(?=")', '[REDACTED_IP]' } else { $_ } }
// except that nothing else in the file changes (line ends, a missing final
// line end, bytes that are not text and the byte-order mark stay as they were).
//
// Like Get-Content, the transform decodes a file by its byte-order mark:
// UTF-8, UTF-16LE, UTF-16BE, UTF-32LE and UTF-32BE (FF FE 00 00 is UTF-32LE,
// as .NET reads it). The rule runs on the decoded code units and the result is
// written back in the file's own encoding. Without a mark the bytes are taken
// as they are (UTF-8 or an ANSI code page): every character the rule looks at
// is ASCII, and no byte of a multi-byte character is.
//
// Because the address may hold nothing but digits and dots and must have a
// double quote directly on both sides, it is exactly the whole text between
// two neighbouring double quotes; a closing quote also opens the next
// candidate, as the lookbehind sees the original text. Digits are ASCII.
//
// Memory is bounded: a line is held until its end so that a "version"
// anywhere in it leaves it alone, up to maxLineBytes. A longer line is decided
// at that bound: left alone when "version" came before it, else redacted to
// its end, also if "version" comes later. That errs on the side of redaction, and
// only for lines that no log writes in practice.
//
// Nothing here depends on the operating system: a packer can feed each file
// through a LogScrubber as it reads it.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace zep::collect {

inline constexpr std::string_view kRedactedAddress = "[REDACTED_IP]";

enum class LogEncoding { Bytes, Utf8Bom, Utf16Le, Utf16Be, Utf32Le, Utf32Be };

class LogScrubber {
public:
    static constexpr std::size_t kDefaultMaxLineBytes = 1024 * 1024;

    explicit LogScrubber(std::size_t maxLineBytes = kDefaultMaxLineBytes);
    ~LogScrubber();
    LogScrubber(LogScrubber&&) noexcept;
    LogScrubber& operator=(LogScrubber&&) noexcept;

    // The next piece of the file, of any size; appends to `out` what can be
    // written so far. May throw std::bad_alloc.
    void Feed(std::string_view bytes, std::string& out);
    // The end of the file: appends the rest.
    void Finish(std::string& out);

    // Whether any address was replaced so far.
    bool Changed() const;
    // The encoding found by the byte-order mark (Bytes until decided).
    LogEncoding Encoding() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// A whole text through a LogScrubber.
std::string ScrubText(std::string_view bytes, std::size_t maxLineBytes = LogScrubber::kDefaultMaxLineBytes);

}  // namespace zep::collect
