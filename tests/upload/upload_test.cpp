// Uploading a scan's results: which file goes, with which token and metadata,
// and what the manager remembers for the scan history.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include "platform/Strings.h"
#include "support/ManagerFixture.h"
#include "support/TokenSigner.h"

namespace {

using namespace zep::testing;

namespace fs = std::filesystem;
using zep::testing::ReadText;
using zep::testing::WriteText;
using Upload = zep::testing::ScriptedStorage::Upload;

constexpr const char* kSignature = "5d41402abc4b2a76b9719d911017c592ae1f6e3a5b8c0f4d2e6a7b9c1d3e5f70";
constexpr const char* kScanResult =
    R"({"id":"scan1","trigger":"Mqtt","isProblematic":true,"failTestCount":2,)"
    R"("problemSignature":"5d41402abc4b2a76b9719d911017c592ae1f6e3a5b8c0f4d2e6a7b9c1d3e5f70",)"
    R"("components":[{"componentId":"zep","result":"fail"}]})";

// ---- Digests, made with OpenSSL independently of the module.


constexpr long long kYear2001 = 1000000000;

std::string Sha256Hex(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) {
        hex.push_back(kHex[digest[i] >> 4]);
        hex.push_back(kHex[digest[i] & 0x0F]);
    }
    return hex;
}

std::string Utf16LeWithBom(const std::string& ascii) {
    std::string bytes = "\xFF\xFE";
    for (char c : ascii) {
        bytes.push_back(c);
        bytes.push_back('\0');
    }
    return bytes;
}

Json::Value Parse(const std::string& text) {
    Json::Value value;
    std::istringstream(text) >> value;
    return value;
}

class UploadTest : public zep::testing::ManagerTest {
protected:
    UploadTest() {
        peer->scanID() = L"scan1";
        peer->triggerType() = 2;
        peer->problemSignature() = zep::text::FromUtf8(kSignature);
        platform.policy->platformPolicy.set_jws_pubkey({zep::text::FromUtf8(PublicKeyPem(TrustedKey()))});
        WriteText(ResultFile(), kScanResult);
        WriteText(ZipFile(), ZipBytes());
    }

    static std::string ZipBytes() {
        std::string bytes = "PK\x03\x04";
        for (int i = 0; i < 3000; ++i) bytes.push_back(static_cast<char>(i * 7 % 251));
        return bytes;
    }

    fs::path Programdata() const { return platform.rootPath / "programdata"; }
    fs::path ResultFile() const { return Programdata() / "diagnostics" / "latest" / "scan-result.json"; }
    fs::path ZipFile() const { return Programdata() / "diagnostics" / "latest" / "LD-TEST01_scan1.zip"; }
    // The paths as the module spells them when it hands them to the storage agent.
    std::string ZipPathText() const { return zep::text::ToUtf8(peer->ScanFolder() + L"LD-TEST01_scan1.zip"); }
    std::string ResultPathText() const { return zep::text::ToUtf8(peer->ScanFolder() + L"scan-result.json"); }

    void WriteBackup(const std::string& bytes) const { WriteText(Programdata() / "zep-provision-backup.json", bytes); }
    void WriteBackupToken(const std::string& token) const {
        WriteBackup(R"({"device_id":"LD-TEST01","provision_token":")" + token + R"("})");
    }
    void RemoveBackup() const { fs::remove(Programdata() / "zep-provision-backup.json"); }

    void WriteUploadedSignatureToHistory() const {
        WriteText(Programdata() / "diagnostics" / "scan-history.log",
                  std::string("2026-11-20T10:00:00Z,Scheduled,0,1,2,") + kSignature + "\r\n");
    }

    void SetDevice(bool registered, bool provisioned, bool online) {
        platform.device->registered = registered;
        platform.device->provisioned = provisioned;
        platform.device->online = online;
    }

    std::vector<Upload> Uploads() const { return platform.storage->Uploads(); }

    void ExpectNeverLogged(const std::string& token) const {
        ASSERT_FALSE(token.empty());
        const std::string payload = token.substr(token.find('.') + 1, token.rfind('.') - token.find('.') - 1);
        for (const auto& line : platform.log->Lines()) {
            EXPECT_EQ(line.find(token), std::string::npos) << line;
            EXPECT_EQ(line.find(payload), std::string::npos) << line;
        }
    }
};

// ---- Devices that upload without a token, and those that never do ------------

TEST_F(UploadTest, RegisteredDeviceSendsTheZipDescribedByItsMetadata) {
    manager->UploadDiagnosticsResults();

    const auto uploads = Uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].filePath, ZipPathText());
    EXPECT_FALSE(uploads[0].unregisteredDevice);
    EXPECT_EQ(uploads[0].provisionToken, "");

    const Json::Value metadata = Parse(uploads[0].metadata);
    EXPECT_EQ(metadata["name"].asString(), "LD-TEST01_scan1.zip");
    ASSERT_TRUE(metadata["sizeInBytes"].isUInt64());
    EXPECT_EQ(metadata["sizeInBytes"].asUInt64(), ZipBytes().size());
    EXPECT_EQ(metadata["hash"].asString(), Sha256Hex(ZipBytes()));
    EXPECT_EQ(metadata["hash"].asString().size(), 64u);
    EXPECT_EQ(metadata["context"], Parse(kScanResult));

    // The cloud receives the JSON library's default rendering.
    Json::Value expected(Json::objectValue);
    expected["name"] = "LD-TEST01_scan1.zip";
    expected["sizeInBytes"] = Json::Value(static_cast<Json::UInt64>(ZipBytes().size()));
    expected["hash"] = Sha256Hex(ZipBytes());
    expected["context"] = Parse(kScanResult);
    EXPECT_EQ(uploads[0].metadata, Json::writeString(Json::StreamWriterBuilder(), expected));

    EXPECT_TRUE(platform.log->Contains("zip file upload successfull"));
    EXPECT_EQ(peer->artifactIncludedStatus(), 0);
    EXPECT_EQ(manager->GetFileUploadToCloudStatus(), 0);
    EXPECT_TRUE(platform.log->Contains("Network connected, upload success"));
}

TEST_F(UploadTest, UnprovisionedDeviceWithoutBackupStaysSilent) {
    // Offline as well: the provisioning check comes first and says nothing.
    for (const bool registered : {true, false}) {
        SCOPED_TRACE(registered ? "registered" : "unregistered");
        SetDevice(registered, false, false);
        const auto before = platform.log->Messages();

        manager->UploadDiagnosticsResults();

        EXPECT_TRUE(Uploads().empty());
        EXPECT_EQ(platform.log->Messages(), before);
        EXPECT_TRUE(peer->networkStatus());
        EXPECT_EQ(peer->artifactIncludedStatus(), 1);
    }
}

// ---- Offline ----------------------------------------------------------------

TEST_F(UploadTest, EveryUploadPathWaitsForTheNetwork) {
    struct Case {
        const char* name;
        bool registered;
        bool provisioned;
        bool backup;
    };
    const Case cases[] = {
        {"registered", true, true, false},
        {"unregistered with a provisioning backup", false, false, true},
        {"unregistered, provisioned, without backup", false, true, false},
    };
    const std::string token = SignToken(TrustedKey(), kYear2100);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SetDevice(c.registered, c.provisioned, false);
        RemoveBackup();
        if (c.backup) WriteBackupToken(token);
        peer->networkStatus() = true;
        platform.log->Clear();

        manager->UploadDiagnosticsResults();

        EXPECT_TRUE(Uploads().empty());
        EXPECT_EQ(platform.log->Count("file not uploaded due to offline"), 1u);
        EXPECT_FALSE(peer->networkStatus());
        EXPECT_EQ(peer->artifactIncludedStatus(), 1);
        EXPECT_EQ(manager->GetFileUploadToCloudStatus(), 2);
        EXPECT_TRUE(platform.log->Contains("Network not connected"));
    }
    ExpectNeverLogged(token);
}

// ---- Unregistered devices with a provisioning backup ------------------------

TEST_F(UploadTest, VerifiedBackupTokenLetsAnUnregisteredDeviceSendTheZip) {
    // Provisioning is not asked on this path: the token stands for it.
    SetDevice(false, false, true);
    const std::string token = SignToken(TrustedKey(), kYear2100);
    const std::string json = R"({"device_id":"LD-TEST01","provision_token":")" + token + R"("})";
    const std::string encodings[] = {json, "\xEF\xBB\xBF" + json, Utf16LeWithBom(json)};

    for (std::size_t i = 0; i < std::size(encodings); ++i) {
        SCOPED_TRACE(i);
        WriteBackup(encodings[i]);
        manager->UploadDiagnosticsResults();

        const auto uploads = Uploads();
        ASSERT_EQ(uploads.size(), i + 1);
        EXPECT_EQ(uploads[i].filePath, ZipPathText());
        EXPECT_TRUE(uploads[i].unregisteredDevice);
        EXPECT_EQ(uploads[i].provisionToken, token);
        EXPECT_EQ(Parse(uploads[i].metadata)["name"].asString(), "LD-TEST01_scan1.zip");
    }
    EXPECT_EQ(peer->artifactIncludedStatus(), 0);
    EXPECT_EQ(manager->GetFileUploadToCloudStatus(), 0);
    ExpectNeverLogged(token);
}

TEST_F(UploadTest, UnusableBackupTokenStopsTheUploadSilently) {
    // Offline too: the token is judged before the network, so nothing is marked offline.
    SetDevice(false, true, false);
    const std::string forged = SignToken(UnknownKey(), kYear2100);
    const std::string expired = SignToken(TrustedKey(), kYear2001);
    struct Case {
        const char* name;
        std::string backup;
    };
    const Case cases[] = {
        {"signed by an unknown key", R"({"provision_token":")" + forged + R"("})"},
        {"expired", R"({"provision_token":")" + expired + R"("})"},
        {"not a string", R"({"provision_token":42})"},
        {"missing", R"({"device_id":"LD-TEST01"})"},
        {"empty", R"({"provision_token":""})"},
        {"not JSON", "provision_token=abc"},
        {"not an object", R"(["provision_token"])"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        WriteBackup(c.backup);
        manager->UploadDiagnosticsResults();
        EXPECT_TRUE(Uploads().empty());
        EXPECT_TRUE(peer->networkStatus());
        EXPECT_EQ(peer->artifactIncludedStatus(), 1);
    }
    EXPECT_FALSE(platform.log->Contains("file upload"));
    EXPECT_FALSE(platform.log->Contains("offline"));
    EXPECT_FALSE(platform.log->Contains("Exception"));
    ExpectNeverLogged(forged);
    ExpectNeverLogged(expired);
}

TEST_F(UploadTest, DisabledJwtValidationAcceptsAWellFormedUnverifiableToken) {
    SetDevice(false, false, true);
    platform.settings->disableJwtValidation = true;
    const std::string forged = SignToken(UnknownKey(), kYear2001);
    WriteBackupToken(forged);

    manager->UploadDiagnosticsResults();

    const auto uploads = Uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].provisionToken, forged);
    EXPECT_TRUE(uploads[0].unregisteredDevice);
    ExpectNeverLogged(forged);
}

// ---- Unregistered devices without a backup -----------------------------------

TEST_F(UploadTest, ProvisionedDeviceWithoutBackupSendsOnlyTheScanResult) {
    SetDevice(false, true, true);
    // Whatever the trigger and even for a signature never seen: this path never sends the zip.
    peer->problemSignature() = std::wstring(64, L'b');
    for (const std::uint32_t trigger : {0u, 1u, 2u}) {
        SCOPED_TRACE(trigger);
        peer->triggerType() = trigger;
        platform.log->Clear();

        manager->UploadDiagnosticsResults();

        const auto uploads = Uploads();
        ASSERT_FALSE(uploads.empty());
        EXPECT_EQ(uploads.back().filePath, ResultPathText());
        EXPECT_TRUE(uploads.back().unregisteredDevice);
        EXPECT_EQ(uploads.back().provisionToken, "");
        const Json::Value metadata = Parse(uploads.back().metadata);
        EXPECT_EQ(metadata["name"].asString(), "scan-result.json");
        EXPECT_EQ(metadata["sizeInBytes"].asUInt64(), std::string(kScanResult).size());
        EXPECT_EQ(metadata["hash"].asString(), Sha256Hex(kScanResult));
        EXPECT_EQ(metadata["context"], Parse(kScanResult));

        EXPECT_TRUE(platform.log->Contains("json file upload successfull"));
        EXPECT_EQ(peer->artifactIncludedStatus(), 1);
        EXPECT_EQ(manager->GetFileUploadToCloudStatus(), 0);
    }
    EXPECT_EQ(Uploads().size(), 3u);
}

// ---- Repeated problem signatures ---------------------------------------------

TEST_F(UploadTest, ScheduledScanRepeatingAnUploadedSignatureSendsOnlyTheScanResult) {
    WriteUploadedSignatureToHistory();
    peer->triggerType() = 1;

    manager->UploadDiagnosticsResults();

    const auto uploads = Uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].filePath, ResultPathText());
    EXPECT_FALSE(uploads[0].unregisteredDevice);
    const Json::Value metadata = Parse(uploads[0].metadata);
    EXPECT_EQ(metadata["name"].asString(), "scan-result.json");
    EXPECT_EQ(metadata["hash"].asString(), Sha256Hex(kScanResult));
    EXPECT_EQ(metadata["context"], Parse(ReadText(ResultFile())));
    EXPECT_TRUE(platform.log->Contains("json file upload successfull"));
    EXPECT_EQ(peer->artifactIncludedStatus(), 1);
}

TEST_F(UploadTest, OnlyAScheduledScanWithARepeatedSignatureHoldsBackTheZip) {
    WriteUploadedSignatureToHistory();
    struct Case {
        const char* name;
        std::uint32_t trigger;
        std::string signature;
    };
    const Case cases[] = {
        {"manual, repeated", 0, kSignature},
        {"mqtt, repeated", 2, kSignature},
        {"scheduled, new", 1, std::string(64, 'a')},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        peer->triggerType() = c.trigger;
        peer->problemSignature() = zep::text::FromUtf8(c.signature);
        peer->artifactIncludedStatus() = 1;

        manager->UploadDiagnosticsResults();

        const auto uploads = Uploads();
        ASSERT_FALSE(uploads.empty());
        EXPECT_EQ(uploads.back().filePath, ZipPathText());
        EXPECT_EQ(peer->artifactIncludedStatus(), 0);
    }
}

// ---- Failures ----------------------------------------------------------------

TEST_F(UploadTest, RefusedUploadIsLoggedWithItsCodeAndCountsAsAttempted) {
    platform.storage->results = {0, 3, 429};

    manager->UploadDiagnosticsResults();
    EXPECT_EQ(manager->GetFileUploadToCloudStatus(), 0);

    // A failure after a success must not keep the earlier outcome.
    peer->artifactIncludedStatus() = 1;
    manager->UploadDiagnosticsResults();
    EXPECT_TRUE(platform.log->Contains("zip file upload falied err: 3"));
    EXPECT_EQ(peer->artifactIncludedStatus(), 0);
    EXPECT_EQ(manager->GetFileUploadToCloudStatus(), 1);
    EXPECT_TRUE(platform.log->Contains("Network connected, but not uploaded due to error"));

    SetDevice(false, true, true);
    peer->artifactIncludedStatus() = 1;
    manager->UploadDiagnosticsResults();
    EXPECT_TRUE(platform.log->Contains("json file upload falied err: 429"));
    EXPECT_EQ(peer->artifactIncludedStatus(), 1);
    EXPECT_EQ(manager->GetFileUploadToCloudStatus(), 1);
    EXPECT_EQ(Uploads().size(), 3u);
}

TEST_F(UploadTest, MissingScanResultStillUploadsWithEmptyMetadata) {
    fs::remove(ResultFile());

    manager->UploadDiagnosticsResults();

    const auto uploads = Uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].metadata, "{}");
    // The message names the described file, not the missing one.
    EXPECT_TRUE(
        platform.log->Contains("DiagnosticsManager::GetMetadata Error opening scan result file:" + ZipPathText()));
}

TEST_F(UploadTest, UnparsableScanResultLeavesANullContext) {
    WriteText(ResultFile(), R"({"id": "scan1",)");

    manager->UploadDiagnosticsResults();

    const auto uploads = Uploads();
    ASSERT_EQ(uploads.size(), 1u);
    const Json::Value metadata = Parse(uploads[0].metadata);
    ASSERT_TRUE(metadata.isMember("context"));
    EXPECT_TRUE(metadata["context"].isNull());
    EXPECT_EQ(metadata["name"].asString(), "LD-TEST01_scan1.zip");
}

}  // namespace
