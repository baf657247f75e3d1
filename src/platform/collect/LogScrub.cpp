#include "platform/collect/LogScrub.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <variant>

namespace zep::collect {
namespace {

constexpr std::string_view kVersion = "version";

// The rule looks only at ASCII characters; a code unit above 0x7F is never
// one of them, in any encoding.
template <typename Unit>
char32_t Ascii(Unit unit) {
    const auto value = static_cast<char32_t>(static_cast<std::make_unsigned_t<Unit>>(unit));
    return value < 0x80 ? value : 0;
}

template <typename Unit>
bool IsLineEnd(Unit unit) {
    const char32_t c = Ascii(unit);
    return c == '\n' || c == '\r';
}

template <typename Unit>
const Unit* FindUnit(const Unit* begin, const Unit* end, char c) {
    if constexpr (sizeof(Unit) == 1) {
        const void* found = std::memchr(begin, c, static_cast<std::size_t>(end - begin));
        return found != nullptr ? static_cast<const Unit*>(found) : end;
    } else {
        return std::find(begin, end, static_cast<Unit>(c));
    }
}

template <typename Unit>
const Unit* FindLineEnd(const Unit* begin, const Unit* end) {
    if constexpr (sizeof(Unit) == 1) {
        const Unit* lf = FindUnit(begin, end, '\n');
        return FindUnit(begin, lf, '\r');
    } else {
        return std::find_if(begin, end, [](Unit unit) { return IsLineEnd(unit); });
    }
}

// Finds "version" in any letter case across pieces. No proper prefix of the
// word is also its suffix, so a mismatch only ever restarts at the first letter.
class VersionFinder {
public:
    template <typename Unit>
    void Feed(const Unit* data, std::size_t size) {
        for (std::size_t i = 0; i < size && matched_ < kVersion.size(); ++i) {
            char32_t c = Ascii(data[i]);
            if (c >= 'A' && c <= 'Z') c += 'a' - 'A';
            if (c == static_cast<char32_t>(kVersion[matched_])) {
                ++matched_;
            } else {
                matched_ = c == static_cast<char32_t>(kVersion[0]) ? 1 : 0;
            }
        }
    }
    bool Found() const { return matched_ == kVersion.size(); }

private:
    std::size_t matched_ = 0;
};

// 1-3 digits, a dot, three times, then 1-3 digits. `text` holds only digits
// and dots.
template <typename Unit>
bool IsDottedQuad(const Unit* text, std::size_t size) {
    int groups = 0;
    std::size_t digits = 0;
    for (std::size_t i = 0; i < size; ++i) {
        if (Ascii(text[i]) == '.') {
            if (digits == 0) return false;
            ++groups;
            digits = 0;
        } else if (++digits > 3) {
            return false;
        }
    }
    return groups == 3 && digits > 0;
}

// Replaces the quoted addresses of a stream of code units fed in pieces; a
// candidate that spans two pieces is held back (at most 15 units). It knows
// nothing of lines or of "version": the caller decides what to feed.
template <typename Unit>
class AddressRedactor {
public:
    using Text = std::basic_string<Unit>;

    void Feed(const Unit* data, std::size_t size, Text& out) {
        std::size_t i = 0;
        while (i < size) {
            if (!open_) {
                const Unit* quote = FindUnit(data + i, data + size, '"');
                const bool found = quote != data + size;
                const std::size_t end = static_cast<std::size_t>(quote - data) + (found ? 1 : 0);
                out.append(data + i, end - i);
                i = end;
                open_ = found;
                heldLength_ = 0;
                continue;
            }
            const Unit unit = data[i++];
            const char32_t c = Ascii(unit);
            if (c == '"') {
                if (IsDottedQuad(held_.data(), heldLength_)) {
                    for (const char r : kRedactedAddress) out.push_back(static_cast<Unit>(r));
                    changed_ = true;
                } else {
                    out.append(held_.data(), heldLength_);
                }
                out.push_back(unit);
                heldLength_ = 0;  // this quote opens the next candidate
            } else if (((c >= '0' && c <= '9') || c == '.') && heldLength_ < held_.size()) {
                held_[heldLength_++] = unit;
            } else {
                out.append(held_.data(), heldLength_);
                out.push_back(unit);
                heldLength_ = 0;
                open_ = false;
            }
        }
    }

    // Releases what is held back at the end of the stream.
    void Finish(Text& out) {
        out.append(held_.data(), heldLength_);
        heldLength_ = 0;
        open_ = false;
    }

    bool Changed() const { return changed_; }

private:
    bool open_ = false;  // a double quote was seen; what follows may be an address
    std::array<Unit, 15> held_{};  // "255.255.255.255"
    std::size_t heldLength_ = 0;
    bool changed_ = false;
};

// The line rule over a stream of code units: lines end at LF or CR (CRLF is
// two ends, the line between them empty). See the header for long lines.
template <typename Unit>
class LineFilter {
public:
    using Text = std::basic_string<Unit>;

    explicit LineFilter(std::size_t maxLineUnits) : maxLineUnits_(maxLineUnits) {}

    void Feed(const Unit* data, std::size_t size, Text& out) {
        const Unit* const end = data + size;
        while (data < end) {
            const Unit* lineEnd = FindLineEnd(data, end);
            Take(data, static_cast<std::size_t>(lineEnd - data), out);
            if (lineEnd == end) break;
            EndLine(out);
            out.push_back(*lineEnd);
            data = lineEnd + 1;
        }
    }

    void Finish(Text& out) { EndLine(out); }

    bool Changed() const { return changed_; }

private:
    enum class Mode { Holding, Redacting, Passing };

    // Part of the current line.
    void Take(const Unit* data, std::size_t size, Text& out) {
        if (size == 0) return;
        switch (mode_) {
            case Mode::Holding: {
                const std::size_t room = maxLineUnits_ - line_.size();
                if (size <= room) {
                    line_.append(data, size);
                    return;
                }
                // Too long to hold: decided at the bound, as the header says.
                VersionFinder version;
                version.Feed(line_.data(), line_.size());
                version.Feed(data, room);
                if (version.Found()) {
                    mode_ = Mode::Passing;
                    out += line_;
                    out.append(data, size);
                } else {
                    mode_ = Mode::Redacting;
                    redactor_.Feed(line_.data(), line_.size(), out);
                    redactor_.Feed(data, size, out);
                }
                line_.clear();
                return;
            }
            case Mode::Redacting:
                redactor_.Feed(data, size, out);
                return;
            case Mode::Passing:
                out.append(data, size);
                return;
        }
    }

    void EndLine(Text& out) {
        if (mode_ == Mode::Holding) {
            // "version" is looked for only in the few lines that hold an address.
            AddressRedactor<Unit> redactor;
            scratch_.clear();
            redactor.Feed(line_.data(), line_.size(), scratch_);
            redactor.Finish(scratch_);
            VersionFinder version;
            if (redactor.Changed()) version.Feed(line_.data(), line_.size());
            if (redactor.Changed() && !version.Found()) {
                out += scratch_;
                changed_ = true;
            } else {
                out += line_;
            }
        } else if (mode_ == Mode::Redacting) {
            redactor_.Finish(out);
            changed_ = changed_ || redactor_.Changed();
            redactor_ = AddressRedactor<Unit>();
        }
        mode_ = Mode::Holding;
        line_.clear();
    }

    std::size_t maxLineUnits_;
    Mode mode_ = Mode::Holding;
    Text line_;     // the line so far, while it is held
    Text scratch_;  // a held line redacted
    AddressRedactor<Unit> redactor_;  // a line too long to hold
    bool changed_ = false;
};

struct Mark {
    std::string_view bytes;
    LogEncoding encoding;
};

// Longest first where one mark begins another.
constexpr std::array<Mark, 5> kMarks = {{
    {std::string_view("\xFF\xFE\x00\x00", 4), LogEncoding::Utf32Le},
    {std::string_view("\x00\x00\xFE\xFF", 4), LogEncoding::Utf32Be},
    {std::string_view("\xEF\xBB\xBF", 3), LogEncoding::Utf8Bom},
    {std::string_view("\xFF\xFE", 2), LogEncoding::Utf16Le},
    {std::string_view("\xFE\xFF", 2), LogEncoding::Utf16Be},
}};

std::size_t UnitBytes(LogEncoding encoding) {
    switch (encoding) {
        case LogEncoding::Utf16Le:
        case LogEncoding::Utf16Be: return 2;
        case LogEncoding::Utf32Le:
        case LogEncoding::Utf32Be: return 4;
        case LogEncoding::Bytes:
        case LogEncoding::Utf8Bom: break;
    }
    return 1;
}

bool IsBigEndian(LogEncoding encoding) {
    return encoding == LogEncoding::Utf16Be || encoding == LogEncoding::Utf32Be;
}

}  // namespace

struct LogScrubber::Impl {
    explicit Impl(std::size_t lineBytes) : maxLineBytes(lineBytes) {}

    void Feed(std::string_view bytes, std::string& out) {
        if (!decided) {
            head.append(bytes);
            if (head.size() < 4) return;
            Decide(out);
            return;
        }
        Decode(bytes, out);
    }

    void Finish(std::string& out) {
        if (!decided) Decide(out);
        std::visit(
            [&](auto& lines) {
                using Unit = typename std::decay_t<decltype(lines)>::Text::value_type;
                std::basic_string<Unit> units;
                lines.Finish(units);
                Encode(units, out);
            },
            filter);
        out += partial;  // a last unit cut short is no text: kept as it was
        partial.clear();
    }

    // The mark, once four bytes (or the whole file) are there.
    void Decide(std::string& out) {
        decided = true;
        for (const Mark& mark : kMarks) {
            if (head.compare(0, mark.bytes.size(), mark.bytes) == 0) {
                encoding = mark.encoding;
                out.append(mark.bytes);
                head.erase(0, mark.bytes.size());
                break;
            }
        }
        const std::size_t unitBytes = UnitBytes(encoding);
        const std::size_t maxUnits = std::max<std::size_t>(maxLineBytes / unitBytes, 1);
        if (unitBytes == 2) {
            filter.emplace<LineFilter<char16_t>>(maxUnits);
        } else if (unitBytes == 4) {
            filter.emplace<LineFilter<char32_t>>(maxUnits);
        } else {
            filter.emplace<LineFilter<char>>(maxUnits);
        }
        std::string rest;
        rest.swap(head);
        Decode(rest, out);
    }

    void Decode(std::string_view bytes, std::string& out) {
        std::visit(
            [&](auto& lines) {
                using Unit = typename std::decay_t<decltype(lines)>::Text::value_type;
                if constexpr (sizeof(Unit) == 1) {
                    lines.Feed(bytes.data(), bytes.size(), out);
                } else {
                    std::basic_string<Unit>& units = Scratch<Unit>();
                    units.clear();
                    ToUnits(bytes, units);
                    std::basic_string<Unit>& written = Written<Unit>();
                    written.clear();
                    lines.Feed(units.data(), units.size(), written);
                    Encode(written, out);
                }
            },
            filter);
    }

    template <typename Unit>
    void ToUnits(std::string_view bytes, std::basic_string<Unit>& units) {
        constexpr std::size_t size = sizeof(Unit);
        const bool big = IsBigEndian(encoding);
        std::size_t i = 0;
        // Complete the unit that the previous piece cut short.
        while (!partial.empty() && i < bytes.size()) {
            partial.push_back(bytes[i++]);
            if (partial.size() == size) {
                units.push_back(Join<Unit>(partial.data(), big));
                partial.clear();
            }
        }
        for (; i + size <= bytes.size(); i += size) units.push_back(Join<Unit>(bytes.data() + i, big));
        partial.append(bytes.substr(i));
    }

    template <typename Unit>
    static Unit Join(const char* bytes, bool big) {
        std::uint32_t value = 0;
        for (std::size_t k = 0; k < sizeof(Unit); ++k) {
            const char byte = bytes[big ? k : sizeof(Unit) - 1 - k];
            value = (value << 8) | static_cast<std::uint32_t>(static_cast<unsigned char>(byte));
        }
        return static_cast<Unit>(value);
    }

    template <typename Unit>
    void Encode(const std::basic_string<Unit>& units, std::string& out) const {
        if constexpr (sizeof(Unit) == 1) {
            out += units;
        } else {
            const bool big = IsBigEndian(encoding);
            const std::size_t start = out.size();
            out.resize(start + units.size() * sizeof(Unit));
            char* write = out.data() + start;
            for (const Unit unit : units) {
                const auto value = static_cast<std::uint32_t>(unit);
                for (std::size_t k = 0; k < sizeof(Unit); ++k) {
                    const std::size_t shift = 8 * (big ? sizeof(Unit) - 1 - k : k);
                    *write++ = static_cast<char>((value >> shift) & 0xFFu);
                }
            }
        }
    }

    template <typename Unit>
    std::basic_string<Unit>& Scratch() {
        if constexpr (sizeof(Unit) == 2) {
            return units16;
        } else {
            return units32;
        }
    }

    template <typename Unit>
    std::basic_string<Unit>& Written() {
        if constexpr (sizeof(Unit) == 2) {
            return written16;
        } else {
            return written32;
        }
    }

    std::size_t maxLineBytes;
    bool decided = false;
    LogEncoding encoding = LogEncoding::Bytes;
    std::string head;     // the first bytes, until the mark is known
    std::string partial;  // bytes of a unit that the next piece completes
    std::variant<LineFilter<char>, LineFilter<char16_t>, LineFilter<char32_t>> filter{LineFilter<char>(1)};
    std::u16string units16, written16;
    std::u32string units32, written32;
};

LogScrubber::LogScrubber(std::size_t maxLineBytes) : impl_(std::make_unique<Impl>(maxLineBytes)) {}
LogScrubber::~LogScrubber() = default;
LogScrubber::LogScrubber(LogScrubber&&) noexcept = default;
LogScrubber& LogScrubber::operator=(LogScrubber&&) noexcept = default;

void LogScrubber::Feed(std::string_view bytes, std::string& out) { impl_->Feed(bytes, out); }
void LogScrubber::Finish(std::string& out) { impl_->Finish(out); }

bool LogScrubber::Changed() const {
    return std::visit([](const auto& filter) { return filter.Changed(); }, impl_->filter);
}

LogEncoding LogScrubber::Encoding() const { return impl_->encoding; }

std::string ScrubText(std::string_view bytes, std::size_t maxLineBytes) {
    LogScrubber scrubber(maxLineBytes);
    std::string out;
    out.reserve(bytes.size());
    scrubber.Feed(bytes, out);
    scrubber.Finish(out);
    return out;
}

}  // namespace zep::collect
