#include "artifacts/ZipNames.h"

#include <cstddef>

namespace zep::artifacts {
namespace {

bool IsBlank(wchar_t c) { return c == L' ' || c == L'\t'; }

bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

// Characters that Windows refuses in a file name, or that would end a quoted
// PowerShell argument.
bool IsForbidden(wchar_t c) {
    if (c < L' ') return true;
    switch (c) {
        case L'"': case L'*': case L'/': case L':': case L'<':
        case L'>': case L'?': case L'\\': case L'|':
            return true;
        default:
            return false;
    }
}

// PowerShell ends a single-quoted string at the typographic single quotes
// too, so they need the same doubling as the plain one.
bool IsPowerShellSingleQuote(wchar_t c) {
    return c == L'\'' || c == L'\u2018' || c == L'\u2019' || c == L'\u201A' || c == L'\u201B';
}

constexpr std::size_t kMaxZipFolderNameBytes = 200;

// The longest prefix, cut between characters, whose UTF-8 form fits.
std::wstring CutToUtf8Bytes(const std::wstring& text, std::size_t maxBytes) {
    std::size_t bytes = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        auto cp = static_cast<char32_t>(text[i]);
        std::size_t units = 1;
        if (sizeof(wchar_t) == 2 && cp >= 0xD800 && cp <= 0xDBFF && i + 1 < text.size() &&
            static_cast<char32_t>(text[i + 1]) >= 0xDC00 && static_cast<char32_t>(text[i + 1]) <= 0xDFFF) {
            cp = 0x10000;
            units = 2;
        }
        bytes += cp < 0x80 ? 1 : cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
        if (bytes > maxBytes) break;
        i += units;
    }
    return text.substr(0, i);
}

}  // namespace

std::wstring ZipFolderName(const std::wstring& logicalDeviceId, const std::wstring& scanName) {
    std::wstring joined = logicalDeviceId + L"_" + scanName;
    for (auto& c : joined) {
        if (IsSeparator(c)) c = L'_';
    }
    // Cut before and after: the cut may end in a dot or blank.
    const std::wstring name =
        SanitizeZipFileName(CutToUtf8Bytes(SanitizeZipFileName(joined), kMaxZipFolderNameBytes));
    return name.empty() ? std::wstring(L"_") : name;
}

std::wstring TrimTrailingSeparators(const std::wstring& path) {
    std::size_t end = path.size();
    while (end > 0 && IsSeparator(path[end - 1])) --end;
    return path.substr(0, end);
}

std::wstring SanitizeZipFileName(const std::wstring& name) {
    std::size_t begin = 0;
    std::size_t end = name.size();
    while (begin < end && IsBlank(name[begin])) ++begin;
    while (end > begin && IsBlank(name[end - 1])) --end;
    std::wstring result = name.substr(begin, end - begin);

    // Only the last component: a caller cannot place the archive elsewhere.
    if (!result.empty()) {
        const std::size_t last = result.find_last_of(L"\\/");
        if (last != std::wstring::npos) result.erase(0, last + 1);
    }

    for (auto& c : result) {
        if (IsForbidden(c)) c = L'_';
    }
    if (result.empty()) return result;

    // Windows drops trailing blanks and dots from a file name itself; doing it
    // here keeps the name we check equal to the file that appears.
    end = result.size();
    while (end > 0 && (result[end - 1] == L' ' || result[end - 1] == L'.')) --end;
    result.resize(end);
    return result;
}

std::wstring EscapeSingleQuotes(const std::wstring& text) {
    std::wstring escaped;
    escaped.reserve(text.size());
    for (const wchar_t c : text) {
        escaped.push_back(c);
        if (IsPowerShellSingleQuote(c)) escaped.push_back(c);
    }
    return escaped;
}

}  // namespace zep::artifacts
