// Redaction of IPv4 addresses in the agent's log files, byte for byte the
// same result as the Windows collection's PowerShell line filter
//   if ($_ -notmatch 'version') { $_ -replace
//     '(?<=")(\d{1,3}\.\d{1,3}\.\d{1,3}\.\d{1,3})(?=")', '[REDACTED_IP]' }
// except that nothing else in the file changes (line ends, a missing final
// line end and bytes that are not UTF-8 stay as they were).
//
// Because the address may hold nothing but digits and dots and must have a
// double quote directly on both sides, it is exactly the whole text between
// two neighbouring double quotes; a closing quote also opens the next
// candidate, as the lookbehind sees the original text. Digits are ASCII.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zep::platform {

inline constexpr std::string_view kRedactedAddress = "[REDACTED_IP]";

// True when `text` contains "version" in any (ASCII) letter case.
bool MentionsVersion(std::string_view text);

// One line without its line end, filtered as above.
std::string ScrubLine(std::string_view line);

// Replaces the quoted addresses of a byte stream fed in pieces of any size;
// a candidate that spans two pieces is held back (at most 15 bytes). It knows
// nothing of lines or of "version": the caller decides what to feed.
class AddressRedactor {
public:
    void Feed(std::string_view bytes, std::string& out);
    // Releases what is held back at the end of the stream.
    void Finish(std::string& out);
    // Whether any address was replaced since construction.
    bool Changed() const { return changed_; }

private:
    static constexpr std::size_t kMaxAddress = 15;  // "255.255.255.255"
    bool open_ = false;     // a double quote was seen; what follows may be an address
    char held_[kMaxAddress] = {};
    std::size_t heldLength_ = 0;
    bool changed_ = false;
};

struct ScrubLimits {
    std::size_t chunkBytes = 64 * 1024;    // one read
    std::size_t maxLineBytes = 64 * 1024;  // longer lines are read twice instead of held
};

struct ScrubOutcome {
    bool ok = false;       // read and written completely
    bool changed = false;  // at least one address was replaced
    int error = 0;         // errno of the failed read or write
};

// Filters the regular file `inFd` (read with pread from offset 0) into
// `outFd`. Lines end at LF or CR (CRLF is two ends, the second line empty,
// which filters to nothing). Memory stays bounded by the limits whatever the
// file and line sizes: a line longer than maxLineBytes is first scanned for
// "version" and then streamed through the redactor.
ScrubOutcome ScrubFile(int inFd, int outFd, const ScrubLimits& limits = {});

}  // namespace zep::platform
