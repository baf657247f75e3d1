// Uploading a scan's results: which file goes, with which token and metadata,
// and what the manager remembers for the scan history.
#include <cstdint>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <json/json.h>

#include "platform/util/Strings.h"
#include "support/ManagerFixture.h"
#include "support/TokenVectors.h"

namespace {

using namespace zep::testing;
namespace fs = std::filesystem;

constexpr const char* kSignature = "5d41402abc4b2a76b9719d911017c592ae1f6e3a5b8c0f4d2e6a7b9c1d3e5f70";
constexpr const char* kScanResult = R"({"id":"scan1","trigger":"Mqtt","isProblematic":true,"failTestCount":2,)"
                                    R"("components":[{"componentId":"zep","result":"fail"}]})";

// SHA-256 of kScanResult and of UploadTest::ZipBytes(), made with sha256sum.
constexpr const char* kScanResultSha256 = "0242febe02abd58d989a320bc69b8c2c96b2c686e3113ce35564998782b0761c";
constexpr const char* kZipSha256 = "356a9a7e9a1c881e1b47cbfcb25ce8e417870e52c916b6f39d19a68885cf2481";

class UploadTest : public ManagerTest {
protected:
    UploadTest() {
        peer->scanID() = L"scan1";
        peer->triggerType() = 2;
        peer->problemSignature() = zep::text::FromUtf8(kSignature);
        platform.policy->platformPolicy.set_jws_pubkey({zep::text::FromUtf8(vectors::kTrustedRsaKey)});
        WriteText(Latest() / "scan-result.json", kScanResult);
        WriteText(Latest() / "LD-TEST01_scan1.zip", ZipBytes());
    }

    static std::string ZipBytes() {
        std::string bytes = "PK\x03\x04";
        for (int i = 0; i < 3000; ++i) bytes.push_back(static_cast<char>(i * 7 % 251));
        return bytes;
    }
    fs::path Latest() const { return platform.rootPath / "programdata" / "diagnostics" / "latest"; }
    fs::path Backup() const { return platform.rootPath / "programdata" / "zep-provision-backup.json"; }
    std::string PathText(const char* name) const { return zep::text::ToUtf8(peer->ScanFolder()) + name; }
    void ExpectNeverLogged(const std::string& token) const {
        const std::string payload = token.substr(token.find('.') + 1, token.rfind('.') - token.find('.') - 1);
        for (const auto& line : platform.log->Lines()) {
            EXPECT_EQ(line.find(token), std::string::npos) << line;
            EXPECT_EQ(line.find(payload), std::string::npos) << line;
        }
    }
};

TEST_F(UploadTest, EachDeviceStateTakesItsOwnPath) {
    const std::string good = vectors::kProvisionToken;
    const std::string forged = vectors::kProvisionTokenByUnknownKey;
    const std::string expired = vectors::kExpiredProvisionToken;
    const std::string backup = R"({"device_id":"LD-TEST01","provision_token":")" + good + R"("})";
    struct Case {
        const char* name;
        bool registered, provisioned, online;
        std::string backup;  // empty: none
        const char* file;    // nullptr: nothing is sent
        std::string token;
        const char* log;     // nullptr: nothing at all is logged; "": nothing about the upload
        bool network;
        int artifactIncluded, status;  // status -1: not checked
        int answer = 0;                // the storage agent's
    };
    const char* zip = "LD-TEST01_scan1.zip";
    const char* zipSent = "zip file upload successfull";
    const char* offline = "file not uploaded due to offline";
    const auto withToken = [](const std::string& t) { return R"({"provision_token":")" + t + R"("})"; };
    const Case cases[] = {
        {"registered", true, true, true, "", zip, "", zipSent, true, 0, 0},
        // A refusal after a success does not keep the earlier outcome.
        {"refused", true, true, true, "", zip, "", "zip file upload falied err: 3", true, 0, 1, 3},
        {"registered offline", true, true, false, "", nullptr, "", offline, false, 1, 2},
        // The provisioning check comes before the network and says nothing.
        {"not provisioned", true, false, false, "", nullptr, "", nullptr, true, 1, -1},
        {"unprovisioned, unregistered", false, false, false, "", nullptr, "", nullptr, true, 1, -1},
        // The token stands for provisioning.
        {"good token", false, false, true, backup, zip, good, zipSent, true, 0, 0},
        {"good token, BOM", false, false, true, "\xEF\xBB\xBF" + backup, zip, good, zipSent, true, 0, 0},
        {"good token, UTF-16", false, false, true, Utf16Le(backup), zip, good, zipSent, true, 0, 0},
        {"good token offline", false, false, false, backup, nullptr, "", offline, false, 1, 2},
        // A bad token is judged before the network: nothing is marked offline.
        {"forged token", false, true, false, withToken(forged), nullptr, "", "", true, 1, -1},
        {"expired token", false, true, false, withToken(expired), nullptr, "", "", true, 1, -1},
        {"no backup", false, true, true, "", "scan-result.json", "", "json file upload successfull", true, 1, 0},
        {"no backup offline", false, true, false, "", nullptr, "", offline, false, 1, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        platform.device->registered = c.registered;
        platform.device->provisioned = c.provisioned;
        platform.device->online = c.online;
        fs::remove(Backup());
        if (!c.backup.empty()) WriteText(Backup(), c.backup);
        peer->networkStatus() = true;
        peer->artifactIncludedStatus() = 1;
        if (c.file) platform.storage->results.push_back(c.answer);
        platform.log->Clear();
        const std::size_t before = platform.storage->Uploads().size();

        manager->UploadDiagnosticsResults();

        const auto uploads = platform.storage->Uploads();
        ASSERT_EQ(uploads.size(), before + (c.file ? 1 : 0));
        if (c.file) {
            const auto& up = uploads.back();
            EXPECT_EQ(up.filePath, PathText(c.file));
            EXPECT_EQ(up.unregisteredDevice, !c.registered);
            EXPECT_EQ(up.provisionToken, c.token);
            const std::string bytes = c.file == std::string("scan-result.json") ? kScanResult : ZipBytes();
            // The cloud receives the JSON library's default rendering.
            Json::Value expected(Json::objectValue);
            expected["name"] = c.file;
            expected["sizeInBytes"] = Json::Value(static_cast<Json::UInt64>(bytes.size()));
            expected["hash"] = c.file == std::string("scan-result.json") ? kScanResultSha256 : kZipSha256;
            expected["context"] = ParseJson(kScanResult);
            EXPECT_EQ(up.metadata, Json::writeString(Json::StreamWriterBuilder(), expected));
        }
        if (c.log && *c.log) {
            EXPECT_EQ(platform.log->Count(c.log), 1u);
        } else if (c.log) {
            for (const char* text : {"file upload", "offline", "Exception"}) EXPECT_FALSE(platform.log->Contains(text));
        } else {
            EXPECT_TRUE(platform.log->Messages().empty());
        }
        EXPECT_EQ(peer->networkStatus(), c.network);
        EXPECT_EQ(peer->artifactIncludedStatus(), c.artifactIncluded);
        if (c.status >= 0) {
            EXPECT_EQ(manager->GetFileUploadToCloudStatus(), c.status);
        }
        for (const auto& token : {good, forged, expired}) ExpectNeverLogged(token);
    }
}

TEST_F(UploadTest, OnlyAScheduledScanRepeatingAnUploadedSignatureHoldsBackTheZip) {
    WriteText(Latest().parent_path() / "scan-history.log",
              std::string("2026-11-20T10:00:00Z,Scheduled,0,1,2,") + kSignature + "\r\n");
    const struct {
        std::uint32_t trigger;
        std::string signature;
        const char* file;
    } cases[] = {{1, kSignature, "scan-result.json"},
                 {0, kSignature, "LD-TEST01_scan1.zip"},
                 {2, kSignature, "LD-TEST01_scan1.zip"},
                 {1, std::string(64, 'a'), "LD-TEST01_scan1.zip"}};
    for (const auto& c : cases) {
        peer->triggerType() = c.trigger;
        peer->problemSignature() = zep::text::FromUtf8(c.signature);
        manager->UploadDiagnosticsResults();
        EXPECT_EQ(platform.storage->Uploads().back().filePath, PathText(c.file)) << c.trigger << c.signature;
    }
}

}  // namespace
