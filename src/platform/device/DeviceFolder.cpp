#include "platform/device/DeviceFolder.h"

#include <chrono>
#include <filesystem>
#include <optional>
#include <system_error>

#include "platform/device/DeviceState.h"
#include "platform/device/FolderExtensions.h"
#include "platform/device/FolderLogs.h"
#include "platform/device/FolderOutbox.h"
#include "platform/device/FolderPolicy.h"
#include "platform/device/FolderRegistry.h"
#include "platform/env/Beneath.h"
#include "platform/util/Paths.h"

namespace zep::platform {
namespace {

// The system's files, except that device.json may claim a free disk space, so
// that a script can play a full disk without filling one.
class FolderFileSystem : public FileSystemEnvWrapper {
public:
    FolderFileSystem(std::shared_ptr<FileSystemEnv> files, std::shared_ptr<DeviceFile> device)
        : FileSystemEnvWrapper(std::move(files)), device_(std::move(device)) {}
    std::optional<std::uint64_t> FreeSpace(const std::wstring& path) override {
        if (const auto claimed = device_->Get()->freeDiskBytes) return claimed;
        return FileSystemEnvWrapper::FreeSpace(path);
    }

private:
    std::shared_ptr<DeviceFile> device_;
};

// The device's folders, with the system's own for what a device folder does
// not hold (the system and Windows directories).
class FolderSystem : public SystemEnv {
public:
    FolderSystem(std::shared_ptr<Folder> device, std::shared_ptr<SystemEnv> base, std::shared_ptr<DeviceFile> file)
        : device_(std::move(device)), base_(std::move(base)), file_(std::move(file)) {}

    std::optional<std::wstring> AppDataRoot() override {
        const auto entry = device_->Stat(L"programdata");
        if (!entry || entry->kind != EntryKind::Folder) return std::nullopt;
        return JoinPath(device_->Path(), L"programdata");
    }
    std::wstring TempFolder() override {
        device_->CreateFolder(L"temp");
        return JoinPath(device_->Path(), L"temp") + path::kSeparator;
    }
    std::wstring SystemDirectory() override { return base_->SystemDirectory(); }
    std::wstring WindowsDirectory() override { return base_->WindowsDirectory(); }
    std::wstring LoggedInUserSid() override { return file_->Get()->loggedInUser; }

private:
    const std::shared_ptr<Folder> device_;
    const std::shared_ptr<SystemEnv> base_;
    const std::shared_ptr<DeviceFile> file_;
};

// Absolute and without a trailing separator, so that "DIR/" and "DIR" give
// the same paths, and a later change of the working directory does not move
// the device.
std::wstring Normalized(const std::wstring& deviceDir) {
    std::error_code error;
    std::filesystem::path dir = path::ToFs(deviceDir);
    if (auto absolute = std::filesystem::absolute(dir, error); !error) dir = std::move(absolute);
    dir = dir.lexically_normal();
    if (!dir.has_filename() && dir != dir.root_path()) dir = dir.parent_path();
    return path::FromFs(dir);
}

}  // namespace

Env MakeDeviceFolderEnv(const std::wstring& deviceDir, std::shared_ptr<HubEnv> hub, const DeviceFolderOptions& options) {
    Env env = DefaultEnv();
    const std::wstring dir = Normalized(deviceDir);
    std::shared_ptr<Folder> device = PathOpener(*env.files, {}).OpenFolder(dir, true);
    if (!device) {
        // Nothing of the device can be read: the agent is absent, as it is
        // for any platform without one.
        env.hub = std::move(hub);
        return env;
    }
    auto deviceFile = WatchDeviceFile(device);

    env.files = std::make_shared<FolderFileSystem>(env.files, deviceFile);
    env.system = std::make_shared<FolderSystem>(device, env.system, deviceFile);
    if (options.registryFromFile) env.registry = MakeFolderRegistry(device, JoinPath(dir, L"users"), deviceFile);
    env.device = MakeFolderDevice(deviceFile);
    env.network = MakeFolderNetwork(deviceFile);
    env.hub = std::move(hub);
    env.agents = MakeFolderAgents(deviceFile);
    env.settings = MakeFolderSettings(deviceFile);
    env.logs = MakeFolderLogs(env.files, JoinPath(JoinPath(dir, L"programdata"), L"Log"));
    env.policy = MakeFolderPolicy(device);
    env.storage = MakeFolderStorage(env.files, device, env.clock);
    env.events = MakeFolderEvents(device, env.clock);
    env.extensions = MakeFolderExtensions(path::ToFs(JoinPath(dir, L"plugins")), [deviceFile] {
        return std::chrono::seconds(deviceFile->Get()->pluginTimeoutSeconds);
    });
    return env;
}

namespace {
std::unique_ptr<InputFile> OpenDeviceFile(const std::wstring& path) {
    const auto env = DefaultEnv();
    std::wstring name;
    const auto folder = PathOpener(*env.files, {}).OpenParent(path, name, false);
    return folder ? folder->OpenFile(name) : nullptr;
}
}  // namespace

bool ReadDeviceFile(const std::wstring& path, std::uint64_t limit, std::string& contents) {
    const auto file = OpenDeviceFile(path);
    return file && ReadAll(*file, limit, contents);
}

bool ReadDeviceFileTail(const std::wstring& path, std::uint64_t maxBytes, std::string& contents) {
    const auto file = OpenDeviceFile(path);
    return file && ReadTail(*file, maxBytes, contents);
}

}  // namespace zep::platform
