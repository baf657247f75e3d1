#include "support/TestPlatform.h"

#include <fstream>
#include <sstream>

#include "platform/agent/Log.h"
#include "platform/env/Beneath.h"
#include "platform/util/Paths.h"
#include "support/Links.h"
#include "support/TempFolder.h"

namespace zep::testing {

TestPlatform::TestPlatform() : rootPath(MakeTempFolder("zep-test-")), root(path::FromFs(rootPath)) {
    std::filesystem::create_directories(rootPath / "programdata");
    std::filesystem::create_directories(rootPath / "temp");
    system = std::make_shared<TestSystem>(root);
    policy->repositoryRoot = platform::JoinPath(root, L"packages");
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
    // The module's own packer on every system; the PowerShell way is shown by
    // its command lines (artifacts/powershell_commands_test, windows/).
    env.collection = platform::NativeCollectionEnv();
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
    RemoveTree(rootPath);
}

void TestPlatform::Reinstall() { platform::InstallEnv(env); }

std::wstring Extended(const std::wstring& absolutePath) {
#ifdef _WIN32
    return L"\\\\?\\" + absolutePath;
#else
    return absolutePath;
#endif
}

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

Json::Value ParseJson(const std::string& text) {
    Json::Value value;
    std::istringstream in(text);
    return Json::parseFromStream(Json::CharReaderBuilder(), in, &value, nullptr) ? value : Json::Value();
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::string Utf16Le(const std::string& text) {
    std::string bytes = "\xFF\xFE";
    for (const char c : text) bytes += {c, '\0'};
    return bytes;
}

}  // namespace zep::testing
