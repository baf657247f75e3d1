#include "platform/util/Strings.h"

#include <cwctype>
#include <iterator>

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

}  // namespace

std::string ToUtf8(std::wstring_view wide) {
    std::string out;
    out.reserve(wide.size());
    DecodeWide(wide, [&](char32_t cp) { AppendUtf8(out, cp); });
    return out;
}

std::wstring FromUtf8(std::string_view utf8) {
    std::wstring out;
    out.reserve(utf8.size());
    DecodeUtf8(utf8, [&](char32_t cp) { AppendWide(out, cp); }, [&](unsigned char) { AppendWide(out, kReplacement); });
    return out;
}

std::wstring DecodeFileName(std::string_view bytes) {
    std::wstring out;
    out.reserve(bytes.size());
    DecodeUtf8(bytes, [&](char32_t cp) { AppendWide(out, cp); },
               [&](unsigned char byte) { out.push_back(static_cast<wchar_t>(0xDC00 + byte)); });
    return out;
}

std::string EncodeFileName(std::wstring_view name) {
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

std::wstring Lower(std::wstring_view text) {
    std::wstring out(text);
    for (auto& c : out) c = static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(c)));
    return out;
}

std::wstring Upper(std::wstring_view text) {
    std::wstring out(text);
    for (auto& c : out) c = static_cast<wchar_t>(std::towupper(static_cast<std::wint_t>(c)));
    return out;
}

bool EqualsIgnoreCase(std::wstring_view a, std::wstring_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::towlower(static_cast<std::wint_t>(a[i])) != std::towlower(static_cast<std::wint_t>(b[i]))) return false;
    }
    return true;
}

}  // namespace zep::text
