// A whole platform made of test doubles, installed for the lifetime of one
// object: files are real, under a fresh temporary folder (programdata/ is the
// agent's data root, temp/ the temporary folder, packages/ the package
// repository); collection is the native one, on every system; everything else
// is scripted. The module's log goes to `log`.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "platform/device/InProcessHub.h"
#include "platform/env/Env.h"
#include "platform/util/MemoryRegistry.h"
#include "support/Fakes.h"

namespace zep::testing {

class TestPlatform {
public:
    TestPlatform();
    ~TestPlatform();
    TestPlatform(const TestPlatform&) = delete;
    TestPlatform& operator=(const TestPlatform&) = delete;

    // Installs `env` again after a test replaced one of its members.
    void Reinstall();

    std::filesystem::path rootPath;  // the test's folder
    std::wstring root;               // the same, wide

    std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
    std::shared_ptr<platform::MemoryRegistry> registry = std::make_shared<platform::MemoryRegistry>();
    std::shared_ptr<RecordingProcess> processes = std::make_shared<RecordingProcess>();
    std::shared_ptr<ScriptedDevice> device = std::make_shared<ScriptedDevice>();
    std::shared_ptr<ScriptedAgents> agents = std::make_shared<ScriptedAgents>();
    std::shared_ptr<ScriptedSettings> settings = std::make_shared<ScriptedSettings>();
    std::shared_ptr<MemoryLog> log = std::make_shared<MemoryLog>();
    std::shared_ptr<ScriptedPolicy> policy = std::make_shared<ScriptedPolicy>();
    std::shared_ptr<ScriptedStorage> storage = std::make_shared<ScriptedStorage>();
    std::shared_ptr<RecordingEvents> events = std::make_shared<RecordingEvents>();
    std::shared_ptr<ScriptedExtensions> extensions = std::make_shared<ScriptedExtensions>();
    std::shared_ptr<TestSystem> system;
    std::shared_ptr<platform::InProcessHub> hub = std::make_shared<platform::InProcessHub>();
    platform::Env env;
};

// How the scan histories end their lines on the running system: the agent
// writes CR LF on Windows.
#ifdef _WIN32
inline constexpr const char* kHistoryLineEnd = "\r\n";
#else
inline constexpr const char* kHistoryLineEnd = "\n";
#endif

// Skips a test of zepdiag's own scans where they collect with PowerShell
// (Windows: windows/scan_test.cpp shows those with their command lines).
#define ZEP_REQUIRE_NATIVE_BY_DEFAULT()                     \
    if (!::zep::platform::DefaultEnv().collection) GTEST_SKIP() \
        << "zepdiag collects with PowerShell on this system by default"

// Skips a test of packages' install.sh, which only POSIX systems run
// (Windows runs install.ps1 with the agent's PowerShell line).
#ifdef _WIN32
#define ZEP_REQUIRE_SHELL_PACKAGE_SCRIPTS() GTEST_SKIP() << "packages run install.ps1 here"
#else
#define ZEP_REQUIRE_SHELL_PACKAGE_SCRIPTS() static_cast<void>(0)
#endif

// An absolute path in the long-path form the PowerShell command lines take
// it in ("\\?\" in front on Windows; unchanged elsewhere).
std::wstring Extended(const std::wstring& absolutePath);

// Reads a whole file; empty when it cannot be read.
std::string ReadText(const std::filesystem::path& path);
void WriteText(const std::filesystem::path& path, const std::string& text);
// The JSON document in `text`; null when there is none.
Json::Value ParseJson(const std::string& text);
// The lines of `text`, without their ends.
std::vector<std::string> Lines(const std::string& text);
// ASCII `text` as UTF-16LE behind its byte-order mark, as Windows programs write text.
std::string Utf16Le(const std::string& text);

}  // namespace zep::testing
