#include <cstdint>
#include <exception>
#include <sstream>
#include <stdexcept>
#include <string>

#include <json/json.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/CommonBase.h"

namespace {
constexpr const char* kArtifactSizeLabel = "DiagnosticsManager::AddArtifactSize";
}  // namespace

// Results are not uploaded yet.
void DiagnosticsManager::UploadDiagnosticsResults() {}

void DiagnosticsManager::AddArtifactSize() {
    try {
        std::wstring latest;
        GetScanFolderPath(latest);
        std::wstring zipName;
        GetZipFolderName(zipName);
        // 0 when the archive is missing: the document then says so.
        const std::uint64_t size = FileSystem::fileSize(latest + zipName + L".zip");

        const std::wstring resultPath = latest + L"scan-result.json";
        if (!FileSystem::fileExists(resultPath)) return;
        std::string text;
        if (!FileSystem::readFile(resultPath, text)) {
            throw std::runtime_error("cannot read " + String::UTF16ToUTF8(resultPath));
        }
        std::istringstream in(text);
        Json::Value document;
        in >> document;
        document["artifactSize"] = Json::Value(static_cast<Json::UInt64>(size));
        SaveComponentResultsToFile(document, resultPath);
    } catch (const std::exception& ex) {
        g_log.d(L"%s: Exception Occurred: %ls", kArtifactSizeLabel, String::UTF8ToUTF16(ex.what()));
    }
}
