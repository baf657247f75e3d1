// Read access to the registry. Key paths use backslashes on every system
// (they are registry paths, not file paths) and are matched without regard to
// letter case, as the Windows registry does. Thread-safe; never throws.
#pragma once

#include <string>

#include "platform/WinTypes.h"

namespace zep::platform {

enum class Hive { LocalMachine, Users };

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
};

}  // namespace zep::platform
