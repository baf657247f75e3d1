// One scan: the tests' order, scan names, the time-out, failures of the tests and of the scan.
#include <atomic>
#include <chrono>
#include <functional>
#include <sstream>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DiagnosticScanner/ZEPDiagnosticsGenerator.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "support/ManagerFixture.h"
#include "support/ZipReader.h"

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using zep::platform::Hive;
using zep::testing::ManagerTest;

namespace {

// Its run takes as long (on the fake clock) as the test says, or fails as the test says.
struct ScriptedGenerator : zep::diagnostics::IDiagnosticsGenerator {
    virtual ~ScriptedGenerator() = default;
    std::function<void()> during;
    void RunTests(std::vector<zep::diagnostics::Tests>& out) override {
        out.assign(2, zep::diagnostics::Tests());
        for (std::size_t i = 0; i < out.size(); ++i) {
            out[i].name = L"t" + std::to_wstring(i);
            out[i].id = L"id";
            out[i].expected = out[i].actual = L"a";
        }
        if (during) during();
    }
    std::wstring GetComponentId() override { return L"SCRIPTED"; }
    std::wstring GetFriendlyName() override { return L"Scripted"; }
};

class OrchestrationTest : public ManagerTest {
protected:
    DiagnosticsManager::ResultType Run(std::function<void()> during, std::wstring& executionTime) {
        auto generator = std::make_shared<ScriptedGenerator>();
        generator->during = std::move(during);
        DiagnosticsManager::ResultType result = DiagnosticsManager::Complete;
        manager->RunDiagnostics(generator, executionTime, result);
        return result;
    }
    static std::vector<std::string> TestNames(const Json::Value& result) {
        std::vector<std::string> names;
        for (const auto& test : result["tests"]) names.push_back(test["friendlyName"].asString());
        return names;
    }
};

// The cloud reads the tests by position: the order is deliberate.
TEST_F(OrchestrationTest, RegisteredDeviceRunsFiveTestsAndUnregisteredTwoInTheirOrder) {
    platform.registry->SetDword(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport", L"certPinningError", 0);
    DiagnosticsParams params;
    params.requestId = L"scan-a";
    params.targets.insert(L"zep");
    Scan(2, params);
    Json::Value result = ComponentResult(L"scan-a");
    EXPECT_THAT(TestNames(result), ElementsAre("registered_cert_valid", "mqtt_connection", "sync_success",
                                               "device_registered", "xrs_api_cert_pinning"));
    EXPECT_EQ(result["componentId"].asString(), "9A1B2C3D-4E5F-4A6B-8C7D-0123456789AB");
    EXPECT_FALSE(result["isProblematic"].asBool());

    platform.device->registered = false;
    params.requestId = L"scan-b";
    Scan(2, params);
    result = ComponentResult(L"scan-b");
    EXPECT_THAT(TestNames(result), ElementsAre("device_registered", "xrs_api_cert_pinning"));
    EXPECT_TRUE(result["isProblematic"].asBool());
}

// Any id that the system can use as one file name names the scan (the cloud
// matches the upload to its request by it); the rest, which could point the
// scan's folders, later deleted recursively, elsewhere, get a GUID.
TEST_F(OrchestrationTest, RequestIdsThatAreOneFileNameNameTheScanAndTheRestGetAGuid) {
    struct Case {
        std::string json;       // the id as written in the payload
        std::wstring scanName;  // empty: replaced by a GUID
    };
    std::string twoByteLetters;
    for (int i = 0; i < 128; ++i) twoByteLetters += "\u00e9";  // 256 bytes as UTF-8, 128 UTF-16 units
    // What one system's file names allow, the other's may not.
#ifdef _WIN32
    const auto onlyOnPosix = [](const wchar_t*) { return std::wstring(); };
    const std::wstring twoByteName(128, L'\u00e9');
#else
    const auto onlyOnPosix = [](const wchar_t* name) { return std::wstring(name); };
    const std::wstring twoByteName;
#endif
    const Case cases[] = {
        {"urn:req:42", onlyOnPosix(L"urn:req:42")},
        {"with blanks", L"with blanks"},
        {std::string(129, 'a'), std::wstring(129, L'a')},
        {std::string(255, 'b'), std::wstring(255, L'b')},
        {"..", L""},
        {"../../victim", L""},
        {"a/b", L""},
        {"x\\ny", L""},
        {"\\u0085", L""},
        {std::string(256, 'c'), L""},
        {twoByteLetters, twoByteName},
    };
    std::filesystem::create_directories(platform.rootPath / "victim");
    const auto latest = platform.rootPath / "programdata" / "diagnostics" / "latest";
    std::size_t replaced = 0;
    for (const auto& c : cases) {
        platform.clock->Advance(11min);
        Deliver(Request(ManagerTest::Payload(c.json, R"(["zep"])")));
        Json::Value result;
        std::istringstream(zep::testing::ReadText(latest / "scan-result.json")) >> result;
        const std::wstring name = zep::text::FromUtf8(result["id"].asString());
        if (c.scanName.empty()) {
            ++replaced;
            EXPECT_EQ(name.size(), 36u) << c.json;
        } else {
            EXPECT_EQ(name, c.scanName) << c.json;
        }
        // Whatever its name, the scan's zip is found and uploaded.
        const auto uploads = platform.storage->Uploads();
        ASSERT_FALSE(uploads.empty()) << c.json;
        EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::u8path(uploads.back().filePath))) << c.json;
    }
    EXPECT_TRUE(std::filesystem::is_empty(platform.rootPath / "victim"));
    EXPECT_EQ(platform.log->Count("cannot name the scan's folders"), replaced);
    // The id itself is kept in the log, control characters escaped.
    EXPECT_TRUE(platform.log->Contains("request id 'x\\x0Ay'"));
    EXPECT_TRUE(platform.log->Contains("request id '../../victim'"));
}

// Judged after the tests ran: exactly 60 s is in time, anything more is not.
TEST_F(OrchestrationTest, TimeOutIsJudgedAfterTheTestsRan) {
    std::wstring executionTime;
    EXPECT_EQ(Run([&] { platform.clock->Advance(60s); }, executionTime), DiagnosticsManager::Complete);
    EXPECT_EQ(executionTime, L"60.000");
    EXPECT_EQ(peer->tests().size(), 2u);

    EXPECT_EQ(Run([&] { platform.clock->Advance(60500ms); }, executionTime), DiagnosticsManager::ErrorTimeOut);
    EXPECT_EQ(executionTime, L"0");
    EXPECT_TRUE(peer->tests().empty());

    EXPECT_EQ(Run([&] { platform.clock->Advance(1234400us); }, executionTime), DiagnosticsManager::Complete);
    EXPECT_EQ(executionTime, L"1.235");
}

TEST_F(OrchestrationTest, ExceptionsFromTheTestsBecomeErrorGeneral) {
    std::wstring executionTime;
    EXPECT_EQ(Run([] { throw std::runtime_error("adapter gone"); }, executionTime), DiagnosticsManager::ErrorGeneral);
    EXPECT_EQ(executionTime, L"0");
    EXPECT_TRUE(peer->tests().empty());
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::RunDiagnostics: exception during tests running adapter gone"));

    EXPECT_EQ(Run([] { throw 42; }, executionTime), DiagnosticsManager::ErrorGeneral);
    EXPECT_TRUE(platform.log->Contains("exception during tests running unknown exception"));
}

TEST_F(OrchestrationTest, MqttScanWithoutParamsDoesNothing) {
    peer->isProblematic() = true;
    manager->GenerateDiagnostics(2, std::nullopt);
    EXPECT_TRUE(platform.log->Contains("No Diagnostic params found"));
    EXPECT_EQ(ZepScans(), 0u);
    EXPECT_TRUE(peer->isProblematic()) << "nothing is reset";
}

// Its first read of the time-out throws something that is not a std::exception.
struct FailingOnceRegistry : zep::platform::MemoryRegistry {
    std::atomic<bool> failed{false};
    bool GetDword(Hive hive, const std::wstring& key, const std::wstring& name, DWORD& value) override {
        if (name == L"TimeoutInSeconds" && !failed.exchange(true)) throw 7;
        return MemoryRegistry::GetDword(hive, key, name, value);
    }
};

TEST_F(OrchestrationTest, AnythingThrownOutOfAScanIsCaughtAndTheNextScanRuns) {
    platform.env.registry = std::make_shared<FailingOnceRegistry>();
    platform.Reinstall();
    Scan(211);
    EXPECT_TRUE(platform.log->Contains(
        "DiagnosticsManager::StartDiagnosticsScan: scan ended by an exception: unknown exception"));
    EXPECT_EQ(ZepScans(), 0u);

    Scan(211);  // would deadlock if the first scan had kept the lock
    EXPECT_EQ(ZepScans(), 1u);
}

// A package may write anything. A time that is not a number ends the summary
// (no scan-result.json) but not the scan: what was staged is still zipped and
// the scan lock is free for the next scan. A nesting bomb is just malformed.
TEST_F(OrchestrationTest, HostilePackageDocumentsEndTheSummaryButNotTheScan) {
    ZEP_REQUIRE_SHELL_PACKAGE_SCRIPTS();
    platform.policy->Add(L"com.quorin.vpn", L"VPN");
    zep::testing::WriteText(platform.rootPath / "packages" / "com.quorin.vpn" / "temp" / "install.sh", "");
    std::string document = R"({"componentId":"com.quorin.vpn","executionTimeSeconds":"abc","tests":[]})";
    platform.processes->onSpawn = [&document](const zep::platform::ProcessRequest& request) {
        const auto out = zep::path::ToFs(request.argv.back());
        zep::testing::WriteText(out / "component-result.json", document);
        zep::testing::WriteText(out / "bomb.json", std::string(100000, '['));
        zep::platform::ProcessResult result;
        result.started = true;
        result.exitCode = 0;
        return result;
    };
    DiagnosticsParams params;
    params.requestId = L"bad1";
    params.targets.insert(L"zep");
    Scan(2, params);

    const auto latest = platform.rootPath / "programdata" / "diagnostics" / "latest";
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::GenerateScanResultInJson: Exception Occurred: stof"));
    EXPECT_FALSE(std::filesystem::exists(latest / "scan-result.json"));
    const auto entries = zep::testing::ZipEntries(ZipPath(L"bad1"));
    EXPECT_EQ(entries.count("com.quorin.vpn/component-result.json"), 1u);
    EXPECT_EQ(entries.count("ZEP/component-result.json"), 1u);

    document = R"({"componentId":"com.quorin.vpn","executionTimeSeconds":"0.5","tests":[]})";
    params.requestId = L"good2";
    Scan(2, params);
    EXPECT_THAT(zep::testing::ReadText(latest / "scan-result.json"), ::testing::HasSubstr("\"id\" : \"good2\""));
}

}  // namespace
