// Uploading a plug-in's zip (who may, with which token and metadata), the
// plug-in's delete preference, and what deleting its artifacts leaves.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include "DiagnosticScanner/PluginDiagnosticsProcessor.h"
#include "platform/CommonBase.h"
#include "platform/Paths.h"
#include "platform/Strings.h"
#include "support/ManagerFixture.h"
#include "support/TokenSigner.h"

namespace {

namespace fs = std::filesystem;
using zep::path::FromFs;
using zep::testing::ReadText;
using zep::testing::WriteText;

// ---- An RS256 provisioning token, made with OpenSSL independently of the module.

struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};

// Valid until 2100.
std::string SignToken() { return zep::testing::SignToken(zep::testing::TrustedKey(), zep::testing::kYear2100); }

Json::Value Parse(const std::string& text) {
    Json::Value value;
    std::istringstream(text) >> value;
    return value;
}

// Relative paths of everything below `dir`, folders with a trailing '/'.
std::set<std::string> Tree(const fs::path& dir) {
    std::set<std::string> out;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
        const std::string rel = entry.path().lexically_relative(dir).generic_string();
        out.insert(entry.is_directory() ? rel + "/" : rel);
    }
    return out;
}

class PluginUploadTest : public zep::testing::ManagerTest {
protected:
    PluginUploadTest() {
        platform.policy->platformPolicy.set_jws_pubkey({zep::text::FromUtf8(zep::testing::PublicKeyPem(zep::testing::TrustedKey()))});
        zipBytes = "PK\x03\x04";
        for (int i = 0; i < 2000; ++i) zipBytes.push_back(static_cast<char>(i * 13 % 251));
        WriteText(zip, zipBytes);
        WriteText(diag / "latest" / "scan-result.json", kScanResult);
    }

    FileStorageAgent::StoragError Upload() {
        return PluginDiagnosticsProcessor::UploadPluginDiagnosticsResult(*manager, FromFs(zip));
    }
    void Unregistered(bool commercialIntent) {
        platform.device->registered = false;
        platform.device->commercialIntent = commercialIntent;
    }
    void WriteBackupToken(const std::string& token) const {
        WriteText(platform.rootPath / "programdata" / "zep-provision-backup.json",
                  R"({"device_id":"LD-TEST01","provision_token":")" + token + R"("})");
    }
    std::vector<zep::testing::ScriptedStorage::Upload> Uploads() const { return platform.storage->Uploads(); }

    static constexpr const char* kScanResult = R"({"id":"scan1","components":[{"componentId":"acme"}]})";
    const fs::path diag = platform.rootPath / "programdata" / "plugin-data" / "acme" / "diagnostics";
    const fs::path zip = diag / "latest" / "0f4c2d1e-aaaa-bbbb-cccc-000000000001_acme.zip";
    std::string zipBytes;
};

// ---- Who uploads, and how ---------------------------------------------------------

TEST_F(PluginUploadTest, RegisteredDeviceUploadsWithoutTokenAndGetsTheAgentsResultUnchanged) {
    platform.storage->results = {503};

    EXPECT_EQ(Upload(), 503);

    const auto uploads = Uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].filePath, zip.string());
    EXPECT_FALSE(uploads[0].unregisteredDevice);
    EXPECT_EQ(uploads[0].provisionToken, "");
    EXPECT_TRUE(platform.log->Contains("PluginDiagnosticsProcessor::UploadPluginDiagnosticsResult: uploading plugin "
                                       "zip: " +
                                       zip.string()));
}

TEST_F(PluginUploadTest, UnregisteredDeviceUsesAVerifiedBackupTokenBeforeCommercialIntent) {
    Unregistered(true);
    const std::string token = SignToken();
    WriteBackupToken(token);

    EXPECT_EQ(Upload(), FileStorageAgent::Success);

    const auto uploads = Uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_TRUE(uploads[0].unregisteredDevice);
    EXPECT_EQ(uploads[0].provisionToken, token);
}

TEST_F(PluginUploadTest, UnregisteredDeviceWithCommercialIntentUploadsWithoutToken) {
    Unregistered(true);
    // A backup whose token fails verification is no token at all.
    for (bool unverifiableBackup : {false, true}) {
        if (unverifiableBackup) WriteBackupToken(SignToken() + "x");
        EXPECT_EQ(Upload(), FileStorageAgent::Success);
        const auto uploads = Uploads();
        ASSERT_FALSE(uploads.empty());
        EXPECT_TRUE(uploads.back().unregisteredDevice);
        EXPECT_EQ(uploads.back().provisionToken, "") << unverifiableBackup;
    }
    EXPECT_EQ(Uploads().size(), 2u);
}

TEST_F(PluginUploadTest, UnregisteredDeviceWithoutBackupOrCommercialIntentRefusesLocally) {
    Unregistered(false);
    for (bool unverifiableBackup : {false, true}) {
        if (unverifiableBackup) WriteBackupToken(SignToken() + "x");
        platform.log->Clear();

        EXPECT_EQ(Upload(), FileStorageAgent::LocalRefusal) << unverifiableBackup;

        EXPECT_TRUE(platform.log->Contains(
            "PluginDiagnosticsProcessor::UploadPluginDiagnosticsResult: device not registered and no provision "
            "backup"));
    }
    EXPECT_TRUE(Uploads().empty());
}

// ---- Metadata -------------------------------------------------------------------

TEST_F(PluginUploadTest, MetadataIsOneCompactObjectDescribingTheZipWithTheScanResultAsContext) {
    Upload();

    const std::string metadata = Uploads().at(0).metadata;
    EXPECT_EQ(metadata.find('\n'), std::string::npos) << metadata;
    EXPECT_EQ(metadata.find(": "), std::string::npos) << metadata;
    const Json::Value parsed = Parse(metadata);
    EXPECT_EQ(parsed.getMemberNames(), (std::vector<std::string>{"context", "hash", "name", "sizeInBytes"}));
    EXPECT_EQ(parsed["name"].asString(), "0f4c2d1e-aaaa-bbbb-cccc-000000000001_acme.zip");
    EXPECT_EQ(parsed["sizeInBytes"].asUInt64(), zipBytes.size());
    std::string digest;
    ASSERT_EQ(CoreUtility::CreateSHA256Hash(digest, zipBytes), 0u);
    EXPECT_EQ(parsed["hash"].asString(), digest);
    EXPECT_EQ(parsed["context"], Parse(kScanResult));
}

TEST_F(PluginUploadTest, MetadataLeavesContextOutWhenTheScanResultIsMissingOrUnparsable) {
    WriteText(diag / "latest" / "scan-result.json", "{not json");
    Upload();
    fs::remove(diag / "latest" / "scan-result.json");
    Upload();

    const auto uploads = Uploads();
    ASSERT_EQ(uploads.size(), 2u);
    for (const auto& upload : uploads) {
        EXPECT_EQ(Parse(upload.metadata).getMemberNames(), (std::vector<std::string>{"hash", "name", "sizeInBytes"}))
            << upload.metadata;
    }
    EXPECT_TRUE(platform.log->Contains(
        "PluginDiagnosticsProcessor::UploadPluginDiagnosticsResult: scan-result.json not found for plugin metadata"));
}

// ---- Delete preference ------------------------------------------------------------

TEST_F(PluginUploadTest, DeletePreferenceRoundTripsThroughLatest) {
    fs::remove_all(diag / "latest");
    for (bool wanted : {true, false}) {
        PluginDiagnosticsProcessor::SavePluginDeletePreference(*manager, FromFs(diag), wanted);
        bool read = !wanted;
        EXPECT_TRUE(PluginDiagnosticsProcessor::ReadPluginDeletePreference(FromFs(diag), read));
        EXPECT_EQ(read, wanted);
    }
    const Json::Value stored = Parse(ReadText(diag / "latest" / "plugin-upload-meta.json"));
    EXPECT_EQ(stored.getMemberNames(), std::vector<std::string>{"deleteFilesOnUpload"});
}

TEST_F(PluginUploadTest, UnreadableOrNonBooleanPreferenceIsNotRead) {
    const fs::path meta = diag / "latest" / "plugin-upload-meta.json";
    for (const char* content : {"", "{broken", R"({"deleteFilesOnUpload":"false"})", R"({"deleteFilesOnUpload":0})",
                                R"([true])", R"({"other":true})"}) {
        WriteText(meta, content);
        bool read = true;
        EXPECT_FALSE(PluginDiagnosticsProcessor::ReadPluginDeletePreference(FromFs(diag), read)) << content;
        EXPECT_TRUE(read) << content;
    }
    fs::remove(meta);
    bool read = false;
    EXPECT_FALSE(PluginDiagnosticsProcessor::ReadPluginDeletePreference(FromFs(diag), read));
    EXPECT_FALSE(read);
}

// ---- Deleting the artifacts ----------------------------------------------------------

TEST_F(PluginUploadTest, DeletesResultContextLogsAndZipButKeepsHistoryAndLatest) {
    WriteText(diag / "component-result.json", "{}");
    WriteText(diag / "context" / "sub" / "info.txt", "x");
    WriteText(diag / "Log" / "plugin.log", "x");
    WriteText(diag / "scan-history.log", "2026-11-21T10:15:30Z,Mqtt,0,0,0,\"\"\n");
    WriteText(diag / "latest" / "plugin-upload-meta.json", R"({"deleteFilesOnUpload":true})");
    WriteText(diag / "notes.txt", "the plug-in's other files are its own");

    PluginDiagnosticsProcessor::DeletePluginDiagnosticsArtifacts(*manager, FromFs(diag), FromFs(zip));

    EXPECT_EQ(Tree(diag), (std::set<std::string>{"latest/", "latest/plugin-upload-meta.json",
                                                 "latest/scan-result.json", "notes.txt", "scan-history.log"}));
    EXPECT_TRUE(platform.log->Contains("PluginDiagnosticsProcessor::DeletePluginDiagnosticsArtifacts: deleting plugin "
                                       "diagnostics artifacts from " +
                                       diag.string()));
    EXPECT_TRUE(platform.log->Contains(
        "PluginDiagnosticsProcessor::DeletePluginDiagnosticsArtifacts: plugin diagnostics artifacts deleted"));
}

}  // namespace
