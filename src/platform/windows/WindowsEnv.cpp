#include "platform/windows/Win32.h"

#include "platform/env/AbsentAgent.h"
#include "platform/env/Env.h"
#include "platform/windows/PowerShellPackageScript.h"
#include "platform/windows/WindowsClock.h"
#include "platform/windows/WindowsFileSystem.h"
#include "platform/windows/WindowsProcess.h"
#include "platform/windows/WindowsRegistry.h"
#include "platform/windows/WindowsSystem.h"

namespace zep::platform {

Env DefaultEnv() {
    Env env = AbsentAgentEnv();
    env.files = std::make_shared<WindowsFileSystem>();
    env.system = std::make_shared<WindowsSystem>();
    env.registry = std::make_shared<WindowsRegistry>();
    env.processes = std::make_shared<WindowsProcess>();
    env.clock = std::make_shared<WindowsClock>();
    env.random = std::make_shared<WindowsRandom>();
    env.collection = nullptr;  // the agent's PowerShell and registry-editor command lines
    return env;
}

// Packed in one pass like everywhere else; packages keep their PowerShell
// scripts.
std::shared_ptr<CollectionEnv> NativeCollectionEnv() {
    return std::make_shared<collect::NativeCollection>(PowerShellPackageScript());
}

}  // namespace zep::platform
