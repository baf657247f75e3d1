// RegistryEnv over the Windows registry, always in its 64-bit view (the
// agent's keys live there whatever the bitness of the reading process).
#pragma once

#include "platform/env/RegistryEnv.h"

namespace zep::platform {

class WindowsRegistry : public RegistryEnv {
public:
    bool KeyExists(Hive hive, const std::wstring& key) override;
    // RegGetValueW restricted to REG_DWORD (and to REG_SZ below): a value of
    // another type reads as absent and leaves `value` alone.
    bool GetDword(Hive hive, const std::wstring& key, const std::wstring& name, DWORD& value) override;
    bool GetString(Hive hive, const std::wstring& key, const std::wstring& name, std::wstring& value) override;
    // The key tree by enumeration; values other than REG_DWORD and REG_SZ are
    // left out.
    std::vector<RegistryKeyData> Snapshot(Hive hive, const std::wstring& key) override;
};

}  // namespace zep::platform
