#include "platform/device/FolderRegistry.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/util/MemoryRegistry.h"
#include "platform/util/Strings.h"

namespace zep::platform {
namespace {

// The logged-in user's folders live in DIR/users/<user>/, so the registry
// knows where that user's Local AppData is unless registry.reg says otherwise.
constexpr std::wstring_view kShellFoldersKey = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Shell Folders";
constexpr std::wstring_view kLocalAppDataValue = L"Local AppData";

// A key path as its names: backslashes at either end or doubled do not count.
std::vector<std::wstring> KeyNames(std::wstring_view key) {
    std::vector<std::wstring> names;
    std::size_t start = 0;
    while (start <= key.size()) {
        std::size_t end = key.find(L'\\', start);
        if (end == std::wstring_view::npos) end = key.size();
        if (end > start) names.emplace_back(key.substr(start, end - start));
        start = end + 1;
    }
    return names;
}

// True when `key` is `full` or one of its ancestors, letter case aside.
bool IsKeyOrAncestor(const std::wstring& key, const std::vector<std::wstring>& full) {
    const std::vector<std::wstring> names = KeyNames(key);
    if (names.empty() || names.size() > full.size()) return false;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (!text::EqualsIgnoreCase(names[i], full[i])) return false;
    }
    return true;
}

// A user name that can only name one folder below users/.
bool IsSafeUserName(const std::wstring& user) {
    if (user.empty() || user == L"." || user == L"..") return false;
    return std::none_of(user.begin(), user.end(),
                        [](wchar_t c) { return c == L'/' || c == L'\\' || c < L' ' || c == L'\x7f'; });
}

class FolderRegistry : public RegistryEnv {
public:
    FolderRegistry(std::shared_ptr<Folder> deviceFolder, std::wstring usersDir, std::shared_ptr<DeviceFile> device)
        : file_(std::move(deviceFolder), L"registry.reg", kMaxRegistryFileBytes,
                [](const std::string* bytes) {
                    auto registry = std::make_shared<MemoryRegistry>();
                    if (bytes != nullptr) LoadRegText(*registry, DecodeRegFile(*bytes));
                    return registry;
                }),
          usersDir_(std::move(usersDir)),
          device_(std::move(device)) {}

    bool KeyExists(Hive hive, const std::wstring& key) override {
        if (file_.Get()->KeyExists(hive, key)) return true;
        const std::optional<std::vector<std::wstring>> shellFolders = ShellFoldersKey(hive);
        return shellFolders && IsKeyOrAncestor(key, *shellFolders);
    }
    bool GetDword(Hive hive, const std::wstring& key, const std::wstring& name, DWORD& value) override {
        return file_.Get()->GetDword(hive, key, name, value);
    }
    bool GetString(Hive hive, const std::wstring& key, const std::wstring& name, std::wstring& value) override {
        const std::shared_ptr<MemoryRegistry> registry = file_.Get();
        if (registry->GetString(hive, key, name, value)) return true;
        if (!text::EqualsIgnoreCase(name, kLocalAppDataValue)) return false;
        const std::optional<std::vector<std::wstring>> shellFolders = ShellFoldersKey(hive);
        if (!shellFolders || KeyNames(key).size() != shellFolders->size() || !IsKeyOrAncestor(key, *shellFolders)) {
            return false;
        }
        // A value of another type is set all the same: a string read fails.
        DWORD other = 0;
        if (registry->GetDword(hive, key, name, other)) return false;
        value = JoinPath(JoinPath(JoinPath(usersDir_, (*shellFolders)[0]), L"AppData"), L"Local");
        return true;
    }
    std::vector<RegistryKeyData> Snapshot(Hive hive, const std::wstring& key) override {
        return file_.Get()->Snapshot(hive, key);
    }

private:
    // <user>\Software\...\Shell Folders of the logged-in user, when there is one.
    std::optional<std::vector<std::wstring>> ShellFoldersKey(Hive hive) const {
        if (hive != Hive::Users) return std::nullopt;
        const std::wstring user = device_->Get()->loggedInUser;
        if (!IsSafeUserName(user)) return std::nullopt;
        std::vector<std::wstring> names = KeyNames(kShellFoldersKey);
        names.insert(names.begin(), user);
        return names;
    }

    WatchedFile<MemoryRegistry> file_;
    const std::wstring usersDir_;
    const std::shared_ptr<DeviceFile> device_;
};

}  // namespace

std::shared_ptr<RegistryEnv> MakeFolderRegistry(std::shared_ptr<Folder> deviceFolder, std::wstring usersDir,
                                                std::shared_ptr<DeviceFile> device) {
    return std::make_shared<FolderRegistry>(std::move(deviceFolder), std::move(usersDir), std::move(device));
}

}  // namespace zep::platform
