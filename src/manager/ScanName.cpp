#include "manager/ScanName.h"

#include <array>
#include <cstddef>
#include <cwchar>

#include "platform/util/Strings.h"

namespace zep::manager {
namespace {

constexpr std::size_t kMaxNameUnits = 255;

bool IsControl(wchar_t c) { return c < 0x20 || (c >= 0x7F && c <= 0x9F); }

bool IsLoneSurrogate(const std::wstring& name, std::size_t i) {
    const auto unit = static_cast<char32_t>(name[i]);
    if (unit < 0xD800 || unit > 0xDFFF) return false;
    if constexpr (sizeof(wchar_t) == 2) {
        const auto next = i + 1 < name.size() ? static_cast<char32_t>(name[i + 1]) : 0;
        const auto previous = i > 0 ? static_cast<char32_t>(name[i - 1]) : 0;
        if (unit <= 0xDBFF) return !(next >= 0xDC00 && next <= 0xDFFF);
        return !(previous >= 0xD800 && previous <= 0xDBFF);
    }
    return true;  // 32-bit wide characters hold whole code points, never halves
}

bool HasBadCharacter(const std::wstring& name, bool (*forbidden)(wchar_t)) {
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (IsControl(name[i]) || forbidden(name[i]) || IsLoneSurrogate(name, i)) return true;
    }
    return false;
}

bool IsPosixForbidden(wchar_t c) { return c == L'/'; }

bool IsWindowsForbidden(wchar_t c) {
    switch (c) {
        case L'<': case L'>': case L':': case L'"': case L'/': case L'\\': case L'|': case L'?': case L'*':
            return true;
        default:
            return false;
    }
}

std::size_t Utf16Units(const std::wstring& name) {
#if WCHAR_MAX > 0xFFFF
    std::size_t units = 0;
    for (const wchar_t c : name) units += static_cast<char32_t>(c) > 0xFFFF ? 2 : 1;
    return units;
#else
    return name.size();  // wide strings are UTF-16 already
#endif
}

// Windows opens the device whatever extension follows its name, and takes
// the superscript digits for COM and LPT ports too.
bool IsWindowsDeviceName(const std::wstring& name) {
    std::wstring stem = text::Upper(name.substr(0, name.find(L'.')));
    while (!stem.empty() && stem.back() == L' ') stem.pop_back();
    static const std::array<const wchar_t*, 6> kPlain = {L"CON", L"PRN", L"AUX", L"NUL", L"CONIN$", L"CONOUT$"};
    for (const auto* device : kPlain) {
        if (stem == device) return true;
    }
    if (stem.size() != 4 || (stem.compare(0, 3, L"COM") != 0 && stem.compare(0, 3, L"LPT") != 0)) return false;
    const wchar_t digit = stem[3];
    return (digit >= L'0' && digit <= L'9') || digit == L'\u00B9' || digit == L'\u00B2' || digit == L'\u00B3';
}

}  // namespace

bool IsOneFileName(const std::wstring& name, NameRules rules) {
    if (name.empty() || name == L"." || name == L"..") return false;
    if (rules == NameRules::Posix) {
        return !HasBadCharacter(name, IsPosixForbidden) && text::ToUtf8(name).size() <= kMaxNameUnits;
    }
    if (HasBadCharacter(name, IsWindowsForbidden) || Utf16Units(name) > kMaxNameUnits) return false;
    if (name.back() == L'.' || name.back() == L' ') return false;
    return !IsWindowsDeviceName(name);
}

}  // namespace zep::manager
