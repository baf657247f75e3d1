#include "platform/util/JsonText.h"
#include "platform/posix/DeviceFolderEnv.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <json/json.h>

#include "platform/util/CivilTime.h"
#include "platform/util/MemoryRegistry.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "platform/posix/FolderExtensions.h"
#include "platform/posix/PosixClock.h"
#include "platform/posix/PosixFileSystem.h"
#include "platform/posix/NativeCollection.h"
#include "platform/posix/PlatformPolicyFile.h"
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
    unsigned int maxJitterSeconds = 0;
    int pluginTimeoutSeconds = 0;                // 0: the extension module's own
    std::optional<std::uint64_t> freeDiskBytes;  // stands in for the volume's free space
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
std::optional<std::uint64_t> UInt64Of(const Json::Value& object, const char* key) {
    const Json::Value& value = Member(object, key);
    if (!value.isUInt64()) return std::nullopt;
    return static_cast<std::uint64_t>(value.asUInt64());
}

std::shared_ptr<DeviceState> ParseDeviceJson(const std::string* bytes) {
    auto state = std::make_shared<DeviceState>();
    if (bytes == nullptr) return state;
    zep::json::ParseOptions options;
    options.failIfExtra = true;  // "{...} garbage" is a damaged file, not a device
    const auto parsed = zep::json::ParseObject(*bytes, options);
    if (!parsed) return state;
    const Json::Value& root = *parsed;

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
    const Json::Value& jitter = Member(settings, "maxJitterSeconds");
    state->maxJitterSeconds = jitter.isUInt() ? jitter.asUInt() : 0;

    state->pluginTimeoutSeconds = IntOf(root, "pluginTimeoutSeconds", 0);
    state->freeDiskBytes = UInt64Of(root, "freeDiskBytes");
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
    unsigned int MaxJitterSeconds() override { return file_->Get()->maxJitterSeconds; }

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

// The system's files, except that device.json may claim a free disk space, so
// that a script can play a full disk without filling one.
class FolderFileSystem : public PosixFileSystem {
public:
    explicit FolderFileSystem(std::shared_ptr<DeviceFile> file) : file_(std::move(file)) {}
    std::optional<std::uint64_t> FreeSpace(const std::wstring& path) override {
        if (const auto claimed = file_->Get()->freeDiskBytes) return claimed;
        return PosixFileSystem::FreeSpace(path);
    }

private:
    std::shared_ptr<DeviceFile> file_;
};

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
    FolderRegistry(fs::path file, fs::path usersDir, std::shared_ptr<DeviceFile> device)
        : file_(std::move(file),
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
        value = path::FromFs(usersDir_ / path::ToFs((*shellFolders)[0]) / "AppData" / "Local");
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
    const fs::path usersDir_;
    const std::shared_ptr<DeviceFile> device_;
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
        FileStamp stamp;
        if (!ReadAll(dir_ / "update-policy.json", text, stamp)) return policy;
        zep::json::ParseOptions options;
        options.stackLimit = 64;
        const auto root = zep::json::ParseObject(text, options);
        if (!root) return policy;
        const Json::Value& packages = (*root)["packages"];
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

    PlatformPolicy GetPlatformPolicy() override { return LoadPlatformPolicy(dir_ / "platform-policy.json"); }

private:
    fs::path dir_;
};

// ---- outbox/ and events.log -------------------------------------------------

// Whole-file and append writes for the storage and the event log. Every
// write is checked: a full disk must show as a failed upload, not as a
// partial copy that looks complete.
class FolderWrites {
public:
    static bool WriteAll(int fd, std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t written = ::write(fd, bytes.data(), bytes.size());
            if (written < 0) {
                if (errno == EINTR) continue;
                return false;
            }
            bytes.remove_prefix(static_cast<std::size_t>(written));
        }
        return true;
    }

    // A file that must not exist yet.
    static bool CreateNew(const fs::path& path, std::string_view bytes) {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd < 0) return false;
        const bool written = WriteAll(fd, bytes);
        return ::close(fd) == 0 && written;
    }

    // One line in one write(2) on an O_APPEND descriptor, so that lines of
    // concurrent writers never interleave.
    static bool AppendLine(const fs::path& path, const std::string& line) {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd < 0) return false;
        const bool written = WriteAll(fd, line + "\n");
        return ::close(fd) == 0 && written;
    }

    static std::string IsoUtc(std::chrono::system_clock::time_point time) {
        return DateTimeUtility::convertGMTTimeToString(civil::ToGmt(time));
    }
};

// The storage agent of a device folder. An upload succeeds by default and
// lands in DIR/outbox/NNNN/ (one numbered folder per upload, never reused):
// the file, its metadata document exactly as passed, and upload.json. The
// answer of the next uploads can be forced, one code per line, through
// DIR/upload-results; a forced failure copies nothing and is recorded in
// DIR/outbox/failed.log. Whether the device is online is the module's own
// check: a forced 10 plays the storage agent's offline answer.
class FolderStorage : public StorageEnv {
public:
    FolderStorage(const fs::path& dir, std::shared_ptr<ClockEnv> clock)
        : outbox_(dir / "outbox"), results_(dir / "upload-results"), clock_(std::move(clock)) {}

    int UploadDiagResult(const std::string& filePathUtf8, bool unregisteredDevice, const std::string& metadata,
                         const std::string& provisionToken) override {
        std::lock_guard<std::mutex> lock(mutex_);
        const fs::path source(filePathUtf8);
        const std::string name = source.filename().string();
        std::error_code error;
        fs::create_directories(outbox_, error);

        // A file that cannot be read is refused before the service is asked,
        // so it takes no forced result.
        const int fd = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat info {};
        if (fd < 0 || ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
            if (fd >= 0) ::close(fd);
            return Failed(name, kLocalRefusal);
        }
        const int forced = NextForcedResult();
        if (forced != 0) {
            ::close(fd);
            return Failed(name, forced);
        }

        const std::optional<fs::path> folder = NewUploadFolder();
        std::uint64_t size = 0;
        bool stored = folder && Copy(fd, *folder / name, size) &&
                      FolderWrites::CreateNew(*folder / (name + ".metadata.json"), metadata) &&
                      FolderWrites::CreateNew(*folder / "upload.json",
                                              Record(name, size, unregisteredDevice, !provisionToken.empty()));
        ::close(fd);
        if (!stored) {
            if (folder) fs::remove_all(*folder, error);
            return Failed(name, kLocalRefusal);
        }
        return 0;
    }

private:
    static constexpr int kLocalRefusal = 1;

    int Failed(const std::string& name, int code) {
        // The line is best effort: the answer is what the module acts on.
        FolderWrites::AppendLine(outbox_ / "failed.log",
                                 FolderWrites::IsoUtc(clock_->SystemNow()) + "," + name + "," + std::to_string(code));
        return code;
    }

    // Takes the first line of upload-results; the rest is written back, or the
    // file removed once nothing is left. Blank lines are skipped; a line that
    // is no number is taken as a local refusal, so a typo cannot pass for a
    // success.
    int NextForcedResult() {
        std::string text;
        FileStamp stamp;
        if (!ReadAll(results_, text, stamp)) return 0;
        constexpr const char* kBlank = " \t\r\n";
        std::size_t begin = 0;
        std::string line;
        while (begin < text.size() && line.empty()) {
            std::size_t end = text.find('\n', begin);
            if (end == std::string::npos) end = text.size();
            line = text.substr(begin, end - begin);
            begin = end + 1;
            const std::size_t first = line.find_first_not_of(kBlank);
            line = first == std::string::npos ? std::string()
                                               : line.substr(first, line.find_last_not_of(kBlank) + 1 - first);
        }
        const std::string rest = begin < text.size() ? text.substr(begin) : std::string();
        std::error_code error;
        if (rest.find_first_not_of(kBlank) == std::string::npos) {
            fs::remove(results_, error);
        } else {
            const fs::path temporary = results_.native() + ".new";
            fs::remove(temporary, error);
            if (FolderWrites::CreateNew(temporary, rest)) fs::rename(temporary, results_, error);
        }
        if (line.empty()) return 0;
        try {
            std::size_t used = 0;
            const int code = std::stoi(line, &used);
            return used == line.size() ? code : kLocalRefusal;
        } catch (...) {
            return kLocalRefusal;
        }
    }

    // The folder after the highest numbered one, created exclusively: a name
    // taken meanwhile by another writer moves on to the next number.
    std::optional<fs::path> NewUploadFolder() {
        unsigned long highest = 0;
        std::error_code error;
        for (fs::directory_iterator it(outbox_, error), end; !error && it != end; it.increment(error)) {
            const std::string entry = it->path().filename().string();
            if (entry.empty() || entry.size() > 9 || entry.find_first_not_of("0123456789") != std::string::npos) {
                continue;
            }
            const unsigned long number = std::stoul(entry);
            if (number > highest) highest = number;
        }
        for (unsigned long number = highest + 1, tries = 0; tries < 1000; ++number, ++tries) {
            std::string name = std::to_string(number);
            if (name.size() < 4) name.insert(0, 4 - name.size(), '0');
            const fs::path folder = outbox_ / name;
            if (::mkdir(folder.c_str(), 0755) == 0) return folder;
            if (errno != EEXIST) return std::nullopt;
        }
        return std::nullopt;
    }

    static bool Copy(int from, const fs::path& to, std::uint64_t& size) {
        const int fd = ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd < 0) return false;
        bool ok = true;
        char buffer[65536];
        for (;;) {
            const ssize_t got = ::read(from, buffer, sizeof buffer);
            if (got == 0) break;
            if (got < 0) {
                if (errno == EINTR) continue;
                ok = false;
                break;
            }
            if (!FolderWrites::WriteAll(fd, std::string_view(buffer, static_cast<std::size_t>(got)))) {
                ok = false;
                break;
            }
            size += static_cast<std::uint64_t>(got);
        }
        return ::close(fd) == 0 && ok;
    }

    // What the service was given, except the token itself.
    std::string Record(const std::string& name, std::uint64_t size, bool unregisteredDevice, bool tokenUsed) {
        Json::Value record(Json::objectValue);
        record["file"] = name;
        record["sizeInBytes"] = Json::Value(static_cast<Json::UInt64>(size));
        record["unregisteredDevice"] = unregisteredDevice;
        record["provisionTokenUsed"] = tokenUsed;
        record["time"] = FolderWrites::IsoUtc(clock_->SystemNow());
        Json::StreamWriterBuilder builder;
        builder["emitUTF8"] = true;
        return Json::writeString(builder, record) + "\n";
    }

    const fs::path outbox_;
    const fs::path results_;
    const std::shared_ptr<ClockEnv> clock_;
    std::mutex mutex_;
};

// The platform's critical-event log: DIR/events.log, one JSON object per line.
class FolderEvents : public EventEnv {
public:
    FolderEvents(fs::path file, std::shared_ptr<ClockEnv> clock) : file_(std::move(file)), clock_(std::move(clock)) {}

    void Log(int eventId, const std::wstring& text) override {
        Json::Value event(Json::objectValue);
        event["time"] = FolderWrites::IsoUtc(clock_->SystemNow());
        event["eventId"] = eventId;
        event["text"] = text::ToUtf8(text);
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        builder["emitUTF8"] = true;
        FolderWrites::AppendLine(file_, Json::writeString(builder, event));  // fire and forget
    }

private:
    const fs::path file_;
    const std::shared_ptr<ClockEnv> clock_;
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
    env.files = std::make_shared<FolderFileSystem>(deviceFile);
    env.system = std::make_shared<FolderSystem>(dir, deviceFile);
    env.registry = std::make_shared<FolderRegistry>(dir / "registry.reg", dir / "users", deviceFile);
    env.processes = std::make_shared<PosixProcess>();
    env.clock = std::make_shared<PosixClock>();
    env.random = std::make_shared<PosixRandom>();
    env.device = std::make_shared<FolderDevice>(deviceFile);
    env.network = std::make_shared<FolderNetwork>(deviceFile);
    env.hub = std::move(hub);
    env.agents = std::make_shared<FolderAgents>(deviceFile);
    env.settings = std::make_shared<FolderSettings>(deviceFile);
    env.logs = std::make_shared<FolderLogs>(dir / "programdata" / "Log");
    env.policy = std::make_shared<FolderPolicy>(dir);
    env.storage = std::make_shared<FolderStorage>(dir, env.clock);
    env.events = std::make_shared<FolderEvents>(dir / "events.log", env.clock);
    env.collection = std::make_shared<NativeCollection>();
    env.extensions = MakeFolderExtensions(dir / "plugins", [deviceFile] {
        return std::chrono::seconds(deviceFile->Get()->pluginTimeoutSeconds);
    });
    return env;
}

}  // namespace zep::platform
