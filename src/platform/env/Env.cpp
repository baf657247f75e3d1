#include "platform/env/Env.h"

#include <mutex>

namespace zep::platform {
namespace {

std::mutex& EnvMutex() {
    static std::mutex mutex;
    return mutex;
}

// Never destroyed. In a DLL, static objects are destroyed after Windows has
// ended the process's other threads, and parts of an Env (a hub) join a
// thread of their own when they go: that join would wait for ever, and the
// process would never exit.
std::shared_ptr<const Env>& Installed() {
    static auto* env = new std::shared_ptr<const Env>();
    return *env;
}

template <typename T>
void Fill(std::shared_ptr<T>& member, const std::shared_ptr<T>& fallback) {
    if (!member) member = fallback;
}

}  // namespace

void InstallEnv(Env env) {
    const Env defaults = DefaultEnv();
    Fill(env.files, defaults.files);
    Fill(env.system, defaults.system);
    Fill(env.registry, defaults.registry);
    Fill(env.processes, defaults.processes);
    Fill(env.clock, defaults.clock);
    Fill(env.random, defaults.random);
    Fill(env.device, defaults.device);
    Fill(env.network, defaults.network);
    Fill(env.hub, defaults.hub);
    Fill(env.agents, defaults.agents);
    Fill(env.settings, defaults.settings);
    Fill(env.logs, defaults.logs);
    Fill(env.policy, defaults.policy);
    Fill(env.storage, defaults.storage);
    Fill(env.events, defaults.events);
    Fill(env.extensions, defaults.extensions);
    // A null collection is a choice (the Windows way), not a gap to fill.
    auto installed = std::make_shared<const Env>(std::move(env));
    std::lock_guard<std::mutex> guard(EnvMutex());
    Installed() = std::move(installed);
}

std::shared_ptr<const Env> CurrentEnv() {
    {
        std::lock_guard<std::mutex> guard(EnvMutex());
        if (Installed()) return Installed();
    }
    auto defaults = std::make_shared<const Env>(DefaultEnv());
    std::lock_guard<std::mutex> guard(EnvMutex());
    if (!Installed()) Installed() = std::move(defaults);
    return Installed();
}

}  // namespace zep::platform
