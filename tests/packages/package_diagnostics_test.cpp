// Package diagnostics: which packages run, how their script is started, and
// the time-out result judged after the script ended.
#include <chrono>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Paths.h"
#include "platform/Strings.h"
#include "support/ManagerFixture.h"

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using zep::testing::ManagerTest;
using zep::testing::ReadText;
using zep::testing::WriteText;

namespace {

const char* kLabel = "DiagnosticsManager::GenerateDiagnosticsForPackages";

class PackageDiagnosticsTest : public ManagerTest {
protected:
    PackageDiagnosticsTest() { peer->scanID() = L"scan1"; }

    std::filesystem::path PackageTemp(const std::string& id) { return platform.rootPath / "packages" / id / "temp"; }
    void InstallPackage(const std::string& id, const std::string& script = "install.sh") {
        platform.policy->Add(zep::text::FromUtf8(id), zep::text::FromUtf8(id + " display name"));
        WriteText(PackageTemp(id) / script, "#!/bin/sh\n");
    }
    std::filesystem::path Output(const std::string& id) {
        return platform.rootPath / "temp" / "Quorin" / "Zep" / "scan1" / id;
    }
    // The script "runs" for `duration` on the fake clock, writes its own
    // result and ends with `exitCode`.
    void ScriptTakes(std::chrono::nanoseconds duration, int exitCode) {
        platform.processes->onSpawn = [this, duration, exitCode](const zep::platform::ProcessRequest& request) {
            platform.clock->Advance(duration);
            const auto out = zep::path::ToFs(request.argv.back());
            WriteText(out / "component-result.json", R"({"componentId":"own","resultType":"Complete"})");
            zep::platform::ProcessResult result;
            result.started = true;
            result.exitCode = exitCode;
            return result;
        };
    }
};

TEST_F(PackageDiagnosticsTest, NoPackagesLogsOnlyTheOpening) {
    manager->GenerateDiagnosticsForPackages();
    EXPECT_EQ(platform.log->Count(kLabel), 1u);
    EXPECT_TRUE(platform.log->Contains(std::string(kLabel) + ": Generate diagnostics for packages"));
    EXPECT_TRUE(platform.processes->Spawns().empty());
}

TEST_F(PackageDiagnosticsTest, PackagesWithoutTheirFolderOrScriptAreSkipped) {
    platform.policy->Add(L"com.quorin.nofolder", L"No folder");
    platform.policy->Add(L"com.quorin.noscript", L"No script");
    std::filesystem::create_directories(PackageTemp("com.quorin.noscript"));
    WriteText(PackageTemp("com.quorin.noscript") / "install.ps1", "");  // the Windows script is not ours

    manager->GenerateDiagnosticsForPackages();
    EXPECT_TRUE(platform.log->Contains(std::string(kLabel) + ": skip package com.quorin.nofolder (package temp folder missing): " +
                                       (platform.rootPath / "packages/com.quorin.nofolder/temp").string()));
    EXPECT_TRUE(platform.log->Contains(std::string(kLabel) + " install.ps1 not available in : " +
                                       PackageTemp("com.quorin.noscript").string() + " (package com.quorin.noscript)"));
    EXPECT_TRUE(platform.processes->Spawns().empty());
    EXPECT_FALSE(std::filesystem::exists(Output("com.quorin.noscript")));
}

TEST_F(PackageDiagnosticsTest, ScriptRunsAsAnArgumentVectorInListOrder) {
    InstallPackage("com.quorin.b");
    InstallPackage("com.quorin.a");
    manager->GenerateDiagnosticsForPackages();

    const auto spawns = platform.processes->Spawns();
    ASSERT_EQ(spawns.size(), 2u);
    EXPECT_THAT(spawns[0].argv, ElementsAre(L"/bin/sh", zep::path::FromFs(PackageTemp("com.quorin.b") / "install.sh"),
                                            L"-command", L"get-diagnostics", L"-outDir",
                                            zep::path::FromFs(Output("com.quorin.b"))));
    EXPECT_EQ(spawns[1].argv[1], zep::path::FromFs(PackageTemp("com.quorin.a") / "install.sh"));
    EXPECT_TRUE(platform.log->Contains(std::string(kLabel) + ": running diagnostics for package: com.quorin.b"));
}

TEST_F(PackageDiagnosticsTest, WindowsWayRunsThePowerShellCommandLine) {
    platform.env.collection = nullptr;
    platform.Reinstall();
    platform.policy->Add(L"com.quorin.vpn", L"VPN");
    WriteText(PackageTemp("com.quorin.vpn") / "install.ps1", "");
    manager->GenerateDiagnosticsForPackages();

    const auto lines = platform.processes->CommandLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], L"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe -ExecutionPolicy bypass "
                        L"-NoProfile -NonInteractive -WindowStyle Hidden /f \"" +
                            zep::path::FromFs(PackageTemp("com.quorin.vpn") / "install.ps1") +
                            L"\" -command \"get-diagnostics\" -outDir \"" + zep::path::FromFs(Output("com.quorin.vpn")) +
                            L"\"");
}

TEST_F(PackageDiagnosticsTest, ScriptLongerThanTheTimeOutGetsTheTimeOutResult) {
    InstallPackage("com.quorin.slow");
    ScriptTakes(61s, 0);
    manager->GenerateDiagnosticsForPackages();

    EXPECT_TRUE(platform.log->Contains(std::string(kLabel) +
                                       ": package com.quorin.slow exceeded timeout; writing timeout component-result if applicable"));
    EXPECT_FALSE(platform.log->Contains("did not complete successfully"));
    Json::Value result;
    std::istringstream(ReadText(Output("com.quorin.slow") / "component-result.json")) >> result;
    EXPECT_EQ(result["componentId"].asString(), "com.quorin.slow");
    EXPECT_EQ(result["friendlyName"].asString(), "com.quorin.slow display name");
    EXPECT_EQ(result["resultType"].asString(), "ErrorTimeOut");
    EXPECT_EQ(result["executionTimeSeconds"].asString(), "0");
    EXPECT_FALSE(result["isProblematic"].asBool());
    EXPECT_FALSE(result["artifactsProvided"].asBool());
    EXPECT_TRUE(result["tests"].isArray());
    EXPECT_EQ(result["tests"].size(), 0u);
}

TEST_F(PackageDiagnosticsTest, TimeOutIsStrictlyLongerThanTheSetting) {
    InstallPackage("com.quorin.edge");
    ScriptTakes(60s, 0);
    manager->GenerateDiagnosticsForPackages();
    EXPECT_FALSE(platform.log->Contains("exceeded timeout"));
    EXPECT_THAT(ReadText(Output("com.quorin.edge") / "component-result.json"), ::testing::HasSubstr("\"own\""));
}

TEST_F(PackageDiagnosticsTest, ScriptThatFailsQuicklyIsOnlyLogged) {
    InstallPackage("com.quorin.broken");
    ScriptTakes(2s, 1);
    manager->GenerateDiagnosticsForPackages();
    EXPECT_TRUE(platform.log->Contains(std::string(kLabel) +
                                       ": package com.quorin.broken get-diagnostics process did not complete "
                                       "successfully (elapsedSec=2.00)"));
    EXPECT_FALSE(platform.log->Contains("exceeded timeout"));
    EXPECT_THAT(ReadText(Output("com.quorin.broken") / "component-result.json"), ::testing::HasSubstr("\"own\""));
}

TEST_F(PackageDiagnosticsTest, ScriptRunsUnderTheChildProcessCeiling) {
    InstallPackage("com.quorin.a");
    manager->GenerateDiagnosticsForPackages();
    platform.registry->SetDword(zep::platform::Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport",
                                L"ChildProcessTimeoutInSeconds", 5);
    manager->GenerateDiagnosticsForPackages();
    const auto spawns = platform.processes->Spawns();
    ASSERT_EQ(spawns.size(), 2u);
    EXPECT_EQ(spawns[0].timeout, std::chrono::milliseconds(30 * 60 * 1000)) << "the default ceiling";
    EXPECT_EQ(spawns[1].timeout, std::chrono::milliseconds(5000));
}

TEST_F(PackageDiagnosticsTest, PackageIdThatCannotNameAFolderIsSkipped) {
    platform.policy->Add(L"..", L"Parent");
    std::filesystem::create_directories(platform.rootPath / "packages");
    WriteText(platform.rootPath / "temp" / "install.sh", "");  // where "packages/../temp" points
    manager->GenerateDiagnosticsForPackages();
    EXPECT_TRUE(platform.processes->Spawns().empty());
    EXPECT_TRUE(platform.log->Contains("its id cannot name a folder"));
}

}  // namespace
