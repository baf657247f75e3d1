// Request intake: which notifications start a scan, the rate limit, what a payload asks for.
#include <algorithm>
#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/util/Strings.h"
#include "support/ManagerFixture.h"

using namespace std::chrono_literals;
using zep::platform::Hive;
using zep::testing::ManagerTest;

namespace {

const std::wstring kZepPayload = ManagerTest::Payload("r1", R"(["zep"])");
const char* kRateLimited = "DiagnosticsManager::OnNotification: getDiagnostics rate limit exceeded. minimum interval is";
const wchar_t* kZepKey = L"SOFTWARE\\Quorin\\ZEP";

using IntakeTest = ManagerTest;

TEST_F(IntakeTest, OnlyRunGetDiagnosticsIsARequest) {
    Deliver(Request(kZepPayload, L"Run"));                      // action is case-sensitive
    Deliver(Request(kZepPayload, L"run ", L"getDiagnostics"));  // and exact
    Deliver(Request(kZepPayload, L"run", L"getDiagnosticsNow"));
    Deliver(ZEPNotificationData(3, 0, L"run", L"getDiagnostics", kZepPayload, false, true));  // an extension's
    EXPECT_EQ(ZepScans(), 0u);

    Deliver(Request(kZepPayload, L"run", L"GETDIAGNOSTICS"));  // the message type ignores case
    EXPECT_EQ(ZepScans(), 1u);
}

TEST_F(IntakeTest, OnlineTopicsAreHandledBeforeAnyRequestAndNeverScan) {
    // Even carrying a request, an online notification only resumes uploads.
    Deliver(ZEPNotificationData(6, 0, L"run", L"getDiagnostics", kZepPayload));
    Deliver(ZEPNotificationData(10, 13, L"run", L"getDiagnostics", kZepPayload));
    EXPECT_EQ(ZepScans(), 0u);

    // A QCP notification on topic 6 is not an online one; nor are other states of topic 10.
    Deliver(ZEPNotificationData(6, 0, L"run", L"getDiagnostics", kZepPayload, true));
    EXPECT_EQ(ZepScans(), 1u);
    platform.clock->Advance(10min);
    Deliver(ZEPNotificationData(10, 12, L"run", L"getDiagnostics", kZepPayload));
    EXPECT_EQ(ZepScans(), 2u);
}

TEST_F(IntakeTest, RateLimitIsTenMinutesMeasuredFromTheLastAcceptedRequest) {
    Deliver(Request(kZepPayload));
    platform.clock->Advance(9min + 59s);
    Deliver(Request(kZepPayload));
    EXPECT_EQ(ZepScans(), 1u);
    EXPECT_EQ(platform.log->Count(std::string(kRateLimited) + " 10 minutes."), 1u);

    platform.clock->Advance(1s);  // a refused request does not restart the interval
    Deliver(Request(kZepPayload));
    EXPECT_EQ(ZepScans(), 2u);
    platform.clock->Advance(10min - 1ns);
    Deliver(Request(kZepPayload));
    EXPECT_EQ(ZepScans(), 2u);
}

TEST_F(IntakeTest, RegistryRateLimitCountsOnlyWithCustomSettings) {
    platform.registry->SetDword(Hive::LocalMachine, kZepKey, L"GetDiagnosticsMqttRateLimit", 1);
    Deliver(Request(kZepPayload));
    platform.clock->Advance(2min);
    Deliver(Request(kZepPayload));
    EXPECT_EQ(ZepScans(), 1u) << "custom settings are off: the value must be ignored";

    platform.settings->enableCustomSettings = true;
    Deliver(Request(kZepPayload));
    platform.clock->Advance(59s);
    Deliver(Request(kZepPayload));
    EXPECT_EQ(ZepScans(), 2u);
    EXPECT_TRUE(platform.log->Contains(std::string(kRateLimited) + " 1 minutes."));

    // 0 means "not set": the default stays in force.
    platform.registry->SetDword(Hive::LocalMachine, kZepKey, L"GetDiagnosticsMqttRateLimit", 0);
    platform.clock->Advance(5min);
    Deliver(Request(kZepPayload));
    EXPECT_EQ(ZepScans(), 2u);

    // Minutes to a duration must not overflow into a short interval.
    platform.registry->SetDword(Hive::LocalMachine, kZepKey, L"GetDiagnosticsMqttRateLimit", 0xFFFFFFFFu);
    platform.clock->Advance(24h * 365);
    Deliver(Request(kZepPayload));
    EXPECT_EQ(ZepScans(), 2u);
}

// Anything unusable falls back to the agent's own scan; the previous request's
// values never leak into the next one.
TEST_F(IntakeTest, PayloadsGiveRequestIdAndTargets) {
    const std::string envelope = R"({"zep-message":{"action":{"cmd_param":)";
    const struct {
        std::string payload;
        std::wstring requestId;
        std::vector<std::wstring> targets;
    } cases[] = {
        {"", L"", {L"zep"}},
        {"{not json", L"", {L"zep"}},
        {envelope + R"({"requestId":"ABC","target":["Zep","PluginX"]}}}})", L"abc", {L"pluginx", L"zep"}},
        {envelope + R"({"requestId":"r","target":"pluginx"}}}})", L"r", {L"zep"}},
        {envelope + R"({"requestId":"r","target":[]}}}})", L"r", {}},
        {envelope + R"({"target":[1,"A",null,{"x":1},"a"]}}}})", L"", {L"a"}},
        {envelope + R"({"requestId":42,"target":["zep"]}}}})", L"", {L"zep"}},
        {envelope + R"({"requestId":"R2"}}}})", L"r2", {L"zep"}},
        {envelope + R"(["requestId","x"]}}})", L"", {L"zep"}},
        {R"({"zep-message":{"cmd_param":{"requestId":"x","target":["p"]}}})", L"", {L"zep"}},
        {envelope + R"({"requestId":"\u00c9P-1","target":["\u00dcBER"]}}}})", L"\u00e9p-1", {L"\u00fcber"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.payload);
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
    // The payload is logged: a line feed in it cannot start a line of its own.
    ZEPNotificationData forged(3, 0, L"run", L"getDiagnostics",
                               L"x\n2026-01-01T00:00:00.000Z [e] [00000] FORGED: upload succeeded");
    DiagnosticsParams params;
    manager->ParseDiagnosticsParameters(forged, params);
    for (const auto& line : platform.log->Lines()) EXPECT_EQ(line.find('\n'), line.size() - 1) << line;
    EXPECT_TRUE(platform.log->Contains("parsing notification payload: x\\x0A2026-01-01T00:00:00.000Z [e]"));
}

}  // namespace
