// DIR/device.json: the identity and state of a device folder's device, and
// the agent's parts that answer from it (identity, network, developer
// settings, the MQTT agent, the registered certificate). Each answer comes
// from the file as it is at the moment of the question, so a script can
// change the device between two scans.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/device/WatchedFile.h"
#include "platform/env/AgentEnv.h"
#include "platform/env/DeviceEnv.h"
#include "platform/env/SettingsEnv.h"

namespace zep::platform {

// device.json is a few hundred bytes; a megabyte is not a device.
inline constexpr std::uint64_t kMaxDeviceFileBytes = 1024 * 1024;

struct DeviceState {
    std::wstring deviceId, logicalDeviceId, agentId, serviceVersion, loggedInUser;
    bool registered = false, provisioned = false, commercialIntent = false, online = false;
    RegisteredCertificate certificate;
    struct {
        bool present = false, mqttEnabled = true, disconnectExpected = false, retriesExceeded = false;
        int mqttState = 0;
    } notification;
    bool enableCustomSettings = false, disableJwtValidation = false;
    unsigned int maxJitterSeconds = 0;
    int pluginTimeoutSeconds = 0;                // 0: the extension module's own
    std::optional<std::uint64_t> freeDiskBytes;  // stands in for the volume's free space
};

// The state a device.json text describes. A malformed text gives the
// defaults; a key of the wrong type counts as absent, so that a hand-edited
// file with one mistake still gives a usable device.
DeviceState ParseDeviceJson(std::string_view text);

using DeviceFile = WatchedFile<DeviceState>;
std::shared_ptr<DeviceFile> WatchDeviceFile(std::shared_ptr<Folder> deviceFolder);

std::shared_ptr<DeviceEnv> MakeFolderDevice(std::shared_ptr<DeviceFile> file);
std::shared_ptr<NetworkEnv> MakeFolderNetwork(std::shared_ptr<DeviceFile> file);
std::shared_ptr<SettingsEnv> MakeFolderSettings(std::shared_ptr<DeviceFile> file);
std::shared_ptr<AgentEnv> MakeFolderAgents(std::shared_ptr<DeviceFile> file);

}  // namespace zep::platform
