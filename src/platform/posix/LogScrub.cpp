#include "platform/posix/LogScrub.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace zep::platform {
namespace {

constexpr std::string_view kVersion = "version";

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

char LowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Finds "version" across pieces. No proper prefix of the word is also its
// suffix, so a mismatch only ever restarts at the first letter.
class VersionFinder {
public:
    void Feed(std::string_view bytes) {
        for (std::size_t i = 0; i < bytes.size() && matched_ < kVersion.size(); ++i) {
            const char c = LowerAscii(bytes[i]);
            if (c == kVersion[matched_]) {
                ++matched_;
            } else {
                matched_ = c == kVersion[0] ? 1 : 0;
            }
        }
    }
    bool Found() const { return matched_ == kVersion.size(); }

private:
    std::size_t matched_ = 0;
};

// 1-3 digits, a dot, three times, then 1-3 digits. `text` holds only digits
// and dots.
bool IsDottedQuad(std::string_view text) {
    int groups = 0;
    std::size_t digits = 0;
    for (const char c : text) {
        if (c == '.') {
            if (digits == 0) return false;
            ++groups;
            digits = 0;
        } else if (++digits > 3) {
            return false;
        }
    }
    return groups == 3 && digits > 0;
}

std::size_t FindLineEnd(const char* data, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] == '\n' || data[i] == '\r') return i;
    }
    return size;
}

class Writer {
public:
    explicit Writer(int fd) : fd_(fd) {}

    bool Write(std::string_view bytes) {
        if (error_ != 0) return false;
        buffer_.append(bytes);
        return buffer_.size() < kFlushAt || Flush();
    }

    bool Flush() {
        std::size_t done = 0;
        while (error_ == 0 && done < buffer_.size()) {
            const ssize_t n = ::write(fd_, buffer_.data() + done, buffer_.size() - done);
            if (n < 0) {
                if (errno != EINTR) error_ = errno;
            } else {
                done += static_cast<std::size_t>(n);
            }
        }
        buffer_.clear();
        return error_ == 0;
    }

    int Error() const { return error_; }

private:
    static constexpr std::size_t kFlushAt = 64 * 1024;
    int fd_;
    std::string buffer_;
    int error_ = 0;
};

// pread that retries interrupted calls; -1 with errno on failure.
ssize_t ReadAt(int fd, char* data, std::size_t size, off_t offset) {
    for (;;) {
        const ssize_t n = ::pread(fd, data, size, offset);
        if (n >= 0 || errno != EINTR) return n;
    }
}

class FileScrubber {
public:
    FileScrubber(int inFd, int outFd, const ScrubLimits& limits)
        : in_(inFd),
          out_(outFd),
          chunkBytes_(limits.chunkBytes == 0 ? 1 : limits.chunkBytes),
          maxLineBytes_(limits.maxLineBytes),
          chunk_(chunkBytes_) {}

    ScrubOutcome Run() {
        ScrubOutcome outcome;
        if (!Process() || !out_.Flush()) {
            outcome.error = error_ != 0 ? error_ : out_.Error();
            return outcome;
        }
        outcome.ok = true;
        outcome.changed = changed_;
        return outcome;
    }

private:
    bool Process() {
        off_t position = 0;
        off_t lineStart = 0;
        for (;;) {
            const ssize_t got = ReadAt(in_, chunk_.data(), chunkBytes_, position);
            if (got < 0) return Fail(errno);
            if (got == 0) break;
            const auto size = static_cast<std::size_t>(got);
            std::size_t i = 0;
            bool reposition = false;
            while (i < size) {
                const std::size_t end = i + FindLineEnd(chunk_.data() + i, size - i);
                line_.append(chunk_.data() + i, end - i);
                if (line_.size() > maxLineBytes_) {
                    // Too long to hold: read it again from its start, twice.
                    line_.clear();
                    off_t lineEnd = 0;
                    if (!StreamLongLine(lineStart, lineEnd)) return false;
                    position = lineEnd;  // the line end (or the end of the file) comes next
                    lineStart = lineEnd;
                    reposition = true;
                    break;
                }
                if (end == size) break;
                if (!EmitLine() || !out_.Write(std::string_view(chunk_.data() + end, 1))) return false;
                i = end + 1;
                lineStart = position + static_cast<off_t>(i);
            }
            if (!reposition) position += got;
        }
        return EmitLine();
    }

    bool EmitLine() {
        AddressRedactor redactor;
        scratch_.clear();
        redactor.Feed(line_, scratch_);
        redactor.Finish(scratch_);
        bool ok;
        if (redactor.Changed() && !MentionsVersion(line_)) {
            changed_ = true;
            ok = out_.Write(scratch_);
        } else {
            ok = out_.Write(line_);
        }
        line_.clear();
        return ok || Fail(out_.Error());
    }

    // Scans the line from `start` for its end and for "version", then filters
    // it in chunks. `lineEnd` receives the offset of its line end or of the
    // end of the file.
    bool StreamLongLine(off_t start, off_t& lineEnd) {
        VersionFinder version;
        off_t position = start;
        for (;;) {
            const ssize_t got = ReadAt(in_, chunk_.data(), chunkBytes_, position);
            if (got < 0) return Fail(errno);
            if (got == 0) break;
            const auto size = static_cast<std::size_t>(got);
            const std::size_t end = FindLineEnd(chunk_.data(), size);
            version.Feed(std::string_view(chunk_.data(), end));
            position += static_cast<off_t>(end);
            if (end < size) break;
        }
        lineEnd = position;

        AddressRedactor redactor;
        position = start;
        while (position < lineEnd) {
            const auto want = static_cast<std::size_t>(
                std::min<off_t>(lineEnd - position, static_cast<off_t>(chunkBytes_)));
            const ssize_t got = ReadAt(in_, chunk_.data(), want, position);
            if (got < 0) return Fail(errno);
            if (got == 0) break;  // the file shrank meanwhile
            const std::string_view piece(chunk_.data(), static_cast<std::size_t>(got));
            position += got;
            if (version.Found()) {
                if (!out_.Write(piece)) return Fail(out_.Error());
                continue;
            }
            scratch_.clear();
            redactor.Feed(piece, scratch_);
            if (!out_.Write(scratch_)) return Fail(out_.Error());
        }
        scratch_.clear();
        redactor.Finish(scratch_);
        if (!out_.Write(scratch_)) return Fail(out_.Error());
        changed_ = changed_ || redactor.Changed();
        return true;
    }

    bool Fail(int error) {
        if (error_ == 0) error_ = error;
        return false;
    }

    int in_;
    Writer out_;
    std::size_t chunkBytes_;
    std::size_t maxLineBytes_;
    std::vector<char> chunk_;
    std::string line_;
    std::string scratch_;
    bool changed_ = false;
    int error_ = 0;
};

}  // namespace

bool MentionsVersion(std::string_view text) {
    VersionFinder finder;
    finder.Feed(text);
    return finder.Found();
}

void AddressRedactor::Feed(std::string_view bytes, std::string& out) {
    std::size_t i = 0;
    while (i < bytes.size()) {
        if (!open_) {
            const void* quote = std::memchr(bytes.data() + i, '"', bytes.size() - i);
            const std::size_t end =
                quote ? static_cast<std::size_t>(static_cast<const char*>(quote) - bytes.data()) + 1 : bytes.size();
            out.append(bytes.data() + i, end - i);
            i = end;
            open_ = quote != nullptr;
            heldLength_ = 0;
            continue;
        }
        const char c = bytes[i++];
        if (c == '"') {
            const std::string_view held(held_, heldLength_);
            if (IsDottedQuad(held)) {
                out.append(kRedactedAddress);
                changed_ = true;
            } else {
                out.append(held);
            }
            out.push_back('"');
            heldLength_ = 0;  // this quote opens the next candidate
        } else if ((IsDigit(c) || c == '.') && heldLength_ < kMaxAddress) {
            held_[heldLength_++] = c;
        } else {
            out.append(held_, heldLength_);
            out.push_back(c);
            heldLength_ = 0;
            open_ = false;
        }
    }
}

void AddressRedactor::Finish(std::string& out) {
    out.append(held_, heldLength_);
    heldLength_ = 0;
    open_ = false;
}

std::string ScrubLine(std::string_view line) {
    AddressRedactor redactor;
    std::string out;
    out.reserve(line.size());
    redactor.Feed(line, out);
    redactor.Finish(out);
    if (!redactor.Changed() || MentionsVersion(line)) return std::string(line);
    return out;
}

ScrubOutcome ScrubFile(int inFd, int outFd, const ScrubLimits& limits) {
    try {
        return FileScrubber(inFd, outFd, limits).Run();
    } catch (...) {  // only allocation can fail here
        ScrubOutcome outcome;
        outcome.error = ENOMEM;
        return outcome;
    }
}

}  // namespace zep::platform
