// One scan from trigger to reset: trigger types, scan names, the test
// time-out, failures of the tests and of the scan itself.
#include <chrono>
#include <functional>
#include <stdexcept>
#include <system_error>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DiagnosticScanner/ZEPDiagnosticsGenerator.h"
#include "platform/Strings.h"
#include "support/ManagerFixture.h"

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using zep::platform::Hive;
using zep::testing::ManagerTest;

namespace {

const wchar_t* kDeviceSupport = L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport";

// A generator whose run takes as long (on the fake clock) as the test says,
// or fails as the test says.
class ScriptedGenerator : public zep::diagnostics::IDiagnosticsGenerator {
public:
    virtual ~ScriptedGenerator() = default;
    std::function<void()> during;
    std::size_t testCount = 2;
    void RunTests(std::vector<zep::diagnostics::Tests>& out) override {
        out.clear();
        for (std::size_t i = 0; i < testCount; ++i) out.push_back({L"t" + std::to_wstring(i), L"id", L"a", L"a"});
        if (during) during();
    }
    std::wstring GetComponentId() override { return L"SCRIPTED"; }
    std::wstring GetFriendlyName() override { return L"Scripted"; }
};

class OrchestrationTest : public ManagerTest {
protected:
    DiagnosticsManager::ResultType Run(ScriptedGenerator& generator, std::wstring& executionTime) {
        DiagnosticsManager::ResultType result = DiagnosticsManager::Complete;
        auto shared = std::shared_ptr<ScriptedGenerator>(&generator, [](ScriptedGenerator*) {});
        manager->RunDiagnostics(shared, executionTime, result);
        return result;
    }
    std::vector<std::string> TestNames(const Json::Value& result) {
        std::vector<std::string> names;
        for (const auto& test : result["tests"]) names.push_back(test["friendlyName"].asString());
        return names;
    }
};

TEST_F(OrchestrationTest, RequestCodeDecidesTheTrigger) {
    const std::pair<unsigned long, const wchar_t*> cases[] = {
        {211, L"Manual"}, {2, L"Mqtt"}, {0, L"Scheduled"}, {7, L"Scheduled"}};
    for (const auto& [code, trigger] : cases) {
        DiagnosticsParams params;
        params.targets.insert(L"zep");
        Scan(code, params);
        EXPECT_EQ(peer->GetTriggerType(), trigger) << code;
    }
}

TEST_F(OrchestrationTest, RegisteredDeviceWritesFiveTestsInTheirDeliberateOrder) {
    platform.registry->SetDword(Hive::LocalMachine, kDeviceSupport, L"certPinningError", 0);
    DiagnosticsParams params;
    params.requestId = L"scan-a";
    params.targets.insert(L"zep");
    Scan(2, params);

    const Json::Value result = ComponentResult(L"scan-a");
    EXPECT_THAT(TestNames(result), ElementsAre("registered_cert_valid", "mqtt_connection", "sync_success",
                                               "device_registered", "xrs_api_cert_pinning"));
    EXPECT_EQ(result["componentId"].asString(), "9A1B2C3D-4E5F-4A6B-8C7D-0123456789AB");
    EXPECT_EQ(result["resultType"].asString(), "Complete");
    EXPECT_FALSE(result["isProblematic"].asBool());
    EXPECT_EQ(peer->diagnosticsCompletedTime(), L"2026-11-21T10:15:30Z");
}

TEST_F(OrchestrationTest, UnregisteredDeviceWritesTwoTests) {
    platform.device->registered = false;
    Scan(211);
    const auto names = ScanNames();
    ASSERT_EQ(names.size(), 1u);
    const Json::Value result = ComponentResult(names[0]);
    EXPECT_THAT(TestNames(result), ElementsAre("device_registered", "xrs_api_cert_pinning"));
    EXPECT_TRUE(result["isProblematic"].asBool());
}

TEST_F(OrchestrationTest, ScanWithoutRequestIdIsNamedByANewGuid) {
    Scan(211);
    Scan(0);
    const auto names = ScanNames();
    ASSERT_EQ(names.size(), 2u);
    EXPECT_NE(names[0], names[1]);
    for (const auto& name : names) {
        EXPECT_EQ(name.size(), 36u) << zep::text::ToUtf8(name);
        EXPECT_EQ(name[14], L'4') << zep::text::ToUtf8(name);
    }
}

// Request ids name folders that are deleted recursively later: an id that is
// not one harmless path component must never become the scan name.
TEST_F(OrchestrationTest, UnsafeRequestIdsAreReplacedByAGuid) {
    const std::string hostile[] = {"..", ".", "../../victim", "a/b", "a\\\\b", "c:", "x\\ny",
                                   std::string(129, 'a')};
    std::filesystem::create_directories(platform.rootPath / "victim");
    for (const auto& id : hostile) {
        platform.clock->Advance(11min);
        Deliver(Request(ManagerTest::Payload(id, R"(["zep"])")));
    }
    const auto names = ScanNames();
    ASSERT_EQ(names.size(), std::size(hostile));
    for (const auto& name : names) EXPECT_EQ(name.size(), 36u) << zep::text::ToUtf8(name);
    EXPECT_TRUE(std::filesystem::is_empty(platform.rootPath / "victim"));
    EXPECT_EQ(platform.log->Count("cannot name the scan's folders"), std::size(hostile));
    // The id itself is kept in the log, control characters escaped.
    EXPECT_TRUE(platform.log->Contains("request id 'x\\x0Ay'"));
    EXPECT_TRUE(platform.log->Contains("request id '../../victim'"));
}

TEST_F(OrchestrationTest, TimeOutIsJudgedAfterTheTestsRan) {
    ScriptedGenerator generator;
    std::wstring executionTime;

    generator.during = [&] { platform.clock->Advance(60s); };
    EXPECT_EQ(Run(generator, executionTime), DiagnosticsManager::Complete);
    EXPECT_EQ(executionTime, L"60.000");
    EXPECT_EQ(peer->tests().size(), 2u);

    generator.during = [&] { platform.clock->Advance(60500ms); };
    EXPECT_EQ(Run(generator, executionTime), DiagnosticsManager::ErrorTimeOut);
    EXPECT_EQ(executionTime, L"0");
    EXPECT_TRUE(peer->tests().empty());

    generator.during = [&] { platform.clock->Advance(1234400us); };
    EXPECT_EQ(Run(generator, executionTime), DiagnosticsManager::Complete);
    EXPECT_EQ(executionTime, L"1.235");
}

TEST_F(OrchestrationTest, ExceptionsFromTheTestsBecomeErrorGeneral) {
    ScriptedGenerator generator;
    std::wstring executionTime;
    generator.during = [] { throw std::runtime_error("core adapter gone"); };
    EXPECT_EQ(Run(generator, executionTime), DiagnosticsManager::ErrorGeneral);
    EXPECT_EQ(executionTime, L"0");
    EXPECT_TRUE(peer->tests().empty());
    EXPECT_TRUE(platform.log->Contains(
        "DiagnosticsManager::RunDiagnostics: exception during tests running core adapter gone"));

    generator.during = [] { throw 42; };  // not a std::exception
    EXPECT_EQ(Run(generator, executionTime), DiagnosticsManager::ErrorGeneral);
    EXPECT_TRUE(platform.log->Contains("exception during tests running unknown exception"));
}

// Makes a whole scan slow: every registry read takes `delay` on the fake clock.
class SlowRegistry : public zep::platform::MemoryRegistry {
public:
    SlowRegistry(zep::testing::FakeClock& clock, std::chrono::nanoseconds delay) : clock_(clock), delay_(delay) {}
    bool GetDword(Hive hive, const std::wstring& key, const std::wstring& name, DWORD& value) override {
        clock_.Advance(delay_);
        return MemoryRegistry::GetDword(hive, key, name, value);
    }

private:
    zep::testing::FakeClock& clock_;
    std::chrono::nanoseconds delay_;
};

TEST_F(OrchestrationTest, SlowHealthTestsEndTheScanAsTimedOutWithNoTests) {
    // A registered device reads three registry values during its tests.
    auto registry = std::make_shared<SlowRegistry>(*platform.clock, 25s);
    registry->CreateKey(Hive::LocalMachine, kDeviceSupport);
    platform.env.registry = registry;
    platform.Reinstall();
    DiagnosticsParams params;
    params.requestId = L"slow";
    params.targets.insert(L"zep");
    Scan(2, params);

    const Json::Value result = ComponentResult(L"slow");
    EXPECT_EQ(result["resultType"].asString(), "ErrorTimeOut");
    EXPECT_EQ(result["executionTimeSeconds"].asString(), "0");
    EXPECT_TRUE(result["tests"].isArray());
    EXPECT_EQ(result["tests"].size(), 0u);
    EXPECT_FALSE(result["isProblematic"].asBool());
}

TEST_F(OrchestrationTest, RegistryTimeOutStaysInForceForLaterScans) {
    platform.registry->SetDword(Hive::LocalMachine, kDeviceSupport, L"TimeoutInSeconds", 120);
    Scan(211);
    EXPECT_EQ(DiagnosticsManagerTestPeer::TestTimeout(), 120u);

    platform.registry->DeleteValue(Hive::LocalMachine, kDeviceSupport, L"TimeoutInSeconds");
    Scan(211);
    EXPECT_EQ(DiagnosticsManagerTestPeer::TestTimeout(), 120u);

    ScriptedGenerator generator;
    generator.during = [&] { platform.clock->Advance(100s); };
    std::wstring executionTime;
    EXPECT_EQ(Run(generator, executionTime), DiagnosticsManager::Complete);
}

TEST_F(OrchestrationTest, MqttScanWithoutParamsDoesNothing) {
    peer->isProblematic() = true;
    manager->GenerateDiagnostics(2, std::nullopt);
    EXPECT_TRUE(platform.log->Contains("[e]"));
    EXPECT_TRUE(platform.log->Contains("No Diagnostic params found"));
    EXPECT_EQ(ZepScans(), 0u);
    EXPECT_TRUE(peer->isProblematic()) << "nothing is reset";
}

TEST_F(OrchestrationTest, PluginTargetsRunAfterTheAgentAndAloneSkipIt) {
    DiagnosticsParams pluginOnly;
    pluginOnly.targets = {L"pluginx"};
    Scan(2, pluginOnly);
    EXPECT_EQ(ZepScans(), 0u);
    EXPECT_TRUE(platform.log->Contains("Trying to collect plugin Diagnostics for target: pluginx"));
    EXPECT_TRUE(ScanNames().empty());

    platform.log->Clear();
    DiagnosticsParams both;
    both.targets = {L"zep", L"pluginx", L"pluginy"};
    Scan(2, both);
    const auto messages = platform.log->Messages();
    const auto zep = std::find(messages.begin(), messages.end(), "Starting Zep Diagnostics");
    const auto plugin = std::find_if(messages.begin(), messages.end(), [](const std::string& m) {
        return m.rfind("Trying to collect plugin Diagnostics for target: ", 0) == 0;
    });
    ASSERT_NE(zep, messages.end());
    ASSERT_NE(plugin, messages.end());
    EXPECT_LT(zep - messages.begin(), plugin - messages.begin());
    EXPECT_EQ(platform.log->Count("Trying to collect plugin Diagnostics for target: "), 2u);
}

TEST_F(OrchestrationTest, ScanStateIsResetAfterwardsButTheTestsAreKept) {
    platform.device->registered = false;
    DiagnosticsParams params;
    params.requestId = L"r9";
    params.targets.insert(L"zep");
    Scan(2, params);
    EXPECT_TRUE(peer->scanID().empty());
    EXPECT_TRUE(peer->requestId().empty());
    EXPECT_FALSE(peer->isProblematic());
    EXPECT_EQ(static_cast<int>(peer->resultType()), -1);
    EXPECT_TRUE(peer->networkStatus());
    EXPECT_EQ(peer->artifactIncludedStatus(), 1);
    EXPECT_EQ(peer->tests().size(), 2u);
    EXPECT_EQ(peer->GetTriggerType(), L"Mqtt") << "the trigger type is never reset";
}

// A registry whose first read of the time-out fails with something that is not
// a std::exception, as a broken platform layer might.
class FailingOnceRegistry : public zep::platform::MemoryRegistry {
public:
    std::atomic<int> failures{1};
    std::function<void()> onTimeoutRead;
    bool GetDword(Hive hive, const std::wstring& key, const std::wstring& name, DWORD& value) override {
        if (name == L"TimeoutInSeconds") {
            if (onTimeoutRead) onTimeoutRead();
            if (failures.fetch_sub(1) > 0) throw 7;
        }
        return MemoryRegistry::GetDword(hive, key, name, value);
    }
};

TEST_F(OrchestrationTest, AnythingThrownOutOfAScanIsCaughtAndTheNextScanRuns) {
    auto registry = std::make_shared<FailingOnceRegistry>();
    platform.env.registry = registry;
    platform.Reinstall();
    Scan(211);
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::StartDiagnosticsScan: scan ended by an exception: unknown exception"));
    EXPECT_EQ(ZepScans(), 0u);

    Scan(211);  // would deadlock if the first scan had kept the lock
    EXPECT_EQ(ZepScans(), 1u);
}

TEST_F(OrchestrationTest, AScanThatStartsAScanFromItsOwnThreadIsRefused) {
    auto registry = std::make_shared<FailingOnceRegistry>();
    registry->failures = 0;
    auto fired = std::make_shared<std::atomic<bool>>(false);
    registry->onTimeoutRead = [this, fired] {
        if (!fired->exchange(true)) manager->StartDiagnosticsScan(211, std::nullopt);
    };
    platform.env.registry = registry;
    platform.Reinstall();
    Scan(211);
    EXPECT_TRUE(platform.log->Contains("scan ended by an exception: " +
                                       std::make_error_code(std::errc::resource_deadlock_would_occur).message()));
}

}  // namespace
