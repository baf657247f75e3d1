// Sending a scan's results to the cloud's file storage: the zip, or only the
// scan result, with a metadata document that describes the file.
#include <cstdint>
#include <exception>
#include <sstream>
#include <stdexcept>
#include <string>

#include <json/json.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/util/JsonText.h"
#include "platform/util/ExceptionText.h"
#include "platform/agent/CommonBase.h"
#include "platform/agent/FileStorageAgent.h"
#include "platform/util/Paths.h"

namespace {
constexpr const char* kUploadLabel = "DiagnosticsManager::UploadDiagnosticsResults";
constexpr const char* kMetadataLabel = "DiagnosticsManager::GetMetadata";
constexpr const char* kFetchTokenLabel = "DiagnosticsManager::FetchVerifiedProvisionTokenFromBackUp";
constexpr const char* kArtifactSizeLabel = "DiagnosticsManager::AddArtifactSize";

constexpr std::uint32_t kManualTrigger = 0;
constexpr std::uint32_t kMqttTrigger = 2;


std::wstring ProvisionBackupPath() {
    std::wstring root;
    utility::GetZepAppDataRootPath(root);
    return root + zep::path::NativePath(L"\\zep-provision-backup.json");
}

// UTF-16LE to wide text; pairs are joined where wchar_t holds whole code
// points, and a lone surrogate becomes U+FFFD there.
std::wstring DecodeUtf16Le(const std::string& bytes, std::size_t offset) {
    std::wstring out;
    const auto unitAt = [&bytes](std::size_t i) {
        return static_cast<char32_t>(static_cast<unsigned char>(bytes[i]) |
                                     (static_cast<unsigned char>(bytes[i + 1]) << 8));
    };
    for (std::size_t i = offset; i + 1 < bytes.size(); i += 2) {
        char32_t unit = unitAt(i);
        if constexpr (sizeof(wchar_t) == 2) {
            out.push_back(static_cast<wchar_t>(unit));
        } else {
            if (unit >= 0xD800 && unit <= 0xDBFF && i + 3 < bytes.size()) {
                const char32_t low = unitAt(i + 2);
                if (low >= 0xDC00 && low <= 0xDFFF) {
                    out.push_back(static_cast<wchar_t>(0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00)));
                    i += 2;
                    continue;
                }
            }
            if (unit >= 0xD800 && unit <= 0xDFFF) unit = 0xFFFD;
            out.push_back(static_cast<wchar_t>(unit));
        }
    }
    return out;
}

// The backup as the agent writes it: UTF-8, or UTF-16LE behind its byte-order mark.
std::wstring DecodeBackupText(const std::string& bytes) {
    if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFF &&
        static_cast<unsigned char>(bytes[1]) == 0xFE) {
        return DecodeUtf16Le(bytes, 2);
    }
    if (bytes.size() >= 3 && bytes.compare(0, 3, "\xEF\xBB\xBF") == 0) {
        return String::UTF8ToUTF16(bytes.substr(3));
    }
    return String::UTF8ToUTF16(bytes);
}

bool IsConnected() {
    DWORD flags = 0;
    return NetworkUtility().IsInternetConnected(flags);
}

}  // namespace

void DiagnosticsManager::UploadDiagnosticsResults() {
    try {
        std::wstring latest;
        GetScanFolderPath(latest);
        std::wstring scanResultPath = latest + L"scan-result.json";
        std::wstring zipName;
        GetZipFolderName(zipName);
        std::wstring zipPath = latest + zipName + L".zip";

        // A scheduled scan that only finds problems already reported sends
        // its small summary; requested scans always send their artifacts.
        const bool scheduled = triggerType != kManualTrigger && triggerType != kMqttTrigger;
        const bool sendZip = !scheduled || !IsProblemSignatureDuplicate(problemSignature);

        std::string metadata = "{}";
        const auto upload = [&](bool zip, bool unregisteredDevice, const std::string& token) {
            std::wstring& filePath = zip ? zipPath : scanResultPath;
            GetMetadata(metadata, scanResultPath, filePath);
            const FileStorageAgent::StoragError result = FileStorageAgent::GetInstance()->UploadDiagResult(
                String::UTF16ToUTF8(filePath), unregisteredDevice, metadata, token);
            LogFileUploadResut(zip ? "zip" : "json", result);
            if (zip) artifactIncludedStatus = 0;
        };
        // Remembered so that the history marks the upload as pending and the
        // upload is resumed when the device is back online.
        const auto online = [&] {
            if (IsConnected()) return true;
            g_log.d(L"file not uploaded due to offline");
            networkStatus = false;
            return false;
        };

        if (CoreUtility::GetInstance()->IsDeviceRegistered()) {
            if (!DeviceSubscriptionUtility::isDeviceProvision()) return;
            if (!online()) return;
            upload(sendZip, false, std::string());
        } else if (IsProvisionBackupAvailable()) {
            std::string token;
            if (!FetchVerifiedProvisionTokenFromBackUp(token) || token.empty()) return;
            if (!online()) return;
            upload(sendZip, true, token);
        } else {
            // An unregistered device without a provisioning token sends only
            // its scan result, whatever the trigger.
            if (!DeviceSubscriptionUtility::isDeviceProvision()) return;
            if (!online()) return;
            upload(false, true, std::string());
        }
    } catch (...) {
        g_log.d(L"%s: Exception Occurred: %ls", kUploadLabel, zep::CurrentExceptionText());
    }
}

void DiagnosticsManager::GetMetadata(std::string& metadata, std::wstring& scanResultPath, std::wstring& filePath) {
    metadata = "{}";
    Json::Value description(Json::objectValue);
    description["name"] = String::UTF16ToUTF8(FileSystem::getFileName(filePath));
    description["sizeInBytes"] = Json::Value(static_cast<Json::UInt64>(FileSystem::fileSize(filePath)));
    description["hash"] = String::UTF16ToUTF8(utility::GetFileHash(filePath, L"SHA-256"));

    std::string text;
    if (!FileSystem::readFile(scanResultPath, text)) {
        // Names the file being described, not the scan result that failed to open.
        g_log.d(L"%s Error opening scan result file:%s", kMetadataLabel, filePath);
        return;
    }
    Json::Value context;  // null when the scan result does not parse
    zep::json::Parse(text, context);
    description["context"] = context;

    metadata = Json::writeString(Json::StreamWriterBuilder(), description);
}

bool DiagnosticsManager::IsProvisionBackupAvailable() const { return FileSystem::fileExists(ProvisionBackupPath()); }

bool DiagnosticsManager::FetchVerifiedProvisionTokenFromBackUp(std::string& token) const {
    // Nothing read here is ever logged: the file holds a credential.
    try {
        std::string bytes;
        if (!FileSystem::readFile(ProvisionBackupPath(), bytes)) return false;

        Json::Value backup;
        if (!zep::json::Parse(String::UTF16ToUTF8(DecodeBackupText(bytes)), backup)) return false;

        token.clear();
        if (backup.isObject()) {
            const Json::Value& value = backup["provision_token"];
            if (value.isString()) token = value.asString();
        }

        std::string claims;
        return CoreUtility::VerifyJWT(token, claims, zep::AgentFactory::GetInstance()->GetConfigPolicyAgent(),
                                      DeveloperSettings::GetInstance()->DisableJwtValidation());
    } catch (...) {
        g_log.d(L"%s: Exception Occurred: %ls", kFetchTokenLabel, zep::CurrentExceptionText());
        return false;
    }
}

void DiagnosticsManager::LogFileUploadResut(std::string fileType, FileStorageAgent::StoragError error) {
    if (error == FileStorageAgent::Success) {
        fileUploadStatus = true;
        g_log.d(L"%s file upload successfull", fileType);
    } else {
        fileUploadStatus = false;
        g_log.d(L"%s file upload falied err: %d", fileType, error);
    }
}

int DiagnosticsManager::GetFileUploadToCloudStatus() const {
    if (!networkStatus) {
        g_log.d(L"Network not connected");
        return 2;
    }
    if (fileUploadStatus) {
        g_log.d(L"Network connected, upload success");
        return 0;
    }
    g_log.d(L"Network connected, but not uploaded due to error");
    return 1;
}

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
