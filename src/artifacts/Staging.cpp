// Staging of one scan: the scan's component tree, the agent's context and
// logs and the scan result are gathered in a folder named after the device
// and the scan, which is then packed into the scan's zip.
#include <exception>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "artifacts/FileCount.h"
#include "platform/agent/CommonBase.h"
#include "platform/util/Paths.h"

using zep::path::kSeparator;

namespace {
constexpr const char* kCreateZipFolder = "DiagnosticsManager::CreateZipFolder";
constexpr const char* kCopyDataInZip = "DiagnosticsManager::CopyDataInZip";
constexpr const char* kCopyScanResultFile = "DiagnosticsManager::CopyScanResultFile";
constexpr const wchar_t* kScanResultFileName = L"scan-result.json";
}  // namespace

void DiagnosticsManager::CreateZipFolder() {
    std::wstring latest;
    std::wstring name;
    GetScanFolderPath(latest);
    GetZipFolderName(name);
    const std::wstring staging = latest + name;

    // An archive inside the archive would grow with every scan.
    std::wstring earlierZip;
    if (FileSystem::FindFileInDirectoryTree(latest, L".zip", earlierZip)) {
        if (FileSystem::deleteDirectoryOrFile(earlierZip, false)) {
            g_log.d(L"%s Delete existing zip file %s", kCreateZipFolder, earlierZip);
        } else {
            g_log.d(L"%s Not able to delete existing zip file %s", kCreateZipFolder, earlierZip);
        }
    }

    FileSystem::createDirectory(staging, false);
    g_log.d(L"%s: staging diagnostics under %s", kCreateZipFolder, staging);
    CopyDataInZip(staging);

    GetScanFolderPath(latest);
    GetZipFolderName(name);
    CreateZip(staging, latest, name + L".zip");
}

void DiagnosticsManager::CopyDataInZip(const std::wstring& stagingFolder) {
    if (!FileSystem::directoryExists(stagingFolder)) FileSystem::createDirectory(stagingFolder, false);

    std::wstring componentFolder;
    GetComponentFolderPath(componentFolder);
    const std::wstring temp = componentFolder + kSeparator + scanID;

    try {
        if (FileSystem::directoryExists(temp)) {
            if (!FileSystem::copyDir(temp, stagingFolder)) {
                g_log.d(L"%s: copy failed; destination may be incomplete (files under staging=%llu)", kCopyDataInZip,
                        zep::artifacts::CountFilesInTree(stagingFolder));
            }
        } else {
            g_log.d(L"%s: no temp scan folder to copy (missing): %s", kCopyDataInZip, temp);
        }

        const std::wstring agent =
            stagingFolder + kSeparator + (generator ? generator->GetFriendlyName() : std::wstring(L"ZEP"));
        if (FileSystem::directoryExists(agent)) {
            AddZEPContext(agent);
            AddZEPLog(agent);
            AddIfArtifactsWereProvided(agent + kSeparator + componentResultFileName);
        } else {
            g_log.d(L"%s: post-copy ZEP component folder missing (skipping ZEP log/context merge): %s",
                    kCopyDataInZip, agent);
        }

        std::wstring latest;
        GetScanFolderPath(latest);
        // The latest folder ends with a separator already; the doubled one is harmless.
        AddIfArtifactsWereProvided(latest + kSeparator + kScanResultFileName);
        CopyScanResultFile(stagingFolder);
    } catch (...) {
        // The temporary tree goes whatever happened; the failure itself is the
        // scan phase's to report.
        FileSystem::deleteDirectoryOrFile(temp, true);
        throw;
    }
    FileSystem::deleteDirectoryOrFile(temp, true);
}

void DiagnosticsManager::CopyScanResultFile(const std::wstring& stagingFolder) {
    try {
        std::wstring latest;
        GetScanFolderPath(latest);
        const std::wstring source = latest + kScanResultFileName;
        const std::wstring destination = stagingFolder + kSeparator + kScanResultFileName;
        if (FileSystem::fileExists(source)) {
            if (FileSystem::copyFile(source, destination)) {
                g_log.d(L"%s File Copied successfully %s", kCopyScanResultFile, source);
            } else {
                g_log.d(L"%s: ERROR copyFile returned false src=%s dst=%s", kCopyScanResultFile, source, destination);
            }
        } else {
            g_log.d(L"%s Scan File does not exist", kCopyScanResultFile);
        }
    } catch (const std::exception& ex) {
        g_log.d(L"%s: Exception Occurred: %ls", kCopyScanResultFile, String::UTF8ToUTF16(ex.what()));
    }
}
