#include "platform/device/DeviceFolder.h"

#ifndef _WIN32
#include <sys/stat.h>
#endif

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/device/DeviceState.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "support/Programs.h"
#include "support/TestPlatform.h"

namespace zep::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using zep::testing::ReadText;
using zep::testing::WriteText;

constexpr const char* kDemoManifest =
    R"({"id": "com.q.demo", "elevations": ["system", "elevated", "user"], "program": "run.sh"})";

// Written beside and renamed over, as editors and the agent do: the new file
// may well have the old one's size and time stamp.
void Replace(const fs::path& path, const std::string& bytes) {
    fs::path aside = path;
    aside += ".new";
    WriteText(aside, bytes);
    fs::rename(aside, path);
}

std::set<std::string> Names(const fs::path& folder) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.insert(path::NarrowPath(entry.path().filename()));
    return names;
}

class DeviceFolderTest : public ::testing::Test {
protected:
    DeviceFolderTest() {
        InstallEnv(env);  // plug-ins run through the installed Env's processes
        WriteText(zip, std::string("PK\x03\x04\0\xff", 6));
    }

    void ExpectAbsentDevice() {
        EXPECT_EQ(env.device->DeviceId(), L"");
        EXPECT_FALSE(env.device->IsRegistered());
        DWORD flags = 7;
        EXPECT_FALSE(env.network->IsInternetConnected(flags));
        EXPECT_EQ(flags, 0u);
        EXPECT_FALSE(env.settings->DisableJwtValidation());
        EXPECT_EQ(env.agents->GetNotificationAgent(), nullptr);
        EXPECT_FALSE(env.agents->GetCoreAdapter()->GetRegisteredCertificate().isPresent);
    }
    int Upload() { return env.storage->UploadDiagResult(path::NarrowPath(zip), false, "{}", ""); }

    enum class Behaviour { Nothing, ExitWithStatusFile, Hang, PrintAnswerFile };

    // plugins/demo with its manifest and a program that does `behaviour` (on
    // Windows the tests' child program, told what to do by a file).
    fs::path Plugin(std::string manifest, Behaviour behaviour = Behaviour::Nothing) {
        const fs::path folder = dir / "plugins" / "demo";
#ifdef _WIN32
        std::string program;
        for (const char c : path::NarrowPath(testing::ProgramBesideTests("test-child"))) {
            program += c == '\\' ? std::string("\\\\") : std::string(1, c);
        }
        if (const std::size_t at = manifest.find("\"run.sh\""); at != std::string::npos) {
            manifest.replace(at + 1, 6, program);
        }
        const char* kWords[] = {"", "status", "hang", "answer"};
        WriteText(folder / "behaviour", kWords[static_cast<int>(behaviour)]);
#else
        const char* kScripts[] = {"", "exit \"$(cat \"$(dirname \"$0\")/status\")\"\n", "sleep 20\n",
                                  "cat \"$(dirname \"$0\")/answer\"\n"};
        WriteText(folder / "run.sh", std::string("#!/bin/sh\n") + kScripts[static_cast<int>(behaviour)]);
        ::chmod((folder / "run.sh").c_str(), 0755);
#endif
        WriteText(folder / "plugin.json", manifest);
        return folder;
    }
    DiagnosticsOperationResult Send() {
        return env.extensions->SendDiagnosticCommandToTargets(L"com.q.demo", L"/d", User);
    }

    zep::testing::TestPlatform platform;
    const fs::path dir = platform.rootPath;
    const fs::path file = dir / "device.json";
    const fs::path zip = dir / "LD-1_scan-7.zip";
    // registry.reg stands in for the registry here on every system.
    Env env = MakeDeviceFolderEnv(platform.root, platform.hub, DeviceFolderOptions{true});
};

TEST_F(DeviceFolderTest, MissingOrMalformedDeviceJsonGivesAnAbsentDevice) {
    ExpectAbsentDevice();
    using namespace std::string_literals;
    for (const auto& text : {"{\"registered\": true"s, "[true]"s, ""s, "{\"registered\": true} trailing"s,
                             std::string(5000, '[') + std::string(5000, ']')}) {  // the parser throws
        Replace(file, text);
        ExpectAbsentDevice();
    }
}

#ifndef _WIN32
// A FIFO in a document's place would hang every scan for good; an oversized
// document is not read at all.
TEST_F(DeviceFolderTest, FifosAndOversizedDocumentsReadAsAbsent) {
    WriteText(dir / "platform-policy.json", R"({"api_baseuri": "https://a"})");
    ASSERT_EQ(env.policy->GetPlatformPolicy().api_baseuri(), L"https://a");
    for (const char* name : {"platform-policy.json", "registry.reg"}) {
        fs::remove(dir / name);
        ASSERT_EQ(::mkfifo((dir / name).c_str(), 0600), 0) << name;
    }
    {
        std::ofstream blanks(file);
        blanks << "{\"deviceId\": \"X\"}";
        blanks.seekp(static_cast<std::streamoff>(kMaxDeviceFileBytes));  // a sparse file just past the limit
        blanks << ' ';
    }
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(env.policy->GetPlatformPolicy().api_baseuri(), L"");
    DWORD value = 0;
    EXPECT_FALSE(env.registry->GetDword(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP", L"X", value));
    ExpectAbsentDevice();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

#endif

// Envs of their own share no lock: only the exclusive creation keeps folders apart.
TEST_F(DeviceFolderTest, ConcurrentUploadsNeverShareAFolder) {
    constexpr int kThreads = 8, kEach = 25;
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const Env own = MakeDeviceFolderEnv(platform.root, platform.hub);
            for (ready.fetch_add(1); ready.load() < kThreads;) std::this_thread::yield();  // start together
            for (int i = 0; i < kEach; ++i) {
                EXPECT_EQ(
                    own.storage->UploadDiagResult(path::NarrowPath(zip), false, std::to_string(t * 100 + i), ""), 0);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    std::set<std::string> metadata;
    for (const auto& folder : Names(dir / "outbox")) {
        metadata.insert(ReadText(dir / "outbox" / folder / "LD-1_scan-7.zip.metadata.json"));
    }
    EXPECT_EQ(metadata.size(), std::size_t{kThreads * kEach});
}

TEST_F(DeviceFolderTest, ForcedResultsAreTakenOneLinePerUploadAndNoTokenIsWritten) {
    WriteText(dir / "upload-results", "429\n\n0\n");
    EXPECT_EQ(Upload(), 429);
    EXPECT_FALSE(fs::exists(dir / "outbox/0001"));  // nothing was uploaded
    EXPECT_EQ(ReadText(dir / "upload-results"), "\n0\n");
    const std::string metadata = "{\r\n\t\"note\": \"Gr\xc3\xbc\xc3\x9f\"   }";  // not re-serialised
    EXPECT_EQ(env.storage->UploadDiagResult(path::NarrowPath(zip), true, metadata, "eyJ0.secret-payload.sig"), 0);
    EXPECT_EQ(ReadText(dir / "outbox/0001/LD-1_scan-7.zip.metadata.json"), metadata);
    for (const auto& name : Names(dir / "outbox/0001")) {  // the token is never written
        EXPECT_EQ(ReadText(dir / "outbox/0001" / name).find("secret-payload"), std::string::npos) << name;
    }
    EXPECT_FALSE(fs::exists(dir / "upload-results"));

    WriteText(dir / "upload-results", "busy\n");  // a typo must not pass for a success
    EXPECT_EQ(Upload(), 1);
    const std::string failed = ReadText(dir / "outbox/failed.log");
    ASSERT_EQ(failed.size(), 80u) << failed;  // each line starts with a 20-character UTC time
    EXPECT_EQ(failed.substr(20, 21), ",LD-1_scan-7.zip,429\n");
    EXPECT_EQ(failed.substr(61), ",LD-1_scan-7.zip,1\n");
}

TEST_F(DeviceFolderTest, ResolvesRunningInstancesOfAValidPluginFolderOnly) {
    Plugin(kDemoManifest);
    std::wstring id;
    std::vector<ElevationType> elevations;
    const auto resolve = [&](const std::wstring& target) {
        return env.extensions->TryResolveGetDiagnosticsElevations(target, id, elevations);
    };
    ASSERT_TRUE(resolve(L"DeMo"));  // targets arrive in any letter case
    EXPECT_EQ(id, L"com.q.demo");
    WriteText(dir / "plugins" / path::FromNarrow("\xC3\x89tude") / "plugin.json", kDemoManifest);  // "Étude"
    EXPECT_TRUE(resolve(L"\u00e9TUDE")) << "beyond ASCII too";
    EXPECT_THAT(elevations, ::testing::ElementsAre(Elevated, User));  // listed order; no system instance runs

    const char* const invalid[] = {
        "{ not json",
        R"({"id": "a", "elevations": ["user"]})",
        R"({"id": "a", "elevations": ["elevated"], "running": false, "program": "p"})",
        R"({"id": "a", "elevations": ["system"], "program": "p"})",
    };
    for (const char* manifest : invalid) {
        Plugin(manifest);
        EXPECT_FALSE(resolve(L"demo")) << manifest;
    }
    Plugin(kDemoManifest);  // a target names a folder below plugins/, never a path
    for (const char* folder : {"outside", "plugins/demo/nested", "plugins"}) {
        WriteText(dir / folder / "plugin.json", kDemoManifest);
    }
    for (const wchar_t* target : {L"absent", L"../outside", L"..\\outside", L"..", L"", L"demo/nested", L"/tmp"}) {
        EXPECT_FALSE(resolve(target)) << text::ToUtf8(target);
    }
}

TEST_F(DeviceFolderTest, SendOutcomeFollowsExitStatusAndTimeOut) {
    WriteText(dir / "device.json", R"({"pluginTimeoutSeconds": 1})");
    const fs::path folder = Plugin(kDemoManifest, Behaviour::ExitWithStatusFile);
    WriteText(folder / "status", "0");
    DiagnosticsOperationResult result = Send();
    EXPECT_TRUE(result.delivered && result.isSuccess && !result.timeout);
    WriteText(folder / "status", "3");
    result = Send();
    EXPECT_TRUE(result.delivered && !result.isSuccess && !result.timeout);

    Plugin(kDemoManifest, Behaviour::Hang);
    const auto start = std::chrono::steady_clock::now();
    result = Send();
    EXPECT_TRUE(result.timeout && !result.delivered && !result.isSuccess);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 900ms);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
}

// The answer is the last one on standard output, of which only the last MiB
// is kept: a fragment left at the cut must not pass for an answer.
TEST_F(DeviceFolderTest, DeletePreferenceIsTheLastAnswerInTheLastMebibyteOfOutput) {
    const fs::path folder = Plugin(kDemoManifest, Behaviour::PrintAnswerFile);
    const std::pair<std::string, bool> cases[] = {
        {"{\n\t\"deleteFilesOnUpload\" : true\n}\n", true},
        {"{\"deleteFilesOnUpload\": true}\n{\"deleteFilesOnUpload\": false}\n", false},
        {std::string(3 << 20, '.') + "\n{\"deleteFilesOnUpload\": true}\n", true},
        {std::string((1 << 20) - 10, '.') + R"({"x":{"deleteFilesOnUpload":true}})" + "\n", false},
    };
    for (const auto& [output, expected] : cases) {
        WriteText(folder / "answer", output);
        EXPECT_EQ(Send().deleteFilesOnUpload, expected) << output.substr(output.size() > 80 ? output.size() - 80 : 0);
    }
    EXPECT_EQ(platform.log->Count("wrote more than 1048576 bytes to its standard output"), 2u);
}

}  // namespace
}  // namespace zep::platform
