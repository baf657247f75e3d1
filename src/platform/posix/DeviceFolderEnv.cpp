#include "platform/posix/DeviceFolderEnv.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>

#include <json/json.h>

#include "platform/MemoryRegistry.h"
#include "platform/Paths.h"
#include "platform/Strings.h"
#include "platform/posix/PosixClock.h"
#include "platform/posix/PosixFileSystem.h"
#include "platform/posix/NativeCollection.h"
#include "platform/posix/PosixProcess.h"

namespace zep::platform {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kLogRotationBytes = 5u * 1024u * 1024u;

// What stat says about a file: enough to notice that it was edited or
// replaced without reading it.
struct FileStamp {
    bool exists = false;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};

    bool operator==(const FileStamp& other) const {
        return exists == other.exists && inode == other.inode && size == other.size &&
               modified.tv_sec == other.modified.tv_sec && modified.tv_nsec == other.modified.tv_nsec;
    }
    bool operator!=(const FileStamp& other) const { return !(*this == other); }
};

FileStamp StampOf(const struct stat& info) {
    FileStamp stamp;
    stamp.exists = true;
    stamp.inode = info.st_ino;
    stamp.size = info.st_size;
    stamp.modified = info.st_mtim;
    return stamp;
}

FileStamp StampOf(const fs::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return FileStamp{};
    return StampOf(info);
}

// Reads the whole file and the stamp of exactly what was read.
bool ReadAll(const fs::path& path, std::string& contents, FileStamp& stamp) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat info {};
    bool ok = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    if (ok) {
        stamp = StampOf(info);
        contents.clear();
        char buffer[16384];
        for (;;) {
            const ssize_t got = ::read(fd, buffer, sizeof buffer);
            if (got > 0) {
                contents.append(buffer, static_cast<std::size_t>(got));
            } else if (got == 0) {
                break;
            } else if (errno != EINTR) {
                ok = false;
                break;
            }
        }
    }
    ::close(fd);
    return ok;
}

// A value built from one file, rebuilt when the file changes. The file is
// stat'ed on every Get, which is cheap next to what the callers do with it.
template <typename T>
class WatchedFile {
public:
    // `build` gets the file's bytes, or null when there is no readable file.
    using Builder = std::function<std::shared_ptr<T>(const std::string* bytes)>;

    WatchedFile(fs::path path, Builder build) : path_(std::move(path)), build_(std::move(build)) {}

    std::shared_ptr<T> Get() {
        std::lock_guard<std::mutex> lock(mutex_);
        const FileStamp current = StampOf(path_);
        if (value_ && stamp_ && *stamp_ == current) return value_;

        std::string bytes;
        FileStamp read;
        const bool ok = current.exists && ReadAll(path_, bytes, read);
        value_ = build_(ok ? &bytes : nullptr);
        // An unreadable file that exists is tried again on the next call.
        if (ok || !current.exists) {
            stamp_ = ok ? read : current;
        } else {
            stamp_.reset();
        }
        return value_;
    }

private:
    const fs::path path_;
    const Builder build_;
    std::mutex mutex_;
    std::optional<FileStamp> stamp_;
    std::shared_ptr<T> value_;
};

// ---- device.json ------------------------------------------------------------

struct DeviceState {
    std::wstring deviceId, logicalDeviceId, agentId, serviceVersion, loggedInUser;
    bool registered = false, provisioned = false, commercialIntent = false, online = false;
    RegisteredCertificate certificate;
    struct {
        bool present = false, mqttEnabled = true, disconnectExpected = false, retriesExceeded = false;
        int mqttState = 0;
    } notification;
    bool enableCustomSettings = false, disableJwtValidation = false;
};

// Keys of the wrong type are treated like absent ones: a hand-edited file
// with one mistake still gives a usable device.
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

std::shared_ptr<DeviceState> ParseDeviceJson(const std::string* bytes) {
    auto state = std::make_shared<DeviceState>();
    if (bytes == nullptr) return state;
    Json::Value root;
    try {
        Json::CharReaderBuilder builder;
        builder["failIfExtra"] = true;  // "{...} garbage" is a damaged file, not a device
        const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        std::string errors;
        if (!reader->parse(bytes->data(), bytes->data() + bytes->size(), &root, &errors) || !root.isObject()) {
            return state;
        }
    } catch (...) {
        // JsonCpp throws on pathological nesting; that is a malformed file too.
        return state;
    }

    state->deviceId = TextOf(root, "deviceId");
    state->logicalDeviceId = TextOf(root, "logicalDeviceId");
    state->agentId = TextOf(root, "agentId");
    state->serviceVersion = TextOf(root, "serviceVersion");
    state->loggedInUser = TextOf(root, "loggedInUser");
    state->registered = BoolOf(root, "registered", false);
    state->provisioned = BoolOf(root, "provisioned", false);
    state->commercialIntent = BoolOf(root, "commercialIntent", false);
    state->online = BoolOf(root, "online", false);

    const Json::Value& certificate = Member(root, "certificate");
    state->certificate.isPresent = BoolOf(certificate, "present", false);
    state->certificate.thumbprint = Utf8Of(certificate, "thumbprint");
    state->certificate.notAfter = Utf8Of(certificate, "notAfter");

    const Json::Value& agent = Member(root, "notificationAgent");
    state->notification.present = BoolOf(agent, "present", false);
    state->notification.mqttEnabled = BoolOf(agent, "mqttEnabled", true);
    state->notification.mqttState = IntOf(agent, "mqttState", 0);
    state->notification.disconnectExpected = BoolOf(agent, "disconnectExpected", false);
    state->notification.retriesExceeded = BoolOf(agent, "retriesExceeded", false);

    const Json::Value& settings = Member(root, "developerSettings");
    state->enableCustomSettings = BoolOf(settings, "enableCustomSettings", false);
    state->disableJwtValidation = BoolOf(settings, "disableJwtValidation", false);
    return state;
}

using DeviceFile = WatchedFile<DeviceState>;

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

private:
    std::shared_ptr<DeviceFile> file_;
};

// The agent components answer from the file at the time of each question, so
// a script can change the MQTT state between two scans.
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

// ---- folders ----------------------------------------------------------------

class FolderSystem : public SystemEnv {
public:
    FolderSystem(const fs::path& dir, std::shared_ptr<DeviceFile> file)
        : appData_(dir / "programdata"), temp_(dir / "temp"), file_(std::move(file)) {}

    std::optional<std::wstring> AppDataRoot() override {
        std::error_code error;
        if (!fs::is_directory(appData_, error)) return std::nullopt;
        return path::FromFs(appData_);
    }
    std::wstring TempFolder() override {
        std::error_code error;
        fs::create_directories(temp_, error);
        return path::FromFs(temp_) + L"/";
    }
    std::wstring SystemDirectory() override { return L"/usr/bin"; }
    std::wstring WindowsDirectory() override { return L"/usr"; }
    std::wstring LoggedInUserSid() override { return file_->Get()->loggedInUser; }

private:
    const fs::path appData_;
    const fs::path temp_;
    std::shared_ptr<DeviceFile> file_;
};

// ---- registry.reg -----------------------------------------------------------

class FolderRegistry : public RegistryEnv {
public:
    explicit FolderRegistry(fs::path file)
        : file_(std::move(file), [](const std::string* bytes) {
              auto registry = std::make_shared<MemoryRegistry>();
              if (bytes != nullptr) LoadRegText(*registry, DecodeRegFile(*bytes));
              return registry;
          }) {}

    bool KeyExists(Hive hive, const std::wstring& key) override { return file_.Get()->KeyExists(hive, key); }
    bool GetDword(Hive hive, const std::wstring& key, const std::wstring& name, DWORD& value) override {
        return file_.Get()->GetDword(hive, key, name, value);
    }
    bool GetString(Hive hive, const std::wstring& key, const std::wstring& name, std::wstring& value) override {
        return file_.Get()->GetString(hive, key, name, value);
    }
    std::vector<RegistryKeyData> Snapshot(Hive hive, const std::wstring& key) override {
        return file_.Get()->Snapshot(hive, key);
    }

private:
    WatchedFile<MemoryRegistry> file_;
};

// ---- logs -------------------------------------------------------------------

// Appends to one log file; when the next line would take it past the size
// limit, the file moves to <name>.1 (and .1 to .2, ...) and a new one starts.
class RotatingFileSink : public LogSink {
public:
    RotatingFileSink(fs::path path, int maxFiles) : path_(std::move(path)), maxFiles_(maxFiles < 1 ? 1 : maxFiles) {}
    ~RotatingFileSink() override { Close(); }
    RotatingFileSink(const RotatingFileSink&) = delete;
    RotatingFileSink& operator=(const RotatingFileSink&) = delete;

    bool Open() {
        fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd_ < 0) return false;
        struct stat info {};
        size_ = ::fstat(fd_, &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
        return true;
    }

    void Write(std::string_view line) override {
        if (size_ > 0 && size_ + line.size() > kLogRotationBytes) Rotate();
        if (fd_ < 0) return;
        while (!line.empty()) {
            const ssize_t written = ::write(fd_, line.data(), line.size());
            if (written < 0) {
                if (errno == EINTR) continue;
                return;  // a full disk loses log lines, never the scan
            }
            line.remove_prefix(static_cast<std::size_t>(written));
            size_ += static_cast<std::uint64_t>(written);
        }
    }

private:
    fs::path Numbered(int n) const { return fs::path(path_.native() + "." + std::to_string(n)); }

    void Rotate() {
        Close();
        std::error_code error;
        if (maxFiles_ == 1) {
            fs::remove(path_, error);
        } else {
            fs::remove(Numbered(maxFiles_ - 1), error);
            for (int n = maxFiles_ - 2; n >= 1; --n) fs::rename(Numbered(n), Numbered(n + 1), error);
            fs::rename(path_, Numbered(1), error);
        }
        Open();  // when it fails, lines are dropped until the next sink
    }

    void Close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

    const fs::path path_;
    const int maxFiles_;
    int fd_ = -1;
    std::uint64_t size_ = 0;
};

class FolderLogs : public LogEnv {
public:
    explicit FolderLogs(fs::path folder) : folder_(std::move(folder)) {}

    std::shared_ptr<LogSink> OpenLog(const std::string& fileName, int maxFiles) override {
        // One plain file name: the log folder is the only place logs go.
        if (fileName.empty() || fileName == "." || fileName == ".." || fileName.find('/') != std::string::npos) {
            return nullptr;
        }
        std::error_code error;
        fs::create_directories(folder_, error);
        auto sink = std::make_shared<RotatingFileSink>(folder_ / fileName, maxFiles);
        if (!sink->Open()) return nullptr;
        return sink;
    }

private:
    const fs::path folder_;
};

// DIR/update-policy.json ({"packages": [{"id": ..., "name": ...}]}) and the
// deploy agent's repository DIR/packages/<id>. Read on every query: the policy
// is asked once per scan.
class FolderPolicy : public PolicyEnv {
public:
    explicit FolderPolicy(fs::path dir) : dir_(std::move(dir)) {}

    UpdatePolicy GetUpdatePolicy() override {
        UpdatePolicy policy;
        std::string text;
        PosixFileSystem files;
        if (!files.ReadFile(path::FromFs(dir_ / "update-policy.json"), text)) return policy;
        Json::CharReaderBuilder builder;
        builder["stackLimit"] = 64;
        const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value root;
        std::string errors;
        if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors) || !root.isObject()) return policy;
        const Json::Value& packages = root["packages"];
        if (!packages.isArray()) return policy;
        for (const auto& entry : packages) {
            if (!entry.isObject() || !entry["id"].isString()) continue;
            Package package;
            package.id = text::FromUtf8(entry["id"].asString());
            package.name = entry["name"].isString() ? text::FromUtf8(entry["name"].asString()) : package.id;
            policy.packages.push_back(std::move(package));
        }
        return policy;
    }

    std::wstring GetPackageRepositoryFolder(const Package& package) override {
        return path::FromFs(dir_ / "packages") + L"/" + package.id;
    }

private:
    fs::path dir_;
};

}  // namespace

Env MakeDeviceFolderEnv(const std::wstring& deviceDir, std::shared_ptr<HubEnv> hub) {
    // Absolute, so that a later change of the working directory does not move
    // the device; "DIR/" and "DIR" give the same paths (no "//" in logs).
    std::error_code error;
    fs::path dir = path::ToFs(deviceDir);
    if (fs::path absolute = fs::absolute(dir, error); !error) dir = std::move(absolute);
    dir = dir.lexically_normal();
    if (!dir.has_filename() && dir != dir.root_path()) dir = dir.parent_path();

    auto deviceFile = std::make_shared<DeviceFile>(dir / "device.json", ParseDeviceJson);

    Env env;
    env.files = std::make_shared<PosixFileSystem>();
    env.system = std::make_shared<FolderSystem>(dir, deviceFile);
    env.registry = std::make_shared<FolderRegistry>(dir / "registry.reg");
    env.processes = std::make_shared<PosixProcess>(std::chrono::milliseconds(0));
    env.clock = std::make_shared<PosixClock>();
    env.random = std::make_shared<PosixRandom>();
    env.device = std::make_shared<FolderDevice>(deviceFile);
    env.network = std::make_shared<FolderNetwork>(deviceFile);
    env.hub = std::move(hub);
    env.agents = std::make_shared<FolderAgents>(deviceFile);
    env.settings = std::make_shared<FolderSettings>(deviceFile);
    env.logs = std::make_shared<FolderLogs>(dir / "programdata" / "Log");
    env.policy = std::make_shared<FolderPolicy>(dir);
    env.collection = std::make_shared<NativeCollection>();
    return env;
}

}  // namespace zep::platform
