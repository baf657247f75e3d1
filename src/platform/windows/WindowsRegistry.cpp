#include "platform/windows/Win32.h"

#include "platform/windows/WindowsRegistry.h"

#include <algorithm>
#include <utility>

#include "platform/util/Strings.h"

namespace zep::platform {
namespace {

// Keys may nest 512 deep; an export goes no deeper than this.
constexpr int kMaxDepth = 64;
// A REG_SZ that keeps growing between the size query and the read is given
// up on after a few rounds.
constexpr int kReadAttempts = 4;

HKEY Root(Hive hive) { return hive == Hive::Users ? HKEY_USERS : HKEY_LOCAL_MACHINE; }

// Without its backslashes at either end, as the registry's own paths are.
std::wstring Trimmed(const std::wstring& key) {
    const std::size_t first = key.find_first_not_of(L'\\');
    if (first == std::wstring::npos) return std::wstring();
    return key.substr(first, key.find_last_not_of(L'\\') + 1 - first);
}

class Key {
public:
    Key(HKEY parent, const std::wstring& path) {
        if (::RegOpenKeyExW(parent, path.c_str(), 0, KEY_READ | KEY_WOW64_64KEY, &key_) != ERROR_SUCCESS) {
            key_ = nullptr;
        }
    }
    ~Key() {
        if (key_ != nullptr) ::RegCloseKey(key_);
    }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    bool Open() const { return key_ != nullptr; }
    HKEY Get() const { return key_; }

private:
    HKEY key_ = nullptr;
};

std::vector<std::pair<std::wstring, RegistryValue>> ValuesOf(HKEY key, DWORD count, DWORD maxName, DWORD maxData) {
    std::vector<std::pair<std::wstring, RegistryValue>> values;
    std::wstring name(maxName + 1, L'\0');
    std::vector<BYTE> data(maxData + sizeof(wchar_t));
    for (DWORD i = 0; i < count; ++i) {
        DWORD nameLength = static_cast<DWORD>(name.size());
        DWORD type = 0;
        DWORD size = static_cast<DWORD>(data.size());
        if (::RegEnumValueW(key, i, name.data(), &nameLength, nullptr, &type, data.data(), &size) != ERROR_SUCCESS) {
            continue;  // changed since it was counted
        }
        std::wstring valueName(name.data(), nameLength);
        if (type == REG_DWORD && size == sizeof(DWORD)) {
            DWORD number = 0;
            std::copy(data.begin(), data.begin() + sizeof number, reinterpret_cast<BYTE*>(&number));
            values.emplace_back(std::move(valueName), number);
        } else if (type == REG_SZ) {
            std::wstring text(size / sizeof(wchar_t), L'\0');
            std::copy(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(text.size() * sizeof(wchar_t)),
                      reinterpret_cast<BYTE*>(text.data()));
            // Stored with its terminating NUL, or (written carelessly) without.
            if (const auto end = text.find(L'\0'); end != std::wstring::npos) text.resize(end);
            values.emplace_back(std::move(valueName), std::move(text));
        }
    }
    return values;
}

// The key, then each sub-key in upper-case name order, depth first: parents
// before children, as the registry editor exports them.
void Collect(HKEY parent, const std::wstring& relative, const std::wstring& path, int depth,
             std::vector<RegistryKeyData>& out) {
    const Key key(parent, relative);
    if (!key.Open()) return;
    DWORD subKeys = 0, maxSubKey = 0, values = 0, maxValueName = 0, maxValueData = 0;
    if (::RegQueryInfoKeyW(key.Get(), nullptr, nullptr, nullptr, &subKeys, &maxSubKey, nullptr, &values,
                           &maxValueName, &maxValueData, nullptr, nullptr) != ERROR_SUCCESS) {
        return;
    }
    out.push_back(RegistryKeyData{path, ValuesOf(key.Get(), values, maxValueName, maxValueData)});
    if (depth >= kMaxDepth) return;

    std::vector<std::wstring> names;
    std::wstring name(maxSubKey + 1, L'\0');
    for (DWORD i = 0; i < subKeys; ++i) {
        DWORD length = static_cast<DWORD>(name.size());
        if (::RegEnumKeyExW(key.Get(), i, name.data(), &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS) {
            names.emplace_back(name.data(), length);
        }
    }
    std::sort(names.begin(), names.end(),
              [](const std::wstring& a, const std::wstring& b) { return text::Upper(a) < text::Upper(b); });
    for (const auto& child : names) {
        Collect(key.Get(), child, path.empty() ? child : path + L'\\' + child, depth + 1, out);
    }
}

}  // namespace

bool WindowsRegistry::KeyExists(Hive hive, const std::wstring& key) {
    return Key(Root(hive), Trimmed(key)).Open();
}

bool WindowsRegistry::GetDword(Hive hive, const std::wstring& key, const std::wstring& name, DWORD& value) {
    DWORD number = 0;
    DWORD size = sizeof number;
    if (::RegGetValueW(Root(hive), Trimmed(key).c_str(), name.c_str(), RRF_RT_REG_DWORD | RRF_SUBKEY_WOW6464KEY,
                       nullptr, &number, &size) != ERROR_SUCCESS) {
        return false;
    }
    value = number;
    return true;
}

bool WindowsRegistry::GetString(Hive hive, const std::wstring& key, const std::wstring& name, std::wstring& value) {
    const std::wstring path = Trimmed(key);
    constexpr DWORD kFlags = RRF_RT_REG_SZ | RRF_SUBKEY_WOW6464KEY;
    for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
        DWORD size = 0;
        if (::RegGetValueW(Root(hive), path.c_str(), name.c_str(), kFlags, nullptr, nullptr, &size) != ERROR_SUCCESS) {
            return false;
        }
        std::wstring text(size / sizeof(wchar_t) + 1, L'\0');
        size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
        const LSTATUS read = ::RegGetValueW(Root(hive), path.c_str(), name.c_str(), kFlags, nullptr, text.data(), &size);
        if (read == ERROR_MORE_DATA) continue;
        if (read != ERROR_SUCCESS) return false;
        // RegGetValueW ends the text with a NUL, counted in `size`.
        text.resize(size / sizeof(wchar_t));
        if (const auto end = text.find(L'\0'); end != std::wstring::npos) text.resize(end);
        value = std::move(text);
        return true;
    }
    return false;
}

std::vector<RegistryKeyData> WindowsRegistry::Snapshot(Hive hive, const std::wstring& key) {
    std::vector<RegistryKeyData> out;
    try {
        const std::wstring path = Trimmed(key);
        Collect(Root(hive), path, path, 0, out);
    } catch (...) {
        out.clear();
    }
    return out;
}

}  // namespace zep::platform
