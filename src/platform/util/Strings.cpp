#include "platform/util/Strings.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#ifdef _WIN32
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#else
#include <locale.h>
#include <wctype.h>
#endif

#include <utf8cpp/utf8.h>

namespace zep::text {
namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr bool kWideIsUtf16 = sizeof(wchar_t) == 2;

bool IsSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDFFF; }

// Decodes UTF-8, handing each code point, or each byte that starts no valid
// sequence, to the callbacks. utfcpp does the decoding.
template <typename OnCodePoint, typename OnInvalidByte>
void DecodeUtf8(std::string_view bytes, OnCodePoint onCodePoint, OnInvalidByte onInvalid) {
    auto it = bytes.begin();
    const auto end = bytes.end();
    while (it != end) {
        auto next = it;
        try {
            const auto cp = static_cast<char32_t>(utf8::next(next, end));
            onCodePoint(cp);
            it = next;
        } catch (const utf8::exception&) {
            onInvalid(static_cast<unsigned char>(*it));
            ++it;
        }
    }
}

void AppendWide(std::wstring& out, char32_t cp) {
    if constexpr (kWideIsUtf16) {
        if (cp > 0xFFFF) {
            cp -= 0x10000;
            out.push_back(static_cast<wchar_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<wchar_t>(0xDC00 + (cp & 0x3FF)));
            return;
        }
    }
    out.push_back(static_cast<wchar_t>(cp));
}

// Walks a wide string as code points; lone surrogates are handed over as they
// are so that callers can decide what they mean.
template <typename OnCodePoint>
void DecodeWide(std::wstring_view wide, OnCodePoint onCodePoint) {
    for (std::size_t i = 0; i < wide.size(); ++i) {
        auto cp = static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(wide[i]));
        if constexpr (kWideIsUtf16) {
            if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < wide.size()) {
                const auto low = static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(wide[i + 1]));
                if (low >= 0xDC00 && low <= 0xDFFF) {
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                    ++i;
                }
            }
        }
        onCodePoint(cp);
    }
}

void AppendUtf8(std::string& out, char32_t cp) {
    if (IsSurrogate(cp) || cp > 0x10FFFF) cp = kReplacement;
    utf8::append(static_cast<utf8::uint32_t>(cp), std::back_inserter(out));
}

// Most names and paths are plain ASCII, the same in every encoding: they are
// copied unit for unit, without decoding (a scan converts tens of thousands).
template <typename Unit>
bool IsAscii(std::basic_string_view<Unit> text) {
    return std::all_of(text.begin(), text.end(),
                       [](Unit c) { return static_cast<std::make_unsigned_t<Unit>>(c) < 0x80; });
}

template <typename To, typename From>
To CopyUnits(std::basic_string_view<From> text) {
    return To(text.begin(), text.end());
}

}  // namespace

std::string ToUtf8(std::wstring_view wide) {
    if (IsAscii(wide)) return CopyUnits<std::string>(wide);
    std::string out;
    out.reserve(wide.size());
    DecodeWide(wide, [&](char32_t cp) { AppendUtf8(out, cp); });
    return out;
}

std::wstring FromUtf8(std::string_view utf8) {
    if (IsAscii(utf8)) return CopyUnits<std::wstring>(utf8);
    std::wstring out;
    out.reserve(utf8.size());
    DecodeUtf8(utf8, [&](char32_t cp) { AppendWide(out, cp); }, [&](unsigned char) { AppendWide(out, kReplacement); });
    return out;
}

std::wstring DecodeFileName(std::string_view bytes) {
    if (IsAscii(bytes)) return CopyUnits<std::wstring>(bytes);
    std::wstring out;
    out.reserve(bytes.size());
    DecodeUtf8(bytes, [&](char32_t cp) { AppendWide(out, cp); },
               [&](unsigned char byte) { out.push_back(static_cast<wchar_t>(0xDC00 + byte)); });
    return out;
}

std::string EncodeFileName(std::wstring_view name) {
    if (IsAscii(name)) return CopyUnits<std::string>(name);
    std::string out;
    out.reserve(name.size());
    DecodeWide(name, [&](char32_t cp) {
        if (cp >= 0xDC80 && cp <= 0xDCFF) {
            out.push_back(static_cast<char>(cp - 0xDC00));
        } else {
            AppendUtf8(out, cp);
        }
    });
    return out;
}

std::string ListingText(std::wstring_view path) {
#ifdef _WIN32
    if (IsAscii(path)) return CopyUnits<std::string>(path);
#else
    // Printable ASCII but the backslash, which is escaped here.
    if (std::all_of(path.begin(), path.end(), [](wchar_t c) { return c >= 0x20 && c < 0x7F && c != L'\\'; })) {
        return CopyUnits<std::string>(path);
    }
#endif
    std::string out;
    out.reserve(path.size());
    char escape[12];
    DecodeWide(path, [&](char32_t cp) {
#ifdef _WIN32
        if (IsSurrogate(cp)) {
            std::snprintf(escape, sizeof escape, "<U+%04X>", static_cast<unsigned>(cp));
            out += escape;
            return;
        }
#else
        if (cp == U'\\') {
            out += "\\\\";
            return;
        }
        const bool rawByte = cp >= 0xDC80 && cp <= 0xDCFF;
        if (rawByte || cp < 0x20 || cp == 0x7F) {
            std::snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned>(rawByte ? cp - 0xDC00 : cp));
            out += escape;
            return;
        }
#endif
        AppendUtf8(out, cp);
    });
    return out;
}

std::wstring EscapeControlCharacters(std::wstring_view text) {
    const auto isControl = [](wchar_t c) {
        return c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == 0x2028 || c == 0x2029;
    };
    std::wstring out;
    out.reserve(text.size());
    for (const wchar_t c : text) {
        if (!isControl(c)) {
            out.push_back(c);
            continue;
        }
        wchar_t buffer[8];
        std::swprintf(buffer, 8, c <= 0xFF ? L"\\x%02X" : L"\\u%04X", static_cast<unsigned>(c));
        out += buffer;
    }
    return out;
}

#ifdef _WIN32

namespace {
// Unicode simple case mapping in the invariant locale, whatever the thread's.
std::wstring MapCase(std::wstring_view text, DWORD flag) {
    if (text.empty()) return std::wstring();
    const int size = static_cast<int>(text.size());
    std::wstring out(text.size(), L'\0');
    const int written = ::LCMapStringEx(LOCALE_NAME_INVARIANT, flag, text.data(), size, out.data(), size, nullptr,
                                        nullptr, 0);
    if (written <= 0) return std::wstring(text);
    out.resize(static_cast<std::size_t>(written));
    return out;
}
}  // namespace

std::wstring Lower(std::wstring_view text) { return MapCase(text, LCMAP_LOWERCASE); }
std::wstring Upper(std::wstring_view text) { return MapCase(text, LCMAP_UPPERCASE); }

bool EqualsIgnoreCase(std::wstring_view a, std::wstring_view b) {
    return a.size() == b.size() && Lower(a) == Lower(b);
}

#else

namespace {

// A UTF-8 character-class locale of its own, made once: the mapping must not
// depend on the process's global locale, which is "C" (ASCII only) unless the
// host changes it. Null when the system has none; ASCII mapping then.
locale_t CaseLocale() {
    static const locale_t locale = [] {
        for (const char* name : {"C.UTF-8", "C.utf8", "en_US.UTF-8"}) {
            if (const locale_t made = ::newlocale(LC_CTYPE_MASK, name, static_cast<locale_t>(nullptr))) return made;
        }
        return static_cast<locale_t>(nullptr);
    }();
    return locale;
}

wchar_t LowerOne(wchar_t c, locale_t locale) {
    if (locale == nullptr) return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c;
    return static_cast<wchar_t>(::towlower_l(static_cast<wint_t>(c), locale));
}

wchar_t UpperOne(wchar_t c, locale_t locale) {
    if (locale == nullptr) return c >= L'a' && c <= L'z' ? static_cast<wchar_t>(c - L'a' + L'A') : c;
    return static_cast<wchar_t>(::towupper_l(static_cast<wint_t>(c), locale));
}

}  // namespace

std::wstring Lower(std::wstring_view text) {
    const locale_t locale = CaseLocale();
    std::wstring out(text);
    for (auto& c : out) c = LowerOne(c, locale);
    return out;
}

std::wstring Upper(std::wstring_view text) {
    const locale_t locale = CaseLocale();
    std::wstring out(text);
    for (auto& c : out) c = UpperOne(c, locale);
    return out;
}

bool EqualsIgnoreCase(std::wstring_view a, std::wstring_view b) {
    if (a.size() != b.size()) return false;
    const locale_t locale = CaseLocale();
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (LowerOne(a[i], locale) != LowerOne(b[i], locale)) return false;
    }
    return true;
}

#endif

}  // namespace zep::text
