// Every installed package is asked for its own diagnostics: its script runs
// with "get-diagnostics" into the package's folder of the scan.
#include <json/json.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "artifacts/PowerShellCollection.h"
#include "manager/ScanName.h"
#include "platform/agent/AgentPolicies.h"
#include "platform/agent/CommonBase.h"
#include "platform/env/Env.h"
#include "platform/util/Paths.h"

using zep::path::kSeparator;

namespace {
constexpr const char* kPackages = "DiagnosticsManager::GenerateDiagnosticsForPackages";

std::int64_t SteadyNanoseconds() { return zep::platform::CurrentEnv()->clock->SteadyNow().count(); }
}  // namespace

void DiagnosticsManager::GenerateDiagnosticsForPackages() {
    g_log.d(L"%s: Generate diagnostics for packages", kPackages);
    const std::vector<Package> packages = ConfigPolicyAgent::GetInstance()->GetUpdatePolicy().packages;
    const auto collector = zep::artifacts::Collector(hostContext);

    for (const auto& package : packages) {
        const std::wstring tempFolder =
            UpdateUtility::GetPackageRepositoryFolder(package, true) + zep::path::NativePath(L"\\temp");
        if (!FileSystem::directoryExists(tempFolder)) {
            g_log.d(L"%s: skip package %s (package temp folder missing): %s", kPackages, package.id, tempFolder);
            continue;
        }
        const std::wstring script = tempFolder + kSeparator + collector->PackageScriptName();
        if (!FileSystem::fileExists(script)) {
            g_log.d(L"%s install.ps1 not available in : %s (package %s)", kPackages, tempFolder, package.id);
            continue;
        }
        // The id names a folder of the scan, which is deleted recursively later.
        if (!zep::manager::IsSafeScanName(package.id)) {
            g_log.e(L"%s: skip package '%s': its id cannot name a folder", kPackages,
                    package.id);
            continue;
        }
        g_log.d(L"%s: running diagnostics for package: %s", kPackages, package.id);

        std::wstring componentFolder;
        GetComponentFolderPath(componentFolder);
        const std::wstring outputFolder = componentFolder + kSeparator + scanID + kSeparator + package.id;
        FileSystem::createDirectory(outputFolder, true);

        const std::int64_t start = SteadyNanoseconds();
        const int launched = collector->RunPackageScript(script, outputFolder);
        const double elapsedSeconds = static_cast<double>(SteadyNanoseconds() - start) / 1e9;

        if (launched == 0) {
            g_log.d(L"%s: package %s get-diagnostics process did not complete successfully (elapsedSec=%.2f)",
                    kPackages, package.id, elapsedSeconds);
        }
        // Judged after the script ended, like the health tests: it is not stopped.
        if (elapsedSeconds > static_cast<double>(_testTimeoutInSeconds.load())) {
            g_log.d(L"%s: package %s exceeded timeout; writing timeout component-result if applicable", kPackages,
                    package.id);
            GenerateComponentResultForPackage(package, outputFolder);
        }
    }
}

void DiagnosticsManager::GenerateComponentResultForPackage(const zep::platform::Package& package,
                                                           const std::wstring& outputFolder) {
    Json::Value document(Json::objectValue);
    document["componentId"] = String::UTF16ToUTF8(package.id);
    document["executionTimeSeconds"] = "0";
    document["friendlyName"] = String::UTF16ToUTF8(package.name);
    document["isProblematic"] = false;
    document["resultType"] = "ErrorTimeOut";
    document["artifactsProvided"] = false;
    document["tests"] = Json::Value(Json::arrayValue);
    FileSystem::createDirectory(outputFolder, true);
    SaveComponentResultsToFile(document, outputFolder + kSeparator + componentResultFileName);
}
