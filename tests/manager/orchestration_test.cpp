#include "manager/ScanName.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <iterator>
#include <sstream>
#include <stdexcept>

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
    Deliver(Request(kZepPayload, L"Run"));  // action is case-sensitive
    Deliver(Request(kZepPayload, L"run", L"getDiagnosticsNow"));
    Deliver(ZEPNotificationData(3, 0, L"run", L"getDiagnostics", kZepPayload, false, true));  // an extension's
    EXPECT_EQ(ZepScans(), 0u);

    Deliver(Request(kZepPayload, L"run", L"GETDIAGNOSTICS"));  // the message type ignores case
    EXPECT_EQ(ZepScans(), 1u);
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

// Anything unusable falls back to the agent's own scan; nothing of the previous request leaks.
TEST_F(IntakeTest, PayloadsGiveRequestIdAndTargets) {
    const std::string envelope = R"({"zep-message":{"action":{"cmd_param":)";
    const struct {
        std::string payload;
        std::wstring requestId;
        std::vector<std::wstring> targets;
    } cases[] = {
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
}

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
};

// The cloud matches the upload by the id; one that is no file name could move the scan's folders.
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
        {"../../victim", L""},
        {"x\\ny", L""},
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

// Judged after the tests ran: exactly 60 s is in time. Either failure drops the tests' results.
TEST_F(OrchestrationTest, TimeOutAndExceptionsOfTheTests) {
    const struct {
        std::function<void()> during;
        DiagnosticsManager::ResultType result;
        const wchar_t* executionTime;
        const char* log;  // nullptr: none
    } cases[] = {
        {[&] { platform.clock->Advance(60s); }, DiagnosticsManager::Complete, L"60.000", nullptr},
        {[&] { platform.clock->Advance(60500ms); }, DiagnosticsManager::ErrorTimeOut, L"0", nullptr},
        {[] { throw std::runtime_error("adapter gone"); }, DiagnosticsManager::ErrorGeneral, L"0",
         "DiagnosticsManager::RunDiagnostics: exception during tests running adapter gone"},
        {[] { throw 42; }, DiagnosticsManager::ErrorGeneral, L"0", "exception during tests running unknown exception"},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        std::wstring executionTime;
        EXPECT_EQ(Run(c.during, executionTime), c.result) << "case " << i;
        EXPECT_EQ(executionTime, c.executionTime) << "case " << i;
        EXPECT_EQ(peer->tests().size(), c.result == DiagnosticsManager::Complete ? 2u : 0u) << "case " << i;
        if (c.log) { EXPECT_TRUE(platform.log->Contains(c.log)) << "case " << i; }
    }
}

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

std::wstring Repeated(const std::wstring& text, int count) {
    std::wstring out;
    for (int i = 0; i < count; ++i) out += text;
    return out;
}

TEST(ScanNameTest, EachSystemsFileNameRules) {
    const struct {
        std::wstring name;
        bool posix;
        bool windows;
    } cases[] = {
        {L"urn:req:42", true, false},
        {L"\u00e9t\u00e9 \U0001F600", true, true},
        {std::wstring(255, L'a'), true, true},
        {std::wstring(256, L'a'), false, false},
        {std::wstring(128, L'\u00e9'), false, true},  // 256 bytes as UTF-8, 128 UTF-16 units
        {Repeated(L"\U0001F600", 128), false, false},  // 512 bytes, 256 units
        {L"Nul .log", true, false},
        {L"COM\u00b9", true, false},
        {L"COM10", true, true},
        {L"..", false, false},
        {L"...", true, false},
        {L"a/b", false, false},
        {L"x\ny", false, false},
        {std::wstring{L'a', static_cast<wchar_t>(0xDC80)}, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(zep::text::ToUtf8(c.name));
        EXPECT_EQ(zep::manager::IsOneFileName(c.name, zep::manager::NameRules::Posix), c.posix);
        EXPECT_EQ(zep::manager::IsOneFileName(c.name, zep::manager::NameRules::Windows), c.windows);
    }
}

}  // namespace
