// The platform seam. Everything the module needs from the operating system and
// from the agent reaches it through one Env: a set of interfaces grouped by
// concern. The host installs an Env once before DiagnosticsManager::Init;
// tests install their own, or replace single members of the current one.
//
// The portable code never calls the operating system directly; the agent's
// platform names the subsystems use (FileSystem, CRegUtil, CoreUtility, ...,
// see CommonBase.h) are thin over these interfaces.
#pragma once

#include <memory>

#include "DiagnosticScanner/Export.h"
#include "platform/env/AgentEnv.h"
#include "platform/env/ClockEnv.h"
#include "platform/env/CollectionEnv.h"
#include "platform/env/DeviceEnv.h"
#include "platform/env/ExtensionEnv.h"
#include "platform/env/FileSystemEnv.h"
#include "platform/env/HubEnv.h"
#include "platform/env/LogEnv.h"
#include "platform/env/PolicyEnv.h"
#include "platform/env/ProcessEnv.h"
#include "platform/env/RegistryEnv.h"
#include "platform/env/SettingsEnv.h"
#include "platform/env/StorageEnv.h"
#include "platform/env/SystemEnv.h"

namespace zep::platform {

struct Env {
    std::shared_ptr<FileSystemEnv> files;
    std::shared_ptr<SystemEnv> system;
    std::shared_ptr<RegistryEnv> registry;
    std::shared_ptr<ProcessEnv> processes;
    std::shared_ptr<ClockEnv> clock;
    std::shared_ptr<RandomEnv> random;
    std::shared_ptr<DeviceEnv> device;
    std::shared_ptr<NetworkEnv> network;
    std::shared_ptr<HubEnv> hub;
    std::shared_ptr<AgentEnv> agents;
    std::shared_ptr<SettingsEnv> settings;
    std::shared_ptr<LogEnv> logs;
    std::shared_ptr<PolicyEnv> policy;
    std::shared_ptr<StorageEnv> storage;
    std::shared_ptr<EventEnv> events;
    std::shared_ptr<ExtensionEnv> extensions;
    // Null: collection runs the agent's PowerShell and registry-editor
    // command lines (the Windows way).
    std::shared_ptr<CollectionEnv> collection;
};

// The operating system's own parts (files, folders, processes, clocks,
// randomness) for the running system, with an agent that is absent: not
// registered, offline, no hub, no agent components, a log that drops lines.
DIAGSCANNER_API Env DefaultEnv();

// Replaces the installed Env. Members left null are taken from DefaultEnv(),
// except `collection`, whose null means the Windows way.
DIAGSCANNER_API void InstallEnv(Env env);

// The installed Env (DefaultEnv() until something is installed). The result is
// a snapshot: a later InstallEnv does not change it.
DIAGSCANNER_API std::shared_ptr<const Env> CurrentEnv();

}  // namespace zep::platform
