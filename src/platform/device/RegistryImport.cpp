// DIR/registry.reg into the system's registry, with the registry editor.
#include <chrono>
#include <string>
#include <variant>

#include "platform/device/DeviceFolder.h"
#include "platform/device/FolderRegistry.h"
#include "platform/env/Beneath.h"
#include "platform/util/MemoryRegistry.h"
#include "platform/util/Strings.h"

namespace zep::platform {
namespace {

constexpr wchar_t kImportFile[] = L"registry-import.reg";
constexpr std::chrono::minutes kEditorCeiling{1};

bool Arrived(RegistryEnv& registry, Hive hive, const std::wstring& key, const std::wstring& name,
             const RegistryValue& expected) {
    if (const auto* number = std::get_if<DWORD>(&expected)) {
        DWORD value = ~*number;
        return registry.GetDword(hive, key, name, value) && value == *number;
    }
    std::wstring text;
    return registry.GetString(hive, key, name, text) && text == std::get<std::wstring>(expected);
}

std::string Describe(Hive hive, const std::wstring& key, const std::wstring& name) {
    const std::string path = std::string(hive == Hive::Users ? "HKEY_USERS" : "HKEY_LOCAL_MACHINE") +
                             (key.empty() ? "" : "\\" + text::ToUtf8(key));
    return name.empty() && key.empty() ? path : path + (name.empty() ? "" : " \"" + text::ToUtf8(name) + "\"");
}

}  // namespace

bool ImportRegistryFile(const Env& env, const std::wstring& deviceDir, std::string& problem) {
    const auto device = PathOpener(*env.files, {}).OpenFolder(deviceDir, false);
    if (!device) {
        problem = "the device folder cannot be opened";
        return false;
    }
    if (!device->Stat(L"registry.reg")) return true;  // nothing to import
    std::string bytes;
    if (!ReadFileIn(*device, L"registry.reg", kMaxRegistryFileBytes, bytes)) {
        problem = "registry.reg cannot be read";
        return false;
    }
    const std::wstring text = DecodeRegFile(bytes);
    MemoryRegistry expected;
    LoadRegText(expected, text, nullptr);

    // UTF-16LE with a byte-order mark is the one form the editor imports as
    // written: UTF-8 is read in the ANSI code page, and UTF-8 with a mark
    // is ignored without a word.
    const auto temp = device->CreateFolder(L"temp");
    if (!temp || !WriteAtomically(*temp, kImportFile, EncodeUtf16LeWithBom(text))) {
        problem = "the registry file for the editor cannot be written";
        return false;
    }
    const std::wstring command =
        env.system->WindowsDirectory() + L"\\regedit.exe /s \"" + JoinPath(temp->Path(), kImportFile) + L"\"";
    const int ran = env.processes->LaunchCommandLine(command, L"", true, nullptr, kEditorCeiling);
    temp->Remove(kImportFile, false);
    if (ran == 0) {
        problem = "the registry editor failed: " + text::ToUtf8(command);
        return false;
    }
    // The editor exits with 0 whatever it did: what counts is what arrived.
    for (const Hive hive : {Hive::LocalMachine, Hive::Users}) {
        for (const auto& key : expected.Snapshot(hive, L"")) {
            if (!key.path.empty() && !env.registry->KeyExists(hive, key.path)) {
                problem = Describe(hive, key.path, L"") + " was not imported";
                return false;
            }
            for (const auto& [name, value] : key.values) {
                if (!Arrived(*env.registry, hive, key.path, name, value)) {
                    problem = Describe(hive, key.path, name) + " was not imported";
                    return false;
                }
            }
        }
    }
    return true;
}

}  // namespace zep::platform
