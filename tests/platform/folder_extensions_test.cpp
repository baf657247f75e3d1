#include <stdlib.h>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/InProcessHub.h"
#include "platform/Paths.h"
#include "platform/Strings.h"
#include "platform/posix/DeviceFolderEnv.h"

namespace zep::platform {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

std::string Read(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void Write(const fs::path& path, const std::string& bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

class DeviceFolderTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = ::testing::TempDir() + "folder-extensions-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        dir = pattern;
        env = MakeDeviceFolderEnv(text::DecodeFileName(dir.native()), std::make_shared<InProcessHub>());
        InstallEnv(env);  // the command runs through the installed Env's processes
    }
    void TearDown() override {
        InstallEnv(DefaultEnv());
        fs::remove_all(dir);
    }

    // A plug-in folder with its manifest and, when given, run.sh as its program.
    fs::path Plugin(const std::string& name, const std::string& manifest, const std::string& script = "") {
        const fs::path folder = dir / "plugins" / name;
        Write(folder / "plugin.json", manifest);
        if (!script.empty()) {
            Write(folder / "run.sh", "#!/bin/sh\n" + script);
            ::chmod((folder / "run.sh").c_str(), 0755);
        }
        return folder;
    }

    bool Resolve(const std::wstring& target, std::wstring& id, std::vector<ElevationType>& elevations) {
        return env.extensions->TryResolveGetDiagnosticsElevations(target, id, elevations);
    }
    DiagnosticsOperationResult Send(const std::wstring& id, ElevationType elevation = User) {
        return env.extensions->SendDiagnosticCommandToTargets(id, L"/d", elevation);
    }

    fs::path dir;
    Env env;
};

// ---- which plug-in a target names -------------------------------------------

using ResolveTest = DeviceFolderTest;

TEST_F(ResolveTest, RunningInstancesInTheirListedOrder) {
    Plugin("demo", R"({"id": "com.q.demo", "elevations": ["user", "system", "elevated"], "program": "run.sh"})");
    std::wstring id;
    std::vector<ElevationType> elevations;
    ASSERT_TRUE(Resolve(L"DeMo", id, elevations));  // targets arrive in any letter case
    EXPECT_EQ(id, L"com.q.demo");
    EXPECT_THAT(elevations, ElementsAre(User, Elevated));
}

TEST_F(ResolveTest, NoValidPluginOrNoRunningInstanceResolvesNothing) {
    const char* const manifests[] = {
        "{ not json",
        R"({"id": "a", "elevations": ["user"], "program": "p"} extra)",
        R"({"elevations": ["user"], "program": "p"})",
        R"({"id": "a", "elevations": ["user"]})",
        R"({"id": "a", "elevations": [], "program": "p"})",
        R"({"id": "a", "elevations": ["elevated"], "running": false, "program": "p"})",
        R"({"id": "a", "elevations": ["system"], "program": "p"})",
    };
    std::wstring id;
    std::vector<ElevationType> elevations;
    for (const char* manifest : manifests) {
        Plugin("p", manifest);
        EXPECT_FALSE(Resolve(L"p", id, elevations)) << manifest;
    }
    EXPECT_FALSE(Resolve(L"absent", id, elevations));
    EXPECT_TRUE(elevations.empty());
}

// A target names a folder below plugins/, never a path: valid plug-ins
// reachable by a path stay out of reach.
TEST_F(ResolveTest, TargetsThatArePathsNeverResolve) {
    const std::string manifest = R"({"id": "com.q.x", "elevations": ["elevated"], "program": "run.sh"})";
    Write(dir / "outside" / "plugin.json", manifest);
    Write(dir / "plugins" / "demo" / "nested" / "plugin.json", manifest);
    Write(dir / "plugins" / "plugin.json", manifest);
    for (const wchar_t* target : {L"../outside", L"..\\outside", L"..", L".", L"", L"demo/nested", L"/tmp"}) {
        std::wstring id;
        std::vector<ElevationType> elevations;
        EXPECT_FALSE(Resolve(target, id, elevations)) << text::ToUtf8(target);
    }
}

// ---- the get-diagnostics command ----------------------------------------------

using SendTest = DeviceFolderTest;

constexpr const char* kDemoManifest =
    R"({"id": "com.q.demo", "elevations": ["elevated", "user"], "program": "run.sh"})";

TEST_F(SendTest, RunsTheProgramWithExactlyItsArguments) {
    const fs::path folder = Plugin("demo", kDemoManifest,
                                   "for a in \"$0\" \"$@\"; do echo \"$a\"; done > \"$(dirname \"$0\")/argv\"\n");
    const std::wstring diagFolder = L"/data/plug in/diag; rm -rf x";
    EXPECT_TRUE(env.extensions->SendDiagnosticCommandToTargets(L"com.q.demo", diagFolder, Elevated).delivered);
    EXPECT_EQ(Read(folder / "argv"),
              (folder / "run.sh").string() + "\nget-diagnostics\n" + text::ToUtf8(diagFolder) + "\nelevated\n");
    for (const auto& [elevation, label] : {std::pair{User, "user"}, std::pair{None, "none"}}) {
        Send(L"com.q.demo", elevation);
        EXPECT_EQ(Read(folder / "argv"), (folder / "run.sh").string() + "\nget-diagnostics\n/d\n" + label + "\n");
    }
}

TEST_F(SendTest, ExitStatusDecidesSuccessAndAnUnstartablePluginIsNotDelivered) {
    const fs::path folder = Plugin("demo", kDemoManifest, "exit \"$(cat \"$(dirname \"$0\")/status\")\"\n");
    Write(folder / "status", "0");
    DiagnosticsOperationResult result = Send(L"com.q.demo");
    EXPECT_TRUE(result.delivered && result.isSuccess && !result.timeout);
    Write(folder / "status", "3");
    result = Send(L"com.q.demo");
    EXPECT_TRUE(result.delivered && !result.isSuccess && !result.timeout);

    Plugin("missing", R"({"id": "com.q.missing", "elevations": ["user"], "program": "nowhere.sh"})");
    for (const wchar_t* id : {L"com.q.unknown", L"com.q.missing", L""}) {
        result = Send(id);
        EXPECT_FALSE(result.delivered || result.isSuccess || result.timeout) << text::ToUtf8(id);
    }
}

TEST_F(SendTest, SlowPluginTimesOutAtTheConfiguredLimit) {
    Write(dir / "device.json", R"({"pluginTimeoutSeconds": 1})");
    Plugin("slow", R"({"id": "com.q.slow", "elevations": ["user"], "program": "run.sh"})", "sleep 20\n");
    const auto start = std::chrono::steady_clock::now();
    const DiagnosticsOperationResult result = Send(L"com.q.slow");
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(result.timeout);
    EXPECT_FALSE(result.delivered || result.isSuccess);
    EXPECT_GE(elapsed, std::chrono::milliseconds(900));
    EXPECT_LT(elapsed, std::chrono::seconds(10));
}

TEST_F(SendTest, DeletePreferenceIsTheLastAnswerOnStandardOutput) {
    const fs::path folder = Plugin("demo", kDemoManifest, "cat \"$(dirname \"$0\")/answer\"\n");
    const std::pair<const char*, bool> cases[] = {
        {"{\n\t\"deleteFilesOnUpload\" : true\n}\n", true},
        {"collecting...\n{\"deleteFilesOnUpload\": true}\n", true},
        {"{\"deleteFilesOnUpload\": true}\n{\"deleteFilesOnUpload\": false}\n", false},
        {R"({"deleteFilesOnUpload": "true"})", false},
    };
    for (const auto& [output, expected] : cases) {
        Write(folder / "answer", output);
        EXPECT_EQ(Send(L"com.q.demo").deleteFilesOnUpload, expected) << output;
    }
}

// ---- device.json settings and the user's folders -------------------------------

using DeviceSettingsTest = DeviceFolderTest;

TEST_F(DeviceSettingsTest, FreeDiskBytesAndMaxJitterSeconds) {
    const std::wstring path = path::FromFs(dir);
    Write(dir / "device.json", R"({"freeDiskBytes": 0, "developerSettings": {"maxJitterSeconds": 3}})");
    EXPECT_EQ(env.files->FreeSpace(path), std::optional<std::uint64_t>(0));
    EXPECT_EQ(env.settings->MaxJitterSeconds(), 3u);

    // Values of the wrong kind leave the volume's answer and no cap.
    Write(dir / "device.json", R"({"freeDiskBytes": -1, "developerSettings": {"maxJitterSeconds": -3}})");
    EXPECT_GT(env.files->FreeSpace(path).value_or(0), 0u);
    EXPECT_EQ(env.settings->MaxJitterSeconds(), 0u);
}

const std::wstring kShellFolders = L"\\Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Shell Folders";

TEST_F(DeviceSettingsTest, LoggedInUsersLocalAppDataIsBelowUsersUnlessTheRegistrySetsIt) {
    Write(dir / "device.json", R"({"loggedInUser": "alice"})");
    std::wstring value;
    ASSERT_TRUE(env.registry->GetString(Hive::Users, L"ALICE" + text::Upper(kShellFolders), L"local appdata", value));
    EXPECT_EQ(value, path::FromFs(dir / "users/alice/AppData/Local"));
    EXPECT_TRUE(env.registry->KeyExists(Hive::Users, L"alice" + kShellFolders));
    EXPECT_FALSE(env.registry->GetString(Hive::Users, L"bob" + kShellFolders, L"Local AppData", value));
    EXPECT_FALSE(env.registry->GetString(Hive::LocalMachine, L"alice" + kShellFolders, L"Local AppData", value));
    EXPECT_FALSE(env.registry->GetString(Hive::Users, L"alice\\Software", L"Local AppData", value));

    Write(dir / "registry.reg", "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_USERS\\alice" +
                                    text::ToUtf8(kShellFolders) + "]\r\n\"Local AppData\"=\"/home/alice/.local\"\r\n");
    ASSERT_TRUE(env.registry->GetString(Hive::Users, L"alice" + kShellFolders, L"Local AppData", value));
    EXPECT_EQ(value, L"/home/alice/.local");
}

TEST_F(DeviceSettingsTest, UnsafeUserNamesGetNoFolder) {
    for (const char* user : {"", "..", "../alice", "a/b", "a\\\\b"}) {
        Write(dir / "device.json", std::string(R"({"loggedInUser": ")") + user + R"("})");
        const std::wstring key = env.system->LoggedInUserSid() + kShellFolders;
        std::wstring value;
        EXPECT_FALSE(env.registry->GetString(Hive::Users, key, L"Local AppData", value)) << user;
        EXPECT_FALSE(env.registry->KeyExists(Hive::Users, key)) << user;
    }
}

}  // namespace
}  // namespace zep::platform
