#include "support/TestPlatform.h"

#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "platform/agent/Log.h"
#include "platform/util/Paths.h"

namespace zep::testing {
namespace {

std::filesystem::path MakeTempRoot() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zep-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    return pattern;
}

}  // namespace

TestPlatform::TestPlatform() : rootPath(MakeTempRoot()), root(path::FromFs(rootPath)) {
    std::filesystem::create_directories(rootPath / "programdata");
    std::filesystem::create_directories(rootPath / "temp");
    system = std::make_shared<TestSystem>(root);
    policy->repositoryRoot = root + L"/packages";
    env = platform::DefaultEnv();
    env.system = system;
    env.registry = registry;
    env.processes = processes;
    env.clock = clock;
    env.device = device;
    env.network = device;
    env.hub = hub;
    env.agents = agents;
    env.settings = settings;
    env.logs = log;
    env.policy = policy;
    env.storage = storage;
    env.events = events;
    env.extensions = extensions;
    Reinstall();
    g_log.Open(log->OpenLog("ZEPDiagnostics.log", 4));
}

TestPlatform::~TestPlatform() {
    g_log.Open(nullptr);
    platform::InstallEnv(platform::DefaultEnv());
    std::error_code ec;
    std::filesystem::remove_all(rootPath, ec);
}

void TestPlatform::Reinstall() { platform::InstallEnv(env); }

std::string ReadText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void WriteText(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

}  // namespace zep::testing
