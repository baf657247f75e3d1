// Test doubles for the platform seam. Each replaces one concern of the Env and
// lets a test script what the platform answers and see what the module asked.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/env/Beneath.h"
#include "platform/env/Env.h"

namespace zep::testing {

// A clock that moves only when told to. SleepFor advances it.
class FakeClock : public platform::ClockEnv {
public:
    std::chrono::nanoseconds SteadyNow() override { return std::chrono::nanoseconds(steady_.load()); }
    std::chrono::system_clock::time_point SystemNow() override;
    void SleepFor(std::chrono::milliseconds duration) override { Advance(duration); }

    void Advance(std::chrono::nanoseconds by);
    void SetSystemTime(std::chrono::system_clock::time_point time);

private:
    std::atomic<std::int64_t> steady_{1'000'000'000};
    std::atomic<std::int64_t> systemMs_{1795256130000};  // 2026-11-21T10:15:30Z
};

// Records every command and answers with the scripted result. `onLaunch`
// runs for each command line, before it is answered (for side effects such as
// advancing a fake clock or writing the files a script would write).
class RecordingProcess : public platform::ProcessEnv {
public:
    int LaunchCommandLine(const std::wstring& commandLine, const std::wstring& arguments, bool wait,
                          void* hostContext, std::chrono::milliseconds ceiling) override;
    platform::ProcessResult Spawn(const platform::ProcessRequest& request) override;

    std::vector<std::wstring> CommandLines() const;
    std::vector<platform::ProcessRequest> Spawns() const;

    std::function<int(const std::wstring& commandLine)> onLaunch;
    std::function<platform::ProcessResult(const platform::ProcessRequest& request)> onSpawn;
    void* lastHostContext = nullptr;
    std::chrono::milliseconds lastCeiling{0};

private:
    mutable std::mutex mutex_;
    std::vector<std::wstring> commandLines_;
    std::vector<platform::ProcessRequest> spawns_;
};

// Identity, cloud state and network, as plain fields.
class ScriptedDevice : public platform::DeviceEnv, public platform::NetworkEnv {
public:
    std::wstring DeviceId() override { return deviceId; }
    std::wstring LogicalDeviceId() override { return logicalDeviceId; }
    std::wstring AgentId() override { return L"9a1b2c3d-4e5f-4a6b-8c7d-0123456789ab"; }
    std::wstring ServiceVersion() override { return L"4.12.3.0"; }
    bool IsRegistered() override { return registered; }
    bool IsProvisioned() override { return provisioned; }
    bool HasCommercialIntent() override { return commercialIntent; }
    bool IsInternetConnected(DWORD& flags) override {
        flags = online ? 1u : 0u;
        return online;
    }

    std::wstring deviceId = L"0f4c2d1e-aaaa-bbbb-cccc-000000000001";
    std::wstring logicalDeviceId = L"LD-TEST01";
    std::atomic<bool> registered{true};
    std::atomic<bool> provisioned{true};
    std::atomic<bool> commercialIntent{true};
    std::atomic<bool> online{true};
};

class FakeNotificationAgent : public platform::NotificationAgent {
public:
    bool IsMqttEnabled() override { return mqttEnabled; }
    int GetMqttConnectionState() override { return state; }
    bool IsMqttDisconnectExpected() override { return disconnectExpected; }
    bool AreMqttRetriesExceeded() override { return retriesExceeded; }

    bool mqttEnabled = true;
    int state = 2;
    bool disconnectExpected = false;
    bool retriesExceeded = false;
};

class FakeCoreAdapter : public platform::CoreAdapter {
public:
    platform::RegisteredCertificate GetRegisteredCertificate() override { return certificate; }
    platform::RegisteredCertificate certificate{true, "3F2A9C", "2027-11-21T00:00:00Z"};
};

class ScriptedAgents : public platform::AgentEnv {
public:
    std::shared_ptr<platform::NotificationAgent> GetNotificationAgent() override { return notificationAgent; }
    std::shared_ptr<platform::CoreAdapter> GetCoreAdapter() override { return coreAdapter; }

    std::shared_ptr<FakeNotificationAgent> notificationAgent = std::make_shared<FakeNotificationAgent>();
    std::shared_ptr<FakeCoreAdapter> coreAdapter = std::make_shared<FakeCoreAdapter>();
};

class ScriptedSettings : public platform::SettingsEnv {
public:
    bool EnableCustomSettings() override { return enableCustomSettings; }
    bool DisableJwtValidation() override { return false; }
    std::atomic<bool> enableCustomSettings{false};
};

// The update policy's packages; their repositories lie under `repositoryRoot`.
class ScriptedPolicy : public platform::PolicyEnv {
public:
    platform::UpdatePolicy GetUpdatePolicy() override {
        std::lock_guard<std::mutex> lock(mutex_);
        return policy;
    }
    std::wstring GetPackageRepositoryFolder(const platform::Package& package) override {
        std::lock_guard<std::mutex> lock(mutex_);
        return platform::JoinPath(repositoryRoot, package.id);
    }
    PlatformPolicy GetPlatformPolicy() override {
        std::lock_guard<std::mutex> lock(mutex_);
        return platformPolicy;
    }
    void Add(const std::wstring& id, const std::wstring& name) {
        std::lock_guard<std::mutex> lock(mutex_);
        policy.packages.push_back({id, name});
    }
    platform::UpdatePolicy policy;
    std::wstring repositoryRoot;
    PlatformPolicy platformPolicy;

private:
    std::mutex mutex_;
};

// The storage agent: records every upload and answers with the scripted
// results in order (then with `otherwise`).
class ScriptedStorage : public platform::StorageEnv {
public:
    struct Upload {
        std::string filePath;
        bool unregisteredDevice = false;
        std::string metadata;
        std::string provisionToken;
    };
    int UploadDiagResult(const std::string& filePathUtf8, bool unregisteredDevice, const std::string& metadata,
                         const std::string& provisionToken) override {
        std::lock_guard<std::mutex> lock(mutex_);
        uploads_.push_back({filePathUtf8, unregisteredDevice, metadata, provisionToken});
        if (next_ < results.size()) return results[next_++];
        return otherwise;
    }
    std::vector<Upload> Uploads() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return uploads_;
    }
    std::vector<int> results;
    int otherwise = 0;

private:
    mutable std::mutex mutex_;
    std::vector<Upload> uploads_;
    std::size_t next_ = 0;
};

class RecordingEvents : public platform::EventEnv {
public:
    struct Event {
        int id = 0;
        std::wstring text;
    };
    void Log(int eventId, const std::wstring& text) override {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back({eventId, text});
    }
    std::vector<Event> Events() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<Event> events_;
};

// The extension module. A target resolves to its scripted plug-in; each
// elevation answers the get-diagnostics command as scripted in `answers`, or
// with `otherwise` (delivered and successful). Every command is recorded, and
// `onSend` runs for each one before it is answered, so that a test can write
// the plug-in's files into the folder the command names.
class ScriptedExtensions : public platform::ExtensionEnv {
public:
    struct Plugin {
        std::wstring pluginId;
        std::vector<platform::ElevationType> elevations;
    };
    struct Command {
        std::wstring pluginId;
        std::wstring diagFolder;
        platform::ElevationType elevation = platform::None;
    };

    bool TryResolveGetDiagnosticsElevations(const std::wstring& target, std::wstring& pluginId,
                                            std::vector<platform::ElevationType>& elevations) override {
        const auto found = plugins.find(target);
        if (found == plugins.end()) return false;
        pluginId = found->second.pluginId;
        elevations = found->second.elevations;
        return true;
    }
    platform::DiagnosticsOperationResult SendDiagnosticCommandToTargets(const std::wstring& pluginId,
                                                                        const std::wstring& diagFolder,
                                                                        platform::ElevationType elevation) override {
        const Command command{pluginId, diagFolder, elevation};
        {
            std::lock_guard<std::mutex> lock(mutex_);
            commands_.push_back(command);
        }
        if (onSend) onSend(command);
        const auto answer = answers.find(elevation);
        return answer == answers.end() ? otherwise : answer->second;
    }
    std::vector<Command> Commands() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return commands_;
    }

    std::map<std::wstring, Plugin> plugins;  // by target
    std::map<platform::ElevationType, platform::DiagnosticsOperationResult> answers;
    platform::DiagnosticsOperationResult otherwise{true, false, false, true};
    std::function<void(const Command&)> onSend;

private:
    mutable std::mutex mutex_;
    std::vector<Command> commands_;
};

// Well-known folders inside a test's own directory.
class TestSystem : public platform::SystemEnv {
public:
    explicit TestSystem(std::wstring root) : root_(std::move(root)) {}
    std::optional<std::wstring> AppDataRoot() override { return platform::JoinPath(root_, L"programdata"); }
    std::wstring TempFolder() override { return platform::JoinPath(platform::JoinPath(root_, L"temp"), L""); }
    std::wstring SystemDirectory() override { return L"C:\\Windows\\System32"; }
    std::wstring WindowsDirectory() override { return L"C:\\Windows"; }
    std::wstring LoggedInUserSid() override { return loggedInUserSid; }
    std::wstring loggedInUserSid;

private:
    std::wstring root_;
};

// Keeps the log's lines in memory.
class MemoryLog : public platform::LogEnv, public platform::LogSink {
public:
    std::shared_ptr<platform::LogSink> OpenLog(const std::string& fileName, int maxFiles) override;
    void Write(std::string_view line) override;

    std::vector<std::string> Lines() const;
    // Messages (the text after the time, level and thread), in order.
    std::vector<std::string> Messages() const;
    bool Contains(const std::string& text) const;
    std::size_t Count(const std::string& text) const;
    void Clear();

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace zep::testing
