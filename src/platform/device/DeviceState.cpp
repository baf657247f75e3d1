#include "platform/device/DeviceState.h"

#include <json/json.h>

#include "platform/util/JsonText.h"
#include "platform/util/Strings.h"

namespace zep::platform {
namespace {

const Json::Value& Member(const Json::Value& object, const char* key) {
    return object.isObject() ? object[key] : Json::Value::nullSingleton();
}
std::string Utf8Of(const Json::Value& object, const char* key) {
    const Json::Value& value = Member(object, key);
    return value.isString() ? value.asString() : std::string();
}
std::wstring TextOf(const Json::Value& object, const char* key) { return text::FromUtf8(Utf8Of(object, key)); }
bool BoolOf(const Json::Value& object, const char* key, bool fallback) {
    const Json::Value& value = Member(object, key);
    return value.isBool() ? value.asBool() : fallback;
}
int IntOf(const Json::Value& object, const char* key, int fallback) {
    const Json::Value& value = Member(object, key);
    return value.isInt() ? value.asInt() : fallback;
}
std::optional<std::uint64_t> UInt64Of(const Json::Value& object, const char* key) {
    const Json::Value& value = Member(object, key);
    if (!value.isUInt64()) return std::nullopt;
    return static_cast<std::uint64_t>(value.asUInt64());
}

class FolderDevice : public DeviceEnv {
public:
    explicit FolderDevice(std::shared_ptr<DeviceFile> file) : file_(std::move(file)) {}
    std::wstring DeviceId() override { return file_->Get()->deviceId; }
    std::wstring LogicalDeviceId() override { return file_->Get()->logicalDeviceId; }
    std::wstring AgentId() override { return file_->Get()->agentId; }
    std::wstring ServiceVersion() override { return file_->Get()->serviceVersion; }
    bool IsRegistered() override { return file_->Get()->registered; }
    bool IsProvisioned() override { return file_->Get()->provisioned; }
    bool HasCommercialIntent() override { return file_->Get()->commercialIntent; }

private:
    std::shared_ptr<DeviceFile> file_;
};

class FolderNetwork : public NetworkEnv {
public:
    explicit FolderNetwork(std::shared_ptr<DeviceFile> file) : file_(std::move(file)) {}
    bool IsInternetConnected(DWORD& flags) override {
        const bool online = file_->Get()->online;
        flags = online ? 1 : 0;
        return online;
    }

private:
    std::shared_ptr<DeviceFile> file_;
};

class FolderSettings : public SettingsEnv {
public:
    explicit FolderSettings(std::shared_ptr<DeviceFile> file) : file_(std::move(file)) {}
    bool EnableCustomSettings() override { return file_->Get()->enableCustomSettings; }
    bool DisableJwtValidation() override { return file_->Get()->disableJwtValidation; }
    unsigned int MaxJitterSeconds() override { return file_->Get()->maxJitterSeconds; }

private:
    std::shared_ptr<DeviceFile> file_;
};

class FolderNotificationAgent : public NotificationAgent {
public:
    explicit FolderNotificationAgent(std::shared_ptr<DeviceFile> file) : file_(std::move(file)) {}
    bool IsMqttEnabled() override { return file_->Get()->notification.mqttEnabled; }
    int GetMqttConnectionState() override { return file_->Get()->notification.mqttState; }
    bool IsMqttDisconnectExpected() override { return file_->Get()->notification.disconnectExpected; }
    bool AreMqttRetriesExceeded() override { return file_->Get()->notification.retriesExceeded; }

private:
    std::shared_ptr<DeviceFile> file_;
};

class FolderCoreAdapter : public CoreAdapter {
public:
    explicit FolderCoreAdapter(std::shared_ptr<DeviceFile> file) : file_(std::move(file)) {}
    RegisteredCertificate GetRegisteredCertificate() override { return file_->Get()->certificate; }

private:
    std::shared_ptr<DeviceFile> file_;
};

class FolderAgents : public AgentEnv {
public:
    explicit FolderAgents(std::shared_ptr<DeviceFile> file)
        : file_(file),
          notification_(std::make_shared<FolderNotificationAgent>(file)),
          core_(std::make_shared<FolderCoreAdapter>(std::move(file))) {}
    std::shared_ptr<NotificationAgent> GetNotificationAgent() override {
        return file_->Get()->notification.present ? notification_ : nullptr;
    }
    std::shared_ptr<CoreAdapter> GetCoreAdapter() override { return core_; }

private:
    std::shared_ptr<DeviceFile> file_;
    std::shared_ptr<NotificationAgent> notification_;
    std::shared_ptr<CoreAdapter> core_;
};

}  // namespace

DeviceState ParseDeviceJson(std::string_view text) {
    DeviceState state;
    zep::json::ParseOptions options;
    options.failIfExtra = true;  // "{...} garbage" is a damaged file, not a device
    const auto parsed = zep::json::ParseObject(text, options);
    if (!parsed) return state;
    const Json::Value& root = *parsed;

    state.deviceId = TextOf(root, "deviceId");
    state.logicalDeviceId = TextOf(root, "logicalDeviceId");
    state.agentId = TextOf(root, "agentId");
    state.serviceVersion = TextOf(root, "serviceVersion");
    state.loggedInUser = TextOf(root, "loggedInUser");
    state.registered = BoolOf(root, "registered", false);
    state.provisioned = BoolOf(root, "provisioned", false);
    state.commercialIntent = BoolOf(root, "commercialIntent", false);
    state.online = BoolOf(root, "online", false);

    const Json::Value& certificate = Member(root, "certificate");
    state.certificate.isPresent = BoolOf(certificate, "present", false);
    state.certificate.thumbprint = Utf8Of(certificate, "thumbprint");
    state.certificate.notAfter = Utf8Of(certificate, "notAfter");

    const Json::Value& agent = Member(root, "notificationAgent");
    state.notification.present = BoolOf(agent, "present", false);
    state.notification.mqttEnabled = BoolOf(agent, "mqttEnabled", true);
    state.notification.mqttState = IntOf(agent, "mqttState", 0);
    state.notification.disconnectExpected = BoolOf(agent, "disconnectExpected", false);
    state.notification.retriesExceeded = BoolOf(agent, "retriesExceeded", false);

    const Json::Value& settings = Member(root, "developerSettings");
    state.enableCustomSettings = BoolOf(settings, "enableCustomSettings", false);
    state.disableJwtValidation = BoolOf(settings, "disableJwtValidation", false);
    const Json::Value& jitter = Member(settings, "maxJitterSeconds");
    state.maxJitterSeconds = jitter.isUInt() ? jitter.asUInt() : 0;

    state.pluginTimeoutSeconds = IntOf(root, "pluginTimeoutSeconds", 0);
    state.freeDiskBytes = UInt64Of(root, "freeDiskBytes");
    return state;
}

std::shared_ptr<DeviceFile> WatchDeviceFile(std::shared_ptr<Folder> deviceFolder) {
    return std::make_shared<DeviceFile>(std::move(deviceFolder), L"device.json", kMaxDeviceFileBytes,
                                        [](const std::string* bytes) {
                                            return std::make_shared<DeviceState>(
                                                bytes ? ParseDeviceJson(*bytes) : DeviceState());
                                        });
}

std::shared_ptr<DeviceEnv> MakeFolderDevice(std::shared_ptr<DeviceFile> file) {
    return std::make_shared<FolderDevice>(std::move(file));
}
std::shared_ptr<NetworkEnv> MakeFolderNetwork(std::shared_ptr<DeviceFile> file) {
    return std::make_shared<FolderNetwork>(std::move(file));
}
std::shared_ptr<SettingsEnv> MakeFolderSettings(std::shared_ptr<DeviceFile> file) {
    return std::make_shared<FolderSettings>(std::move(file));
}
std::shared_ptr<AgentEnv> MakeFolderAgents(std::shared_ptr<DeviceFile> file) {
    return std::make_shared<FolderAgents>(std::move(file));
}

}  // namespace zep::platform
