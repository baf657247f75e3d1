// A registry held in memory: the registry store of systems without one, and
// the tests' registry. Keys and value names are matched without regard to
// letter case and keep the spelling they were first written with.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/env/RegistryEnv.h"

namespace zep::platform {

class MemoryRegistry : public RegistryEnv {
public:
    bool KeyExists(Hive hive, const std::wstring& key) override;
    bool GetDword(Hive hive, const std::wstring& key, const std::wstring& name, DWORD& value) override;
    bool GetString(Hive hive, const std::wstring& key, const std::wstring& name, std::wstring& value) override;

    // Creates the key and its parents.
    void CreateKey(Hive hive, const std::wstring& key);
    // Sets a value, creating the key and its parents.
    void SetDword(Hive hive, const std::wstring& key, const std::wstring& name, DWORD value);
    void SetString(Hive hive, const std::wstring& key, const std::wstring& name, const std::wstring& value);
    // Removes one value; true when it was there.
    bool DeleteValue(Hive hive, const std::wstring& key, const std::wstring& name);
    // Removes everything.
    void Clear();

    std::vector<RegistryKeyData> Snapshot(Hive hive, const std::wstring& key) override;

private:
    struct Key {
        std::wstring path;
        std::vector<std::pair<std::wstring, RegistryValue>> values;
    };
    static std::wstring Fold(Hive hive, const std::wstring& key);
    Key& Ensure(Hive hive, const std::wstring& key);

    std::mutex mutex_;
    std::map<std::wstring, Key> keys_;  // by folded "HIVE\path"
};

// The registry editor's text format ("Windows Registry Editor Version 5.00"):
// [HKEY_LOCAL_MACHINE\...] sections with "name"=dword:0000003c and
// "name"="text" values; ';' starts a comment line. `text` is the file's
// content decoded to wide (UTF-8 or UTF-16LE with a byte-order mark, see
// DecodeRegFile). Lines that cannot be read are skipped and counted in
// `skippedLines` when given. Hives other than HKEY_LOCAL_MACHINE and
// HKEY_USERS are skipped.
void LoadRegText(MemoryRegistry& registry, const std::wstring& text, int* skippedLines = nullptr);
// Decodes a .reg file's bytes: UTF-16LE when it starts with FF FE, else UTF-8
// (with or without a byte-order mark).
std::wstring DecodeRegFile(const std::string& bytes);
// Renders keys in the registry editor's format (CRLF line ends), starting with
// the header line; the caller encodes it (the editor writes UTF-16LE with a
// byte-order mark, see EncodeUtf16LeWithBom).
std::wstring RenderRegText(Hive hive, const std::vector<RegistryKeyData>& keys);
std::string EncodeUtf16LeWithBom(const std::wstring& text);

}  // namespace zep::platform
