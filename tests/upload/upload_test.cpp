#include <filesystem>
#include <optional>
#include <string>
#include <vector>

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
    const Case cases[] = {
        {"registered", true, true, true, "", zip, "", zipSent, true, 0, 0},
        // A refusal after a success does not keep the earlier outcome.
        {"refused", true, true, true, "", zip, "", "zip file upload falied err: 3", true, 0, 1, 3},
        {"registered offline", true, true, false, "", nullptr, "", offline, false, 1, 2},
        // The provisioning check comes before the network and says nothing.
        {"not provisioned", true, false, false, "", nullptr, "", nullptr, true, 1, -1},
        {"good token", false, false, true, backup, zip, good, zipSent, true, 0, 0},
        {"good token, BOM", false, false, true, "\xEF\xBB\xBF" + backup, zip, good, zipSent, true, 0, 0},
        {"good token, UTF-16", false, false, true, Utf16Le(backup), zip, good, zipSent, true, 0, 0},
        // A bad token is judged before the network: nothing is marked offline.
        {"forged token", false, true, false, R"({"provision_token":")" + forged + R"("})", nullptr, "", "", true, 1, -1},
        {"no backup", false, true, true, "", "scan-result.json", "", "json file upload successfull", true, 1, 0},
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
        for (const auto& token : {good, forged}) ExpectNeverLogged(token);
    }
}

const std::string kLabel = "DiagnosticsManager::LogCriticalEvent ";
const std::string kSig = "9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08";

struct Decision {
    const char* name;
    int status;
    bool problematic;
    std::string signature;
    std::optional<std::string> eventText;  // none: no event
    std::string decision;                  // empty: no decision message
    bool registered = true;
    bool provisioned = true;
};

class CriticalEventTest : public ManagerTest, public ::testing::WithParamInterface<Decision> {};

TEST_P(CriticalEventTest, ReportsTheScanOutcome) {
    const Decision& d = GetParam();
    platform.device->registered = d.registered;
    platform.device->provisioned = d.provisioned;
    peer->resultType() = static_cast<DiagnosticsManager::ResultType>(d.status);
    peer->isProblematic() = d.problematic;
    peer->problemSignature() = zep::text::FromUtf8(d.signature);
    platform.log->Clear();

    peer->LogCriticalEvent();

    const auto events = platform.events->Events();
    ASSERT_EQ(events.size(), d.eventText ? 1u : 0u);
    if (d.eventText) {
        EXPECT_EQ(events[0].id, 1018);
        EXPECT_EQ(zep::text::ToUtf8(events[0].text), *d.eventText);
    }
    std::vector<std::string> expected = {kLabel + "problem signature : " + d.signature};
    if (d.registered || d.provisioned) {
        expected.push_back(kLabel + "Device with commercial-intent is not registered OR registered to a non QAC org");
        expected.push_back(kLabel + "scan status : " + std::to_string(d.status) +
                           ", isProblematic : " + (d.problematic ? "1" : "0"));
    }
    if (!d.decision.empty()) expected.push_back(kLabel + "Logging critical event: " + d.decision);
    std::vector<std::string> messages;
    for (const auto& m : platform.log->Messages()) {
        if (m.rfind(kLabel, 0) == 0) messages.push_back(m);
    }
    EXPECT_EQ(messages, expected);
}

INSTANTIATE_TEST_SUITE_P(
    DecisionTable, CriticalEventTest,
    ::testing::Values(
        Decision{"BeforeAnyScan", -1, false, kSig, std::nullopt, ""},
        Decision{"ProblematicWithoutStatus", -1, true, kSig, kSig, "1018: " + kSig},
        Decision{"TimedOutAndProblematic", 1, true, kSig, "1", "1"},
        Decision{"CompleteWithoutProblem", 0, false, kSig, "0", "0"},
        Decision{"CompleteWithProblem", 0, true, kSig, kSig, "1018: " + kSig},
        Decision{"ErrorWithoutProblem", 2, false, kSig, kSig, "1018: " + kSig},
        // No placeholder organisation is recognised, so provisioning is not asked.
        Decision{"RegisteredUnprovisioned", 0, true, kSig, kSig, "1018: " + kSig, true, false},
        Decision{"ProvisionedUnregistered", 0, false, kSig, "0", "0", false, true},
        Decision{"NeitherRegisteredNorProvisioned", 2, true, kSig, std::nullopt, "", false, false}),
    [](const ::testing::TestParamInfo<Decision>& param) { return std::string(param.param.name); });

}  // namespace
