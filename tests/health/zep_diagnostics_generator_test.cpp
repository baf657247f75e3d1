#include "DiagnosticScanner/ZEPDiagnosticsGenerator.h"

#include <chrono>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/TestPlatform.h"

namespace {

using ::testing::ElementsAre;
using zep::diagnostics::Tests;
using zep::platform::Hive;

const std::wstring kSupportKey = L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport";

std::wstring ActualOf(const std::vector<Tests>& tests, const std::wstring& name) {
    std::wstring found = L"<missing>";
    for (const auto& test : tests) {
        if (test.name == name) found = found == L"<missing>" ? test.actual : L"<duplicated>";
    }
    return found;
}

class ZepGeneratorTest : public ::testing::Test {
protected:
    std::vector<Tests> Run() {
        std::vector<Tests> tests;
        ZEP::ZEPDiagnosticsGenerator().RunTests(tests);
        return tests;
    }
    zep::testing::TestPlatform platform;
};

TEST_F(ZepGeneratorTest, TestsAndTheirOrderDependOnRegistration) {
    const auto rows = [this] {
        std::vector<std::wstring> out;
        for (const auto& t : Run()) out.push_back(t.name + L" " + t.id + L" " + t.expected + L" " + t.actual);
        return out;
    };
    platform.registry->SetDword(Hive::LocalMachine, kSupportKey, L"certPinningError", 0);
    EXPECT_EQ(ZEP::ZEPDiagnosticsGenerator().GetComponentId(), L"9A1B2C3D-4E5F-4A6B-8C7D-0123456789AB");
    EXPECT_THAT(rows(), ElementsAre(L"registered_cert_valid 123470e1-6d56-4eb7-8fdf-3bd3edc8bf03 valid valid",
                                    L"mqtt_connection 773270e1-6d56-4eb7-8fdf-3bd3edc8bc02 success success",
                                    L"sync_success 1a4270e1-6d56-4eb7-8fdf-3bd3edc8bd02 success success",
                                    L"device_registered 123470e1-6d56-4eb7-8fdf-3bd3edc8bf02 registered registered",
                                    L"xrs_api_cert_pinning 123470e1-6d56-4eb7-8fdf-3bd3edc8bf06 success success"));
    // Unregistered: only the two start values; pinning has failed until a value says otherwise.
    platform.registry->Clear();
    platform.device->registered = false;
    EXPECT_THAT(rows(), ElementsAre(L"device_registered 123470e1-6d56-4eb7-8fdf-3bd3edc8bf02 registered not_registered",
                                    L"xrs_api_cert_pinning 123470e1-6d56-4eb7-8fdf-3bd3edc8bf06 success failed"));
}

TEST_F(ZepGeneratorTest, RegistryErrorValuesDecideTheRegistrySyncAndPinningOutcomes) {
    struct Case {
        bool registered;
        std::vector<std::pair<std::wstring, DWORD>> dwords;
        const wchar_t* deviceRegistered;
        const wchar_t* syncSuccess;  // only reported for a registered device
        const wchar_t* certPinning;
    };
    const Case cases[] = {
        {true, {}, L"registered", L"success", L"failed"},
        {true, {{L"syncXRSError", 0}, {L"syncRetryError", 0}, {L"certPinningError", 0}}, L"registered", L"success",
         L"success"},
        {false, {{L"registerXrsError", 1}}, L"register_xrs_error", nullptr, L"failed"},
        {false, {{L"registerXrsError", 0}}, L"not_registered", nullptr, L"failed"},
        {true, {{L"registerXrsError", 1}}, L"registered", L"success", L"failed"},  // ignored once registered
        {true, {{L"syncXRSError", 7}}, L"registered", L"xrs_error", L"failed"},
        {true, {{L"syncXRSError", 1}, {L"syncRetryError", 1}}, L"registered", L"retry_exceeded", L"failed"},
        {true, {{L"certPinningError", 3}}, L"registered", L"success", L"failed"},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(::testing::Message() << "case " << i);
        const Case& c = cases[i];
        platform.registry->Clear();
        platform.device->registered = c.registered;
        for (const auto& [name, value] : c.dwords) {
            platform.registry->SetDword(Hive::LocalMachine, kSupportKey, name, value);
        }
        const auto tests = Run();
        EXPECT_EQ(ActualOf(tests, L"device_registered"), c.deviceRegistered);
        EXPECT_EQ(ActualOf(tests, L"sync_success"), c.syncSuccess ? c.syncSuccess : L"<missing>");
        EXPECT_EQ(ActualOf(tests, L"xrs_api_cert_pinning"), c.certPinning);
    }
}

// The fake clock stands at 2026-11-21T10:15:30Z.
TEST_F(ZepGeneratorTest, CertificateIsValidOnlyWhenPresentWithThumbprintAndExpiryAfterThePlatformClock) {
    const zep::platform::RegisteredCertificate cases[] = {
        {true, "3F2A9C", "2026-11-21T10:15:31Z"}, {true, "3F2A9C", "2026-11-21T10:15:30Z"},
        {false, "3F2A9C", "2027-11-21T00:00:00Z"}, {true, "", "2027-11-21T00:00:00Z"},
        {true, "3F2A9C", "next year"},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        platform.agents->coreAdapter->certificate = cases[i];
        EXPECT_EQ(ActualOf(Run(), L"registered_cert_valid"), i == 0 ? L"valid" : L"expired") << cases[i].notAfter;
    }
    platform.agents->coreAdapter->certificate = {true, "3F2A9C", "2026-11-21T10:16:00Z"};
    EXPECT_EQ(ActualOf(Run(), L"registered_cert_valid"), L"valid");
    platform.clock->Advance(std::chrono::seconds(30));
    EXPECT_EQ(ActualOf(Run(), L"registered_cert_valid"), L"expired");
}

TEST_F(ZepGeneratorTest, MqttFailsOnlyForAnUnexpectedDisconnectOfEnabledMqtt) {
    // MQTT enabled, state (0 disconnected, 1 connecting, 2 connected), disconnect expected, retries exceeded.
    const std::tuple<bool, int, bool, bool, std::wstring> cases[] = {
        {true, 2, false, false, L"success"}, {true, 2, false, true, L"success"},  {false, 0, false, true, L"success"},
        {true, 1, true, true, L"success"},   {true, 0, false, false, L"failed"},  {true, 1, false, false, L"failed"},
        {true, 3, false, false, L"failed"},  {true, 0, false, true, L"retry_exceeded"},
    };
    auto& agent = *platform.agents->notificationAgent;
    std::wstring expected;
    for (const auto& c : cases) {
        std::tie(agent.mqttEnabled, agent.state, agent.disconnectExpected, agent.retriesExceeded, expected) = c;
        EXPECT_EQ(ActualOf(Run(), L"mqtt_connection"), expected) << ::testing::PrintToString(c);
    }
    platform.agents->notificationAgent = nullptr;
    EXPECT_EQ(ActualOf(Run(), L"mqtt_connection"), L"agentFactory is null");
}

// Other modules call the generator through the platform's copy of the class: same slots.
#if defined(__GNUC__) && !defined(_WIN32)
// Under the Itanium C++ ABI a pointer to a virtual member holds its vtable offset (plus one on x86).
template <typename MemberFunction>
std::ptrdiff_t VirtualSlot(MemberFunction function) {
    std::ptrdiff_t words[2];
    static_assert(sizeof(MemberFunction) == sizeof words);
    std::memcpy(words, &function, sizeof words);
    return words[0] / static_cast<std::ptrdiff_t>(sizeof(void*));
}

TEST(ZepGeneratorLayoutTest, ChecksTakeTheSlotsRightAfterTheInterfaces) {
    struct G : ZEP::ZEPDiagnosticsGenerator {
        static std::vector<std::ptrdiff_t> Slots() {
            return {VirtualSlot(&G::RunTests), VirtualSlot(&G::GetComponentId), VirtualSlot(&G::GetFriendlyName),
                    VirtualSlot(&G::CheckDeviceRegistration), VirtualSlot(&G::CheckTelemetrySyncXrsError),
                    VirtualSlot(&G::CheckTelemetrySyncRetryError), VirtualSlot(&G::CheckMqttStatus),
                    VirtualSlot(&G::CheckIfMqttRetriesExceeded), VirtualSlot(&G::CheckTelemetrySyncStatus),
                    VirtualSlot(&G::CheckRegistrationFailedWithXRSError),
                    VirtualSlot(&G::CheckRegisteredCertificateIsValid), VirtualSlot(&G::GetErrorStatusFromRegistry),
                    VirtualSlot(&G::CheckXrsApiCertPinningStatus)};
        }
    };
    EXPECT_THAT(G::Slots(), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12));
}
#endif

}  // namespace
