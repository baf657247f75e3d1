// Read access to the registry. Key paths use backslashes on every system
// (they are registry paths, not file paths) and are matched without regard to
// letter case, as the Windows registry does. Thread-safe; never throws.
#pragma once

#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/agent/WinTypes.h"

namespace zep::platform {

enum class Hive { LocalMachine, Users };

// One value: a REG_DWORD or a REG_SZ.
using RegistryValue = std::variant<DWORD, std::wstring>;

// One key with its values, as an export lists it.
struct RegistryKeyData {
    std::wstring path;                                           // full key path as first written
    std::vector<std::pair<std::wstring, RegistryValue>> values;  // in the order written
};

class RegistryEnv {
public:
    virtual ~RegistryEnv() = default;

    // True when the key exists.
    virtual bool KeyExists(Hive hive, const std::wstring& key) = 0;
    // Reads a REG_DWORD value. False when the key or value is missing or the
    // value has another type; `value` is then unchanged.
    virtual bool GetDword(Hive hive, const std::wstring& key, const std::wstring& name, DWORD& value) = 0;
    // Reads a REG_SZ value, with the same failure rules as GetDword.
    virtual bool GetString(Hive hive, const std::wstring& key, const std::wstring& name,
                           std::wstring& value) = 0;
    // The key and all keys below it with their values, parents before
    // children, siblings in case-insensitive order of their names (the order
    // of the registry editor's export). Empty when the key does not exist.
    virtual std::vector<RegistryKeyData> Snapshot(Hive hive, const std::wstring& key) = 0;
};

}  // namespace zep::platform
