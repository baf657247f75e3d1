// Request intake: which notifications start a scan, the rate limit, and what
// a payload asks for.
#include <chrono>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Strings.h"
#include "support/ManagerFixture.h"

using namespace std::chrono_literals;
using ::testing::UnorderedElementsAre;
using zep::platform::Hive;
using zep::testing::ManagerTest;

namespace {

const std::wstring kZepPayload = ManagerTest::Payload("r1", R"(["zep"])");
const char* kRateLimited = "DiagnosticsManager::OnNotification: getDiagnostics rate limit exceeded. minimum interval is";

class IntakeTest : public ManagerTest {};

TEST_F(IntakeTest, NotificationsBeforeInitAreRefused) {
    DiagnosticsManager fresh;
    DiagnosticsManagerTestPeer freshPeer(fresh);
    auto request = Request(kZepPayload);
    freshPeer.OnNotification(request);
    fresh.WaitForScanToFinish();
    EXPECT_EQ(ZepScans(), 0u);
    // g_log is open (the fixture's manager initialised it), so the refusal is visible.
    EXPECT_TRUE(platform.log->Contains(
        "DiagnosticsManager::OnNotification: Not ready to receive notifications as initialization is not completed!"));
}

TEST_F(IntakeTest, InitSubscribesKeepsTheContextAndOpensTheLog) {
    // A hub of its own, so that the fixture's manager does not see the request.
    auto hub = std::make_shared<zep::platform::InProcessHub>();
    platform.env.hub = hub;
    platform.Reinstall();
    int context = 0;
    DiagnosticsManager fresh;
    DiagnosticsManagerTestPeer freshPeer(fresh);
    fresh.Init(&context);
    EXPECT_TRUE(freshPeer.initialized());
    EXPECT_EQ(freshPeer.hostContext(), &context);
    EXPECT_EQ(platform.log->openedName, "ZEPDiagnostics.log");
    EXPECT_EQ(platform.log->openedMaxFiles, 4);

    // Delivered through the hub, a request reaches the subscribed manager.
    hub->Publish(Request(ManagerTest::Payload("viahub", R"(["zep"])")));
    hub->WaitUntilIdle();
    fresh.WaitForScanToFinish();
    EXPECT_TRUE(std::filesystem::exists(ZipPath(L"viahub")));
}

TEST_F(IntakeTest, OnlyRunGetDiagnosticsIsARequest) {
    Deliver(Request(kZepPayload, L"Run"));                       // action is case-sensitive
    Deliver(Request(kZepPayload, L"run ", L"getDiagnostics"));   // and exact
    Deliver(Request(kZepPayload, L"run", L"getDiagnosticsNow"));
    Deliver(Request(kZepPayload, L"run", L"getLogs"));
    ZEPNotificationData extension(3, 0, L"run", L"getDiagnostics", kZepPayload, false, true);
    Deliver(extension);
    EXPECT_EQ(ZepScans(), 0u);

    Deliver(Request(kZepPayload, L"run", L"GETDIAGNOSTICS"));    // the message type ignores case
    EXPECT_EQ(ZepScans(), 1u);
    EXPECT_EQ(peer->GetTriggerType(), L"Mqtt");
}

TEST_F(IntakeTest, OnlineTopicsAreHandledBeforeAnyRequestAndNeverScan) {
    // Even carrying a request, an online notification only resumes uploads.
    Deliver(ZEPNotificationData(6, 0, L"run", L"getDiagnostics", kZepPayload));
    Deliver(ZEPNotificationData(10, 13, L"run", L"getDiagnostics", kZepPayload));
    EXPECT_EQ(ZepScans(), 0u);

    // A QCP notification on topic 6 is not an online notification: the request
    // in it is handled (and, being the first, accepted).
    Deliver(ZEPNotificationData(6, 0, L"run", L"getDiagnostics", kZepPayload, true));
    EXPECT_EQ(ZepScans(), 1u);
    // Other states of the online topics are ordinary notifications.
    platform.clock->Advance(10min);
    Deliver(ZEPNotificationData(10, 12, L"run", L"getDiagnostics", kZepPayload));
    EXPECT_EQ(ZepScans(), 2u);
    EXPECT_TRUE(platform.log->Contains(
        "DiagnosticsManager::OnNotification received; topicID: 6, eventState: 0  isQCPNotification: 0"));
}

TEST_F(IntakeTest, RateLimitIsTenMinutesMeasuredFromTheLastAcceptedRequest) {
    Deliver(Request(kZepPayload));
    ASSERT_EQ(ZepScans(), 1u);

    platform.clock->Advance(9min + 59s);
    Deliver(Request(kZepPayload));
    EXPECT_EQ(ZepScans(), 1u);
    EXPECT_EQ(platform.log->Count(std::string(kRateLimited) + " 10 minutes."), 1u);

    // A refused request does not restart the interval.
    platform.clock->Advance(1s);
    Deliver(Request(kZepPayload));
    EXPECT_EQ(ZepScans(), 2u);

    platform.clock->Advance(10min - 1ns);
    Deliver(Request(kZepPayload));
    EXPECT_EQ(ZepScans(), 2u);
}

TEST_F(IntakeTest, RegistryRateLimitCountsOnlyWithCustomSettings) {
    platform.registry->SetDword(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP", L"GetDiagnosticsMqttRateLimit", 1);
    Deliver(Request(kZepPayload));
    platform.clock->Advance(2min);
    Deliver(Request(kZepPayload));
    EXPECT_EQ(ZepScans(), 1u) << "custom settings are off: the value must be ignored";

    platform.settings->enableCustomSettings = true;
    Deliver(Request(kZepPayload));
    EXPECT_EQ(ZepScans(), 2u);
    platform.clock->Advance(59s);
    Deliver(Request(kZepPayload));
    EXPECT_EQ(ZepScans(), 2u);
    EXPECT_TRUE(platform.log->Contains(std::string(kRateLimited) + " 1 minutes."));

    // 0 means "not set": the default stays in force.
    platform.registry->SetDword(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP", L"GetDiagnosticsMqttRateLimit", 0);
    platform.clock->Advance(5min);
    Deliver(Request(kZepPayload));
    EXPECT_EQ(ZepScans(), 2u);
    EXPECT_TRUE(platform.log->Contains(std::string(kRateLimited) + " 10 minutes."));
}

TEST_F(IntakeTest, HugeRegistryRateLimitDoesNotOverflow) {
    platform.settings->enableCustomSettings = true;
    platform.registry->SetDword(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP", L"GetDiagnosticsMqttRateLimit",
                                0xFFFFFFFFu);
    Deliver(Request(kZepPayload));
    platform.clock->Advance(24h * 365);
    Deliver(Request(kZepPayload));
    EXPECT_EQ(ZepScans(), 1u);
}

// A registry that fails in a way no caller expects.
class ThrowingRegistry : public zep::platform::MemoryRegistry {
public:
    bool GetDword(Hive, const std::wstring&, const std::wstring&, DWORD&) override {
        throw std::runtime_error("registry unavailable");
    }
};

TEST_F(IntakeTest, ExceptionsWhileHandlingANotificationAreLoggedAndSwallowed) {
    platform.settings->enableCustomSettings = true;
    platform.env.registry = std::make_shared<ThrowingRegistry>();
    platform.Reinstall();
    auto request = Request(kZepPayload);
    EXPECT_NO_THROW(peer->OnNotification(request));
    manager->WaitForScanToFinish();
    EXPECT_TRUE(platform.log->Contains("OnZEPNotification failed with error: registry unavailable"));
    EXPECT_EQ(ZepScans(), 0u);
}

struct PayloadCase {
    const char* name;
    std::string payload;
    std::wstring requestId;
    std::vector<std::wstring> targets;
};

class PayloadTest : public ManagerTest, public ::testing::WithParamInterface<PayloadCase> {};

TEST_P(PayloadTest, ParsesRequestIdAndTargets) {
    const auto& c = GetParam();
    ZEPNotificationData data(3, 0, L"run", L"getDiagnostics", zep::text::FromUtf8(c.payload));
    DiagnosticsParams params;
    params.requestId = L"stale";
    params.targets.insert(L"stale");
    manager->ParseDiagnosticsParameters(data, params);
    EXPECT_EQ(params.requestId, c.requestId);
    std::vector<std::wstring> targets(params.targets.begin(), params.targets.end());
    std::sort(targets.begin(), targets.end());
    EXPECT_EQ(targets, c.targets);
}

const std::string kEnvelope = R"({"zep-message":{"action":{"cmd_param":)";

INSTANTIATE_TEST_SUITE_P(
    Payloads, PayloadTest,
    ::testing::Values(
        PayloadCase{"Empty", "", L"", {L"zep"}},
        PayloadCase{"NotJson", "{not json", L"", {L"zep"}},
        PayloadCase{"MixedCase", kEnvelope + R"({"requestId":"ABC","target":["Zep","PluginX"]}}}})", L"abc",
                    {L"pluginx", L"zep"}},
        PayloadCase{"TargetString", kEnvelope + R"({"requestId":"r","target":"pluginx"}}}})", L"r", {L"zep"}},
        PayloadCase{"EmptyArray", kEnvelope + R"({"requestId":"r","target":[]}}}})", L"r", {}},
        PayloadCase{"NonStringElements", kEnvelope + R"({"target":[1,"A",null,{"x":1},"a"]}}}})", L"", {L"a"}},
        PayloadCase{"NumericRequestId", kEnvelope + R"({"requestId":42,"target":["zep"]}}}})", L"", {L"zep"}},
        PayloadCase{"NoTarget", kEnvelope + R"({"requestId":"R2"}}}})", L"r2", {L"zep"}},
        PayloadCase{"CmdParamNotObject", kEnvelope + R"(["requestId","x"]}}})", L"", {L"zep"}},
        PayloadCase{"ActionMissing", R"({"zep-message":{"cmd_param":{"requestId":"x","target":["p"]}}})", L"",
                    {L"zep"}},
        PayloadCase{"EnvelopeNotObject", R"({"zep-message":"text"})", L"", {L"zep"}},
        PayloadCase{"TopLevelArray", R"([1,2])", L"", {L"zep"}}),
    [](const ::testing::TestParamInfo<PayloadCase>& p) { return std::string(p.param.name); });

TEST_F(IntakeTest, PayloadProblemsAreLogged) {
    ZEPNotificationData empty(3, 0, L"run", L"getDiagnostics", L"");
    ZEPNotificationData broken(3, 0, L"run", L"getDiagnostics", L"{oops");
    DiagnosticsParams params;
    manager->ParseDiagnosticsParameters(empty, params);
    manager->ParseDiagnosticsParameters(broken, params);
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::ParseDiagnosticsParameters: empty notification payload"));
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::ParseDiagnosticsParameters: parsing notification payload: {oops"));
    EXPECT_TRUE(platform.log->Contains("DiagnosticsManager::ParseDiagnosticsParameters: JSON parse failed: "));
}

TEST_F(IntakeTest, AcceptedRequestScansUnderItsRequestId) {
    Deliver(Request(ManagerTest::Payload("REQ-7", R"(["ZEP"])")));
    const Json::Value result = ComponentResult(L"req-7");
    ASSERT_TRUE(result.isObject());
    EXPECT_EQ(result["friendlyName"].asString(), "ZEP");
    EXPECT_EQ(peer->GetTriggerType(), L"Mqtt");
}

}  // namespace
