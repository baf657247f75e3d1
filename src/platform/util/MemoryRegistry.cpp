#include "platform/util/MemoryRegistry.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/util/Strings.h"

namespace zep::platform {
namespace {

constexpr std::wstring_view kHeader = L"Windows Registry Editor Version 5.00";
constexpr std::wstring_view kHeaderV4 = L"REGEDIT4";
constexpr bool kWideIsUtf16 = sizeof(wchar_t) == 2;

// Splits a key path into its names. Empty names are dropped, which also
// tolerates leading, trailing and doubled backslashes from callers.
std::vector<std::wstring> SplitPath(std::wstring_view path) {
    std::vector<std::wstring> names;
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = path.find(L'\\', start);
        if (end == std::wstring_view::npos) end = path.size();
        if (end > start) names.emplace_back(path.substr(start, end - start));
        start = end + 1;
    }
    return names;
}

std::wstring JoinPath(const std::vector<std::wstring>& names, std::size_t count) {
    std::wstring out;
    for (std::size_t i = 0; i < count; ++i) {
        if (i > 0) out.push_back(L'\\');
        out += names[i];
    }
    return out;
}

std::wstring NormalizePath(std::wstring_view path) {
    const auto names = SplitPath(path);
    return JoinPath(names, names.size());
}

template <typename Values>
auto FindValue(Values& values, const std::wstring& name) {
    return std::find_if(values.begin(), values.end(),
                        [&](const auto& entry) { return text::EqualsIgnoreCase(entry.first, name); });
}

std::wstring_view HiveName(Hive hive) {
    return hive == Hive::LocalMachine ? L"HKEY_LOCAL_MACHINE" : L"HKEY_USERS";
}

// ---- Reading the editor's format ---------------------------------------

bool IsBlank(wchar_t c) { return c == L' ' || c == L'\t'; }

std::wstring_view Trim(std::wstring_view s) {
    while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && (IsBlank(s.back()) || s.back() == L'\r')) s.remove_suffix(1);
    return s;
}

bool StartsWithIgnoreCase(std::wstring_view s, std::wstring_view prefix) {
    return s.size() >= prefix.size() && text::EqualsIgnoreCase(s.substr(0, prefix.size()), prefix);
}

void SkipBlanks(std::wstring_view s, std::size_t& pos) {
    while (pos < s.size() && IsBlank(s[pos])) ++pos;
}

// Reads a quoted string starting at s[pos] == '"'. The editor escapes only
// backslash and double quote; any other backslash is kept as written, which is
// what a hand-edited file with "C:\Temp" means.
bool ReadQuoted(std::wstring_view s, std::size_t& pos, std::wstring& out) {
    if (pos >= s.size() || s[pos] != L'"') return false;
    ++pos;
    out.clear();
    while (pos < s.size()) {
        const wchar_t c = s[pos];
        if (c == L'"') {
            ++pos;
            return true;
        }
        if (c == L'\\' && pos + 1 < s.size() && (s[pos + 1] == L'\\' || s[pos + 1] == L'"')) {
            out.push_back(s[pos + 1]);
            pos += 2;
            continue;
        }
        out.push_back(c);
        ++pos;
    }
    return false;
}

int HexDigit(wchar_t c) {
    if (c >= L'0' && c <= L'9') return c - L'0';
    if (c >= L'a' && c <= L'f') return c - L'a' + 10;
    if (c >= L'A' && c <= L'F') return c - L'A' + 10;
    return -1;
}

// The editor writes exactly eight digits; fewer are accepted from hand-edited
// files, more could not fit a DWORD.
bool ParseDword(std::wstring_view digits, DWORD& value) {
    if (digits.empty() || digits.size() > 8) return false;
    DWORD result = 0;
    for (const wchar_t c : digits) {
        const int d = HexDigit(c);
        if (d < 0) return false;
        result = (result << 4) | static_cast<DWORD>(d);
    }
    value = result;
    return true;
}

bool ParseHive(std::wstring_view root, Hive& hive) {
    if (text::EqualsIgnoreCase(root, L"HKEY_LOCAL_MACHINE") || text::EqualsIgnoreCase(root, L"HKLM")) {
        hive = Hive::LocalMachine;
        return true;
    }
    if (text::EqualsIgnoreCase(root, L"HKEY_USERS") || text::EqualsIgnoreCase(root, L"HKU")) {
        hive = Hive::Users;
        return true;
    }
    return false;
}

struct Section {
    bool active = false;  // false before the first section and under skipped ones
    Hive hive = Hive::LocalMachine;
    std::wstring key;
};

// Handles one "[...]" line; false when the section is not one we keep.
bool ReadSection(MemoryRegistry& registry, std::wstring_view line, Section& section) {
    section.active = false;
    if (line.size() < 2 || line.back() != L']') return false;
    // Blanks inside the brackets belong to the key's names (a name may end in
    // one); only the hive's name is read without them.
    const std::wstring_view inner = line.substr(1, line.size() - 2);
    // Key deletions are not needed for a device's own registry file.
    if (Trim(inner).empty() || Trim(inner).front() == L'-') return false;
    const std::size_t slash = inner.find(L'\\');
    const std::wstring_view root = Trim(slash == std::wstring_view::npos ? inner : inner.substr(0, slash));
    Hive hive{};
    if (!ParseHive(root, hive)) return false;
    section.hive = hive;
    section.key = slash == std::wstring_view::npos ? std::wstring() : NormalizePath(inner.substr(slash + 1));
    section.active = true;
    registry.CreateKey(section.hive, section.key);
    return true;
}

// Handles one `"name"=data` or `@=data` line; false when it was not applied.
bool ReadValue(MemoryRegistry& registry, std::wstring_view line, const Section& section) {
    if (!section.active) return false;
    std::size_t pos = 0;
    std::wstring name;
    if (line.front() == L'@') {
        pos = 1;
    } else if (!ReadQuoted(line, pos, name)) {
        return false;
    }
    SkipBlanks(line, pos);
    if (pos >= line.size() || line[pos] != L'=') return false;
    ++pos;
    SkipBlanks(line, pos);
    const std::wstring_view data = line.substr(pos);

    if (!data.empty() && data.front() == L'"') {
        std::wstring value;
        if (!ReadQuoted(line, pos, value) || pos != line.size()) return false;
        registry.SetString(section.hive, section.key, name, value);
        return true;
    }
    if (data == L"-") {
        registry.DeleteValue(section.hive, section.key, name);
        return true;
    }
    constexpr std::wstring_view kDword = L"dword:";
    DWORD value = 0;
    if (StartsWithIgnoreCase(data, kDword) && ParseDword(data.substr(kDword.size()), value)) {
        registry.SetDword(section.hive, section.key, name, value);
        return true;
    }
    // hex(...) types and anything else.
    return false;
}

// The editor wraps long binary values, ending each line but the last with a
// backslash; no string or dword line can end that way.
bool IsWrappedValue(std::wstring_view line) { return !line.empty() && line.back() == L'\\'; }

std::vector<std::wstring_view> SplitLines(std::wstring_view s) {
    std::vector<std::wstring_view> lines;
    std::size_t start = 0;
    while (start < s.size()) {
        std::size_t end = s.find(L'\n', start);
        if (end == std::wstring_view::npos) end = s.size();
        lines.push_back(s.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

// ---- Writing the editor's format ---------------------------------------

void AppendQuoted(std::wstring& out, const std::wstring& s) {
    out.push_back(L'"');
    for (const wchar_t c : s) {
        if (c == L'\\' || c == L'"') out.push_back(L'\\');
        out.push_back(c);
    }
    out.push_back(L'"');
}

void AppendDword(std::wstring& out, DWORD value) {
    constexpr wchar_t kDigits[] = L"0123456789abcdef";
    out += L"dword:";
    for (int shift = 28; shift >= 0; shift -= 4) out.push_back(kDigits[(value >> shift) & 0xFu]);
}

void AppendUnit(std::string& out, char32_t unit) {
    out.push_back(static_cast<char>(unit & 0xFFu));
    out.push_back(static_cast<char>((unit >> 8) & 0xFFu));
}

// Decodes UTF-16LE code units into a wide string; lone surrogates become
// U+FFFD as everywhere else in the module.
std::wstring DecodeUtf16Le(std::string_view bytes) {
    std::vector<char32_t> units;
    units.reserve(bytes.size() / 2);
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        units.push_back(static_cast<char32_t>(static_cast<unsigned char>(bytes[i])) |
                        (static_cast<char32_t>(static_cast<unsigned char>(bytes[i + 1])) << 8));
    }
    std::wstring out;
    out.reserve(units.size());
    for (std::size_t i = 0; i < units.size(); ++i) {
        const char32_t u = units[i];
        if (u >= 0xD800 && u <= 0xDBFF && i + 1 < units.size() && units[i + 1] >= 0xDC00 &&
            units[i + 1] <= 0xDFFF) {
            if constexpr (kWideIsUtf16) {
                out.push_back(static_cast<wchar_t>(u));
                out.push_back(static_cast<wchar_t>(units[i + 1]));
            } else {
                out.push_back(static_cast<wchar_t>(0x10000 + ((u - 0xD800) << 10) + (units[i + 1] - 0xDC00)));
            }
            ++i;
        } else if (u >= 0xD800 && u <= 0xDFFF) {
            out.push_back(static_cast<wchar_t>(0xFFFD));
        } else {
            out.push_back(static_cast<wchar_t>(u));
        }
    }
    return out;
}

// Orders keys as the editor exports them: depth first, siblings compared by
// their upper-cased names, which is how the registry itself sorts sub-keys.
bool ExportOrder(const std::vector<std::wstring>& a, const std::vector<std::wstring>& b) {
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end());
}

}  // namespace

// ---- MemoryRegistry -----------------------------------------------------

std::wstring MemoryRegistry::Fold(Hive hive, const std::wstring& key) {
    std::wstring folded = hive == Hive::LocalMachine ? L"HKLM\\" : L"HKU\\";
    folded += text::Lower(NormalizePath(key));
    return folded;
}

MemoryRegistry::Key& MemoryRegistry::Ensure(Hive hive, const std::wstring& key) {
    const auto names = SplitPath(key);
    if (names.empty()) {
        // Values set on the hive itself.
        auto& root = keys_[Fold(hive, std::wstring())];
        return root;
    }
    // Each missing level is spelled as the caller wrote it, below the
    // spelling its existing parent already has.
    std::wstring parentPath;
    Key* current = nullptr;
    for (std::size_t depth = 1; depth <= names.size(); ++depth) {
        const auto [it, inserted] = keys_.try_emplace(Fold(hive, JoinPath(names, depth)));
        if (inserted) {
            it->second.path = depth == 1 ? names[0] : parentPath + L'\\' + names[depth - 1];
        }
        parentPath = it->second.path;
        current = &it->second;
    }
    return *current;
}

bool MemoryRegistry::KeyExists(Hive hive, const std::wstring& key) {
    if (SplitPath(key).empty()) return true;  // the hive itself
    std::lock_guard<std::mutex> lock(mutex_);
    return keys_.count(Fold(hive, key)) != 0;
}

bool MemoryRegistry::GetDword(Hive hive, const std::wstring& key, const std::wstring& name, DWORD& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = keys_.find(Fold(hive, key));
    if (it == keys_.end()) return false;
    const auto found = FindValue(it->second.values, name);
    if (found == it->second.values.end()) return false;
    const auto* dword = std::get_if<DWORD>(&found->second);
    if (dword == nullptr) return false;
    value = *dword;
    return true;
}

bool MemoryRegistry::GetString(Hive hive, const std::wstring& key, const std::wstring& name,
                               std::wstring& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = keys_.find(Fold(hive, key));
    if (it == keys_.end()) return false;
    const auto found = FindValue(it->second.values, name);
    if (found == it->second.values.end()) return false;
    const auto* str = std::get_if<std::wstring>(&found->second);
    if (str == nullptr) return false;
    value = *str;
    return true;
}

void MemoryRegistry::CreateKey(Hive hive, const std::wstring& key) {
    // The hive itself always exists and holds no entry until a value is set on it.
    if (SplitPath(key).empty()) return;
    std::lock_guard<std::mutex> lock(mutex_);
    Ensure(hive, key);
}

void MemoryRegistry::SetDword(Hive hive, const std::wstring& key, const std::wstring& name, DWORD value) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto& values = Ensure(hive, key).values;
    const auto found = FindValue(values, name);
    if (found != values.end()) {
        found->second = value;
    } else {
        values.emplace_back(name, value);
    }
}

void MemoryRegistry::SetString(Hive hive, const std::wstring& key, const std::wstring& name,
                               const std::wstring& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto& values = Ensure(hive, key).values;
    const auto found = FindValue(values, name);
    if (found != values.end()) {
        found->second = value;
    } else {
        values.emplace_back(name, value);
    }
}

bool MemoryRegistry::DeleteValue(Hive hive, const std::wstring& key, const std::wstring& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = keys_.find(Fold(hive, key));
    if (it == keys_.end()) return false;
    auto& values = it->second.values;
    const auto found = FindValue(values, name);
    if (found == values.end()) return false;
    values.erase(found);
    return true;
}

void MemoryRegistry::Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    keys_.clear();
}

std::vector<RegistryKeyData> MemoryRegistry::Snapshot(Hive hive, const std::wstring& key) {
    const bool wholeHive = SplitPath(key).empty();
    const std::wstring folded = Fold(hive, key);
    // Below the hive every entry of the hive matches; below a key only paths
    // that continue with a backslash do (so "ZEP" does not take "ZEPX").
    const std::wstring prefix = wholeHive ? folded : folded + L'\\';

    std::vector<std::pair<std::vector<std::wstring>, RegistryKeyData>> found;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto self = keys_.find(folded);
        if (!wholeHive && self == keys_.end()) return {};
        const auto add = [&](const Key& entry) {
            std::vector<std::wstring> order;
            for (const auto& part : SplitPath(entry.path)) order.push_back(text::Upper(part));
            found.emplace_back(std::move(order), RegistryKeyData{entry.path, entry.values});
        };
        if (self != keys_.end()) add(self->second);
        // Search from the prefix, not from the key: in the map "zep tools"
        // sorts between "zep" and its children.
        for (auto it = keys_.lower_bound(prefix); it != keys_.end(); ++it) {
            if (it->first.compare(0, prefix.size(), prefix) != 0) break;
            if (it->first != folded) add(it->second);
        }
    }
    std::stable_sort(found.begin(), found.end(),
                     [](const auto& a, const auto& b) { return ExportOrder(a.first, b.first); });
    std::vector<RegistryKeyData> out;
    out.reserve(found.size());
    for (auto& entry : found) out.push_back(std::move(entry.second));
    return out;
}

// ---- The editor's format ------------------------------------------------

void LoadRegText(MemoryRegistry& registry, const std::wstring& text, int* skippedLines) {
    int skipped = 0;
    Section section;
    const auto lines = SplitLines(text);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        std::wstring_view raw = lines[i];
        if (i == 0 && !raw.empty() && raw.front() == L'\xFEFF') raw.remove_prefix(1);
        std::wstring_view line = Trim(raw);
        if (line.empty() || line.front() == L';') continue;
        if (line == kHeader || line == kHeaderV4) continue;

        if (line.front() == L'[') {
            if (!ReadSection(registry, line, section)) ++skipped;
            continue;
        }
        if (line.front() == L'"' || line.front() == L'@') {
            if (IsWrappedValue(line)) {
                // Binary values are not kept; the wrapped lines count once.
                while (i + 1 < lines.size() && !Trim(lines[i]).empty() && Trim(lines[i]).back() == L'\\') ++i;
                ++skipped;
                continue;
            }
            if (!ReadValue(registry, line, section)) ++skipped;
            continue;
        }
        ++skipped;
    }
    // Added, not assigned: a caller may load several files into one count.
    if (skippedLines != nullptr) *skippedLines += skipped;
}

std::wstring DecodeRegFile(const std::string& bytes) {
    const std::string_view view(bytes);
    if (view.size() >= 2 && static_cast<unsigned char>(view[0]) == 0xFF &&
        static_cast<unsigned char>(view[1]) == 0xFE) {
        return DecodeUtf16Le(view.substr(2));
    }
    if (view.size() >= 3 && static_cast<unsigned char>(view[0]) == 0xEF &&
        static_cast<unsigned char>(view[1]) == 0xBB && static_cast<unsigned char>(view[2]) == 0xBF) {
        return text::FromUtf8(view.substr(3));
    }
    return text::FromUtf8(view);
}

std::wstring RenderRegText(Hive hive, const std::vector<RegistryKeyData>& keys) {
    std::wstring out(kHeader);
    out += L"\r\n\r\n";
    for (const auto& key : keys) {
        out.push_back(L'[');
        out += HiveName(hive);
        if (!key.path.empty()) {
            out.push_back(L'\\');
            out += key.path;
        }
        out += L"]\r\n";
        for (const auto& [name, value] : key.values) {
            if (name.empty()) {
                out.push_back(L'@');
            } else {
                AppendQuoted(out, name);
            }
            out.push_back(L'=');
            if (const auto* dword = std::get_if<DWORD>(&value)) {
                AppendDword(out, *dword);
            } else {
                AppendQuoted(out, std::get<std::wstring>(value));
            }
            out += L"\r\n";
        }
        out += L"\r\n";
    }
    return out;
}

std::string EncodeUtf16LeWithBom(const std::wstring& text) {
    std::string out;
    out.reserve(2 + text.size() * 2);
    out.push_back(static_cast<char>(0xFF));
    out.push_back(static_cast<char>(0xFE));
    for (std::size_t i = 0; i < text.size(); ++i) {
        auto cp = static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(text[i]));
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < text.size()) {
            // Only reachable with 16-bit wchar_t in practice: a pair stays a pair.
            const auto low = static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(text[i + 1]));
            if (low >= 0xDC00 && low <= 0xDFFF) {
                AppendUnit(out, cp);
                AppendUnit(out, low);
                ++i;
                continue;
            }
        }
        if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) cp = 0xFFFD;
        if (cp > 0xFFFF) {
            cp -= 0x10000;
            AppendUnit(out, 0xD800 + (cp >> 10));
            AppendUnit(out, 0xDC00 + (cp & 0x3FF));
        } else {
            AppendUnit(out, cp);
        }
    }
    return out;
}

}  // namespace zep::platform
