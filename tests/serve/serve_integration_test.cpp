// `zepdiag serve` end to end: the real program against a real mosquitto and a
// real HTTPS upload server, all on 127.0.0.1. Every wait is bounded.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "Broker.h"
#include "support/TempFolder.h"
#include "support/TestPlatform.h"
#include "support/posix/ChildProcess.h"
#include "Pki.h"
#include "UploadServer.h"
#include "platform/agent/CommonBase.h"

namespace {

namespace fs = std::filesystem;
using namespace zep::testing;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr auto kWait = 20s;  // for anything that involves a scan or a reconnect

// The envelope of a getDiagnostics request for the agent's own scan.
std::string Request(const std::string& requestId) {
    return R"({"topicId": 3, "eventState": 0, "actionType": "run", "messageType": "getDiagnostics", "payload": )"
           R"("{\"zep-message\":{\"action\":{\"cmd_param\":{\"requestId\":\")" +
           requestId + R"(\",\"target\":[\"zep\"]}}}}"})";
}

std::string Base64(const std::string& bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                       reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(length));
    return text;
}

// The program running as the service, its log in a file.
class Service : public ChildProcess {
public:
    Service(const fs::path& device, std::vector<std::string> options)
        : ChildProcess(Arguments(device, std::move(options)), LogOf(device)), log_(LogOf(device)) {}

    bool WaitForLog(const std::string& text) const {
        return Eventually([&] { return Log().find(text) != std::string::npos; }, kWait);
    }
    std::string Log() const { return ReadText(log_); }
    std::optional<int> Stop() {
        Signal(SIGTERM);
        return Wait(15s);
    }

private:
    static fs::path LogOf(const fs::path& device) { return device.parent_path() / (device.filename().string() + "-serve.log"); }
    static std::vector<std::string> Arguments(const fs::path& device, std::vector<std::string> options) {
        options.insert(options.begin(), {ZEPDIAG_PROGRAM, "serve", "--device", device.string()});
        return options;
    }
    fs::path log_;
};

class ServeTest : public ::testing::Test {
protected:
    void SetUp() override { root = MakeTempFolder("zep-serve-"); }
    void TearDown() override {
        if (!HasFailure()) fs::remove_all(root);  // kept for the logs otherwise
    }

    // A demo device made by the program, with `policy` as its platform policy.
    fs::path NewDevice(const std::string& name, const Json::Value& policy = Json::Value(Json::objectValue)) {
        const fs::path device = root / name;
        EXPECT_EQ(RunToEnd({ZEPDIAG_PROGRAM, "init", "--device", device.string()}, root / "init.log"), 0);
        std::ofstream(device / "platform-policy.json") << Json::writeString(Json::StreamWriterBuilder(), policy);
        return device;
    }
    static std::string Topic(const fs::path& device) {
        return "zep/" + ParseJson(ReadText(device / "device.json"))["deviceId"].asString() + "/notifications";
    }
    static std::vector<std::string> History(const fs::path& device) {
        return Lines(ReadText(device / "programdata/diagnostics/scan-history.log"));
    }
    // The upload status of the history's last line, once there is one.
    static std::string LastStatus(const fs::path& device) {
        Eventually([&] { return !History(device).empty(); }, kWait);
        const std::vector<std::string> lines = History(device);
        if (lines.empty()) return "no history";
        std::vector<std::string> fields;
        std::istringstream in(lines.back());
        for (std::string field; std::getline(in, field, ',');) fields.push_back(field);
        return fields.size() == 6 ? fields[2] : "unreadable: " + lines.back();
    }

    fs::path root;
};

// Trust, client certificate, pin and leaf name all at work, the addresses
// from the platform policy; a malformed message on the way changes nothing.
// A device whose pin does not match is refused by the same broker and says why.
TEST_F(ServeTest, ARequestOverMutualTlsIsScannedAndItsArchiveUploadedOverHttps) {
    const Pki& pki = TestPki();
    Broker broker(root, Broker::Mode::MutualTls);
    ASSERT_TRUE(broker.Start());
    UploadServer server(pki.server);
    Json::Value policy;
    policy["mqtt_baseuri"] = broker.Url();
    policy["api_baseuri"] = "https://127.0.0.1:" + std::to_string(server.Port()) + "/";
    policy["mqtt_chain_pem64"] = Base64(ReadText(pki.root.cert));
    policy["tls_rootca_thumbprint_list"].append(pki.rootThumbprint);
    policy["tls_leaf_cn_list"].append("LOCALHOST");
    const fs::path device = NewDevice("device", policy);
    // The service's own connection is the one the health test reports.
    Json::Value state = ParseJson(ReadText(device / "device.json"));
    state["notificationAgent"]["mqttState"] = 0;
    std::ofstream(device / "device.json") << Json::writeString(Json::StreamWriterBuilder(), state);
    const std::vector<std::string> identity{"--cert", pki.client.cert.string(), "--key", pki.client.key.string()};
    Service service(device, identity);
    ASSERT_TRUE(service.WaitForLog("subscribed to " + Topic(device))) << service.Log();

    ASSERT_TRUE(broker.Publish(Topic(device), "{\"topicId\": \"3\"}"));
    ASSERT_TRUE(broker.Publish(Topic(device), Request("Req-TLS-1")));
    ASSERT_TRUE(server.WaitForUploads(1, kWait)) << service.Log();
    const ReceivedUpload upload = server.Uploads()[0];
    EXPECT_EQ(upload.fileName, "LD-4F2A9C_req-tls-1.zip");
    EXPECT_EQ(upload.fileContent.substr(0, 2), "PK");
    EXPECT_EQ(upload.deviceId, ParseJson(ReadText(device / "device.json"))["deviceId"].asString());
    EXPECT_EQ(upload.unregistered, "false");
    const Json::Value metadata = ParseJson(upload.metadata);
    EXPECT_EQ(metadata["name"].asString(), upload.fileName);
    EXPECT_EQ(metadata["sizeInBytes"].asUInt64(), upload.fileContent.size());
    std::string hash;
    CoreUtility::CreateSHA256Hash(hash, upload.fileContent);
    EXPECT_EQ(metadata["hash"].asString(), hash);
    EXPECT_EQ(metadata["context"]["id"].asString(), "req-tls-1");
    std::string mqttActual = "no mqtt_connection test";
    for (const Json::Value& component : metadata["context"]["components"]) {
        for (const Json::Value& test : component["tests"]) {
            if (test["friendlyName"] == "mqtt_connection") mqttActual = test["actual"].asString();
        }
    }
    EXPECT_EQ(mqttActual, "success");
    EXPECT_EQ(LastStatus(device), "0");
    EXPECT_THAT(service.Log(), HasSubstr("dropped: not an integer: topicId"));
    EXPECT_EQ(service.Stop(), 0) << service.Log();

    Json::Value wrongPin;
    wrongPin["tls_rootca_thumbprint_list"].append("00:11:22:33:44:55:66:77:88:99:AA:BB:CC:DD:EE:FF:00:11:22:33");
    const fs::path pinned = NewDevice("pinned", wrongPin);
    std::vector<std::string> options{"--broker", broker.Url(), "--ca", pki.root.cert.string()};
    options.insert(options.end(), identity.begin(), identity.end());
    Service refused(pinned, options);
    std::string seen = pki.rootThumbprint;
    seen.erase(std::remove(seen.begin(), seen.end(), ':'), seen.end());
    std::transform(seen.begin(), seen.end(), seen.begin(), [](unsigned char c) { return std::tolower(c); });
    ASSERT_TRUE(refused.WaitForLog("root certificate thumbprint " + seen +
                                   " is not pinned (expected 00112233445566778899aabbccddeeff00112233)"))
        << refused.Log();
    EXPECT_THAT(refused.Log(), Not(HasSubstr("connected to")));
    EXPECT_EQ(refused.Stop(), 0) << refused.Log();
}

// The upload deferred while its server was down completes on the device-online
// notification that the reconnection after a broker restart delivers.
TEST_F(ServeTest, ABrokerRestartDeliversDeviceOnlineAndTheDeferredUploadArrives) {
    const Pki& pki = TestPki();
    Broker broker(root, Broker::Mode::Plain);
    ASSERT_TRUE(broker.Start());
    const int uploadPort = FreePort();
    const fs::path device = NewDevice("device");
    Service service(device, {"--broker", broker.Url(), "--upload-url",
                             "https://127.0.0.1:" + std::to_string(uploadPort) + "/diagnostics/upload", "--ca",
                             pki.root.cert.string()});
    ASSERT_TRUE(service.WaitForLog("subscribed to")) << service.Log();
    ASSERT_TRUE(broker.Publish(Topic(device), Request("deferred-1")));
    ASSERT_EQ(LastStatus(device), "2") << service.Log();
    EXPECT_THAT(service.Log(), HasSubstr("accepts no connection"));
    EXPECT_THAT(service.Log(), Not(HasSubstr("delivering device-online")));

    UploadServer server(pki.server, uploadPort);
    ASSERT_EQ(server.Port(), uploadPort);
    broker.Stop();
    ASSERT_TRUE(broker.Start());
    ASSERT_TRUE(server.WaitForUploads(1, kWait)) << service.Log();
    EXPECT_THAT(service.Log(), HasSubstr("delivering device-online"));
    EXPECT_EQ(server.Uploads()[0].fileName, "LD-4F2A9C_deferred-1.zip");
    EXPECT_TRUE(Eventually([&] { return LastStatus(device) == "0"; }, kWait)) << service.Log();
    EXPECT_EQ(History(device).size(), 1u);  // the deferred scan's line, rewritten
    EXPECT_EQ(service.Stop(), 0) << service.Log();
}

// A scan held by its package script (at most 20 s): SIGTERM lets it finish,
// its upload (refused here) included, and the service exits with zero.
TEST_F(ServeTest, SigtermLetsTheScanFinish) {
    Broker broker(root, Broker::Mode::Plain);
    ASSERT_TRUE(broker.Start());
    UploadServer server(TestPki().server);
    server.AnswerNext(429);
    const fs::path held = NewDevice("held");
    std::ofstream(held / "packages/com.quorin.vpnclient/temp/install.sh", std::ios::trunc)
        << "#!/bin/sh\ntouch '" << (held / "scan-started").string() << "'\ni=0\nwhile [ ! -e '"
        << (held / "release").string() << "' ] && [ $i -lt 200 ]; do sleep 0.1; i=$((i+1)); done\n";
    Service service(held, {"--broker", broker.Url(), "--upload-url", server.Url(), "--ca", TestPki().root.cert.string()});
    ASSERT_TRUE(service.WaitForLog("subscribed to")) << service.Log();
    ASSERT_TRUE(broker.Publish(Topic(held), Request("held")));
    ASSERT_TRUE(Eventually([&] { return fs::exists(held / "scan-started"); }, kWait)) << service.Log();
    service.Signal(SIGTERM);
    ASSERT_TRUE(service.WaitForLog("SIGTERM: taking no more messages")) << service.Log();

    ASSERT_TRUE(broker.Publish(Topic(held), Request("too-late")));
    EXPECT_EQ(service.Wait(500ms), std::nullopt);  // the scan holds it
    std::ofstream(held / "release") << "";
    EXPECT_EQ(service.Wait(15s), 0) << service.Log();
    EXPECT_EQ(History(held).size(), 1u);
    EXPECT_EQ(LastStatus(held), "1");  // its upload was tried before the service went
    EXPECT_THAT(service.Log(), HasSubstr("HTTP 429, Retry-After: 120 (result 429)"));
    EXPECT_THAT(service.Log(), HasSubstr("message dropped: the service is stopping"));
}

}  // namespace
