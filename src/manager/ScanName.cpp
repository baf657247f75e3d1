#include "manager/ScanName.h"

#include <array>
#include <cstdio>

#include "platform/util/Strings.h"

namespace zep::manager {
namespace {

bool IsControl(wchar_t c) { return c < 0x20 || c == 0x7F; }

bool IsForbidden(wchar_t c) {
    switch (c) {
        case L'/': case L'\\': case L':': case L'*': case L'?': case L'"': case L'<': case L'>': case L'|':
            return true;
        default:
            return IsControl(c);
    }
}

bool IsDeviceName(const std::wstring& name) {
    const std::wstring stem = text::Upper(name.substr(0, name.find(L'.')));
    static const std::array<const wchar_t*, 4> kPlain = {L"CON", L"PRN", L"AUX", L"NUL"};
    for (const auto* device : kPlain) {
        if (stem == device) return true;
    }
    return stem.size() == 4 && (stem.compare(0, 3, L"COM") == 0 || stem.compare(0, 3, L"LPT") == 0) &&
           stem[3] >= L'1' && stem[3] <= L'9';
}

}  // namespace

bool IsSafeScanName(const std::wstring& name) {
    if (name.empty() || name.size() > kMaxScanNameLength) return false;
    if (name == L"." || name == L"..") return false;
    for (wchar_t c : name) {
        if (IsForbidden(c)) return false;
    }
    if (name.back() == L'.' || name.back() == L' ') return false;
    return !IsDeviceName(name);
}

std::wstring EscapeForLog(const std::wstring& text) {
    std::wstring out;
    out.reserve(text.size());
    for (wchar_t c : text) {
        if (IsControl(c)) {
            wchar_t buffer[8];
            std::swprintf(buffer, 8, L"\\x%02X", static_cast<unsigned>(c));
            out += buffer;
        } else {
            out.push_back(c);
        }
    }
    return out;
}

}  // namespace zep::manager
