#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "support/ManagerFixture.h"

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using zep::testing::ManagerTest;
using zep::testing::ReadText;
using zep::testing::WriteText;

namespace {

const std::string kLabel = "DiagnosticsManager::GenerateDiagnosticsForPackages";

class PackageDiagnosticsTest : public ManagerTest {
protected:
    PackageDiagnosticsTest() { peer->scanID() = L"scan1"; }

    std::filesystem::path PackageTemp(const std::string& id) { return platform.rootPath / "packages" / id / "temp"; }
    void InstallPackage(const std::string& id) {
        platform.policy->Add(zep::text::FromUtf8(id), zep::text::FromUtf8(id + " display name"));
        WriteText(PackageTemp(id) / "install.sh", "#!/bin/sh\n");
    }
    std::filesystem::path Output(const std::string& id) {
        return platform.rootPath / "temp" / "Quorin" / "Zep" / "scan1" / id;
    }
    void ScriptTakes(std::chrono::nanoseconds duration, int exitCode) {
        platform.processes->onSpawn = [this, duration, exitCode](const zep::platform::ProcessRequest& request) {
            platform.clock->Advance(duration);
            WriteText(zep::path::ToFs(request.argv.back()) / "component-result.json", R"({"componentId":"own"})");
            zep::platform::ProcessResult result;
            result.started = true;
            result.exitCode = exitCode;
            return result;
        };
    }
};

TEST_F(PackageDiagnosticsTest, PackagesWithoutFolderScriptOrSafeIdAreSkipped) {
    ZEP_REQUIRE_SHELL_PACKAGE_SCRIPTS();
    platform.policy->Add(L"com.quorin.nofolder", L"No folder");
    platform.policy->Add(L"com.quorin.noscript", L"No script");
    WriteText(PackageTemp("com.quorin.noscript") / "install.ps1", "");  // the Windows script is not ours
    platform.policy->Add(L"..", L"Parent");
    WriteText(platform.rootPath / "temp" / "install.sh", "");  // where "packages/../temp" points

    manager->GenerateDiagnosticsForPackages();
    EXPECT_TRUE(platform.log->Contains(kLabel + ": skip package com.quorin.nofolder (package temp folder missing): " +
                                       (platform.rootPath / "packages/com.quorin.nofolder/temp").string()));
    EXPECT_TRUE(platform.log->Contains(kLabel + " install.ps1 not available in : " +
                                       PackageTemp("com.quorin.noscript").string() + " (package com.quorin.noscript)"));
    EXPECT_TRUE(platform.log->Contains("its id cannot name a folder"));
    EXPECT_TRUE(platform.processes->Spawns().empty());
    EXPECT_FALSE(std::filesystem::exists(Output("com.quorin.noscript")));
}

// An argument vector, never a shell line, under the child-process ceiling.
TEST_F(PackageDiagnosticsTest, ScriptRunsAsAnArgumentVectorInListOrderUnderTheCeiling) {
    ZEP_REQUIRE_SHELL_PACKAGE_SCRIPTS();
    InstallPackage("com.quorin.b");
    InstallPackage("com.quorin.a");
    manager->GenerateDiagnosticsForPackages();
    platform.registry->SetDword(zep::platform::Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport",
                                L"ChildProcessTimeoutInSeconds", 5);
    manager->GenerateDiagnosticsForPackages();

    const auto spawns = platform.processes->Spawns();
    ASSERT_EQ(spawns.size(), 4u);
    EXPECT_THAT(spawns[0].argv, ElementsAre(L"/bin/sh", zep::path::FromFs(PackageTemp("com.quorin.b") / "install.sh"),
                                            L"-command", L"get-diagnostics", L"-outDir",
                                            zep::path::FromFs(Output("com.quorin.b"))));
    EXPECT_EQ(spawns[1].argv[1], zep::path::FromFs(PackageTemp("com.quorin.a") / "install.sh"));
    EXPECT_EQ(spawns[0].timeout, std::chrono::milliseconds(30 * 60 * 1000));
    EXPECT_EQ(spawns[2].timeout, std::chrono::milliseconds(5000));
}

// Judged after the script ended: exactly the time-out is in time.
TEST_F(PackageDiagnosticsTest, TimeOutResultReplacesTheScriptsOnlyWhenItRanTooLong) {
    ZEP_REQUIRE_SHELL_PACKAGE_SCRIPTS();
    InstallPackage("com.quorin.slow");
    const auto ownResult = [&] { return ReadText(Output("com.quorin.slow") / "component-result.json"); };
    ScriptTakes(60s, 0);
    manager->GenerateDiagnosticsForPackages();
    EXPECT_THAT(ownResult(), HasSubstr("\"own\""));
    ScriptTakes(2s, 1);
    manager->GenerateDiagnosticsForPackages();
    EXPECT_TRUE(platform.log->Contains(kLabel + ": package com.quorin.slow get-diagnostics process did not complete "
                                                "successfully (elapsedSec=2.00)"));
    EXPECT_THAT(ownResult(), HasSubstr("\"own\""));
    EXPECT_FALSE(platform.log->Contains("exceeded timeout"));

    platform.log->Clear();
    ScriptTakes(61s, 0);
    manager->GenerateDiagnosticsForPackages();
    EXPECT_TRUE(platform.log->Contains(
        kLabel + ": package com.quorin.slow exceeded timeout; writing timeout component-result if applicable"));
    EXPECT_FALSE(platform.log->Contains("did not complete successfully"));
    const Json::Value result = zep::testing::ParseJson(ownResult());
    EXPECT_EQ(result["componentId"].asString(), "com.quorin.slow");
    EXPECT_EQ(result["friendlyName"].asString(), "com.quorin.slow display name");
    EXPECT_EQ(result["resultType"].asString(), "ErrorTimeOut");
    EXPECT_EQ(result["executionTimeSeconds"].asString(), "0");
    EXPECT_FALSE(result["isProblematic"].asBool());
    EXPECT_FALSE(result["artifactsProvided"].asBool());
    EXPECT_EQ(result["tests"], Json::Value(Json::arrayValue));
}

}  // namespace
