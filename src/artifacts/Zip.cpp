// Packing a staging folder into one archive. The inputs are normalised first
// so that nothing a caller passes can leave the quoted PowerShell arguments
// or put the archive outside the destination folder.
#include <exception>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "artifacts/PowerShellCollection.h"
#include "artifacts/ZipNames.h"
#include "platform/agent/CommonBase.h"
#include "platform/util/Paths.h"

namespace {
constexpr const char* kCreateZip = "DiagnosticsManager::CreateZip";
}  // namespace

void DiagnosticsManager::CreateZip(std::wstring sourceDir, std::wstring destinationDir, std::wstring zipFileName) {
    try {
        const std::wstring source = zep::artifacts::TrimTrailingSeparators(sourceDir);
        const std::wstring destination = zep::artifacts::TrimTrailingSeparators(destinationDir);
        const std::wstring name = zep::artifacts::SanitizeZipFileName(zipFileName);

        if (source.empty() || !FileSystem::directoryExists(source)) {
            g_log.d(L"%s Source directory missing or invalid: %s", kCreateZip, source);
            return;
        }
        if (destination.empty()) {
            g_log.d(L"%s Destination directory missing or invalid.", kCreateZip);
            return;
        }
        if (name.empty()) {
            g_log.d(L"%s Zip file name empty or invalid after sanitization (input: %s).", kCreateZip, zipFileName);
            return;
        }

        // The name is used as given: callers pass it with its extension.
        const std::wstring zipPath = destination + zep::path::kSeparator + name;

        // Compression never overwrites, so an old archive must go first.
        if (FileSystem::fileExists(zipPath)) {
            if (!FileSystem::deleteDirectoryOrFile(zipPath, false)) {
                g_log.d(L"%s Failed to remove existing zip before compress: %s", kCreateZip, zipPath);
                return;
            }
            g_log.d(L"%s Removed existing destination zip: %s", kCreateZip, zipPath);
        }

        const int compressed = zep::artifacts::Collector(hostContext)->CompressFolder(source, zipPath);

        // The staged data goes only once the archive is seen on disk.
        if (compressed != 0 && FileSystem::fileExists(zipPath) && FileSystem::directoryExists(source)) {
            g_log.d(L"%s Created Zip for diagnostics successfully: %s", kCreateZip, source);
            if (FileSystem::deleteDirectoryOrFile(source, true)) {
                g_log.d(L"%s Source directory deleted successfully: %s", kCreateZip, source);
            } else {
                g_log.d(L"%s Failed to delete source directory: %s", kCreateZip, source);
            }
        }
    } catch (const std::exception& ex) {
        g_log.e(L"%s: Exception Occurred: %ls", kCreateZip, String::UTF8ToUTF16(ex.what()));
    } catch (...) {
        g_log.e(L"%s: Exception Occurred: %ls", kCreateZip, std::wstring(L"unknown exception"));
    }
}
