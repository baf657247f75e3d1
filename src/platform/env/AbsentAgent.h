// The agent's side of the platform when no agent is there: used for the
// members of an Env that the host leaves empty.
#pragma once

#include <memory>

#include "platform/env/Env.h"

namespace zep::platform {

class AbsentDevice : public DeviceEnv {
public:
    std::wstring DeviceId() override { return L""; }
    std::wstring LogicalDeviceId() override { return L""; }
    std::wstring AgentId() override { return L""; }
    std::wstring ServiceVersion() override { return L""; }
    bool IsRegistered() override { return false; }
    bool IsProvisioned() override { return false; }
    bool HasCommercialIntent() override { return false; }
};

class OfflineNetwork : public NetworkEnv {
public:
    bool IsInternetConnected(DWORD& flags) override {
        flags = 0;
        return false;
    }
};

class EmptyRegistry : public RegistryEnv {
public:
    bool KeyExists(Hive, const std::wstring&) override { return false; }
    bool GetDword(Hive, const std::wstring&, const std::wstring&, DWORD&) override { return false; }
    bool GetString(Hive, const std::wstring&, const std::wstring&, std::wstring&) override { return false; }
    std::vector<RegistryKeyData> Snapshot(Hive, const std::wstring&) override { return {}; }
};

class AbsentHub : public HubEnv {
public:
    std::wstring Subscribe(NotificationCallback, bool) override { return L"absent"; }
    void Unsubscribe(const std::wstring&) override {}
};

class AbsentAgents : public AgentEnv {
public:
    std::shared_ptr<NotificationAgent> GetNotificationAgent() override { return nullptr; }
    std::shared_ptr<CoreAdapter> GetCoreAdapter() override { return nullptr; }
};

class DefaultSettings : public SettingsEnv {
public:
    bool EnableCustomSettings() override { return false; }
    bool DisableJwtValidation() override { return false; }
};

class EmptyPolicy : public PolicyEnv {
public:
    UpdatePolicy GetUpdatePolicy() override { return {}; }
    std::wstring GetPackageRepositoryFolder(const Package&) override { return L""; }
    PlatformPolicy GetPlatformPolicy() override { return {}; }
};

// No storage agent: every upload fails as a local refusal.
class AbsentStorage : public StorageEnv {
public:
    int UploadDiagResult(const std::string&, bool, const std::string&, const std::string&) override { return 1; }
};

class DroppingEvents : public EventEnv {
public:
    void Log(int, const std::wstring&) override {}
};

// No extension module: no plug-in is ever found.
class AbsentExtensions : public ExtensionEnv {
public:
    bool TryResolveGetDiagnosticsElevations(const std::wstring&, std::wstring&, std::vector<ElevationType>&) override {
        return false;
    }
    DiagnosticsOperationResult SendDiagnosticCommandToTargets(const std::wstring&, const std::wstring&,
                                                              ElevationType) override {
        return {};
    }
};

class DroppingLogEnv : public LogEnv {
public:
    std::shared_ptr<LogSink> OpenLog(const std::string&, int) override { return nullptr; }
};

// An Env whose agent side is absent (the members above); the system side
// (files, system, registry, processes, clocks, collection) is the backend's.
inline Env AbsentAgentEnv() {
    Env env;
    env.device = std::make_shared<AbsentDevice>();
    env.network = std::make_shared<OfflineNetwork>();
    env.hub = std::make_shared<AbsentHub>();
    env.agents = std::make_shared<AbsentAgents>();
    env.settings = std::make_shared<DefaultSettings>();
    env.logs = std::make_shared<DroppingLogEnv>();
    env.policy = std::make_shared<EmptyPolicy>();
    env.storage = std::make_shared<AbsentStorage>();
    env.events = std::make_shared<DroppingEvents>();
    env.extensions = std::make_shared<AbsentExtensions>();
    return env;
}

}  // namespace zep::platform
