#include "DiagnosticScanner/ZEPDiagnosticsGenerator.h"

#include <chrono>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "support/ManagerPeer.h"
#include "support/TestPlatform.h"

namespace {

using ::testing::ElementsAre;
using zep::diagnostics::Tests;
using zep::platform::Hive;

// Deliberately spelt differently from the generator's own key path: the
// registry matches keys without regard to case.
const std::wstring kSupportKey = L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport";

std::vector<std::wstring> Names(const std::vector<Tests>& tests) {
    std::vector<std::wstring> names;
    for (const auto& test : tests) names.push_back(test.name);
    return names;
}

// The `actual` of the one test called `name`; a marker when it is missing so
// that a wrong expectation and a missing test read differently.
std::wstring ActualOf(const std::vector<Tests>& tests, const std::wstring& name) {
    std::wstring found = L"<missing>";
    int count = 0;
    for (const auto& test : tests) {
        if (test.name == name) {
            found = test.actual;
            ++count;
        }
    }
    return count > 1 ? L"<duplicated>" : found;
}

class ZepGeneratorTest : public ::testing::Test {
protected:
    std::vector<Tests> Run() {
        ZEP::ZEPDiagnosticsGenerator generator;
        std::vector<Tests> tests;
        generator.RunTests(tests);
        return tests;
    }

    zep::testing::TestPlatform platform;
};

// ---- Which tests, in which order -----------------------------------------

TEST_F(ZepGeneratorTest, RegisteredDeviceReportsAllFiveTestsWithTheirIdentities) {
    platform.device->registered = true;
    platform.registry->SetDword(Hive::LocalMachine, kSupportKey, L"certPinningError", 0);

    const auto tests = Run();

    ASSERT_EQ(tests.size(), 5u);
    struct Row {
        const wchar_t* name;
        const wchar_t* id;
        const wchar_t* expected;
        const wchar_t* actual;
    };
    const Row rows[] = {
        {L"registered_cert_valid", L"123470e1-6d56-4eb7-8fdf-3bd3edc8bf03", L"valid", L"valid"},
        {L"mqtt_connection", L"773270e1-6d56-4eb7-8fdf-3bd3edc8bc02", L"success", L"success"},
        {L"sync_success", L"1a4270e1-6d56-4eb7-8fdf-3bd3edc8bd02", L"success", L"success"},
        {L"device_registered", L"123470e1-6d56-4eb7-8fdf-3bd3edc8bf02", L"registered", L"registered"},
        {L"xrs_api_cert_pinning", L"123470e1-6d56-4eb7-8fdf-3bd3edc8bf06", L"success", L"success"},
    };
    for (std::size_t i = 0; i < tests.size(); ++i) {
        SCOPED_TRACE(rows[i].name);
        EXPECT_EQ(tests[i].name, rows[i].name);
        EXPECT_EQ(tests[i].id, rows[i].id);
        EXPECT_EQ(tests[i].expected, rows[i].expected);
        EXPECT_EQ(tests[i].actual, rows[i].actual);
    }
}

TEST_F(ZepGeneratorTest, UnregisteredDeviceReportsOnlyRegistrationAndPinningWithTheirStartValues) {
    platform.device->registered = false;

    const auto tests = Run();

    ASSERT_THAT(Names(tests), ElementsAre(L"device_registered", L"xrs_api_cert_pinning"));
    EXPECT_EQ(tests[0].id, L"123470e1-6d56-4eb7-8fdf-3bd3edc8bf02");
    EXPECT_EQ(tests[0].expected, L"registered");
    EXPECT_EQ(tests[0].actual, L"not_registered");
    EXPECT_EQ(tests[1].id, L"123470e1-6d56-4eb7-8fdf-3bd3edc8bf06");
    EXPECT_EQ(tests[1].expected, L"success");
    EXPECT_EQ(tests[1].actual, L"failed");
}

TEST_F(ZepGeneratorTest, SecondRunOnTheSameGeneratorReportsEveryTestTwice) {
    platform.device->registered = false;
    ZEP::ZEPDiagnosticsGenerator generator;
    std::vector<Tests> first;
    std::vector<Tests> second;

    generator.RunTests(first);
    generator.RunTests(second);

    EXPECT_THAT(Names(first), ElementsAre(L"device_registered", L"xrs_api_cert_pinning"));
    EXPECT_THAT(Names(second), ElementsAre(L"device_registered", L"xrs_api_cert_pinning", L"device_registered",
                                           L"xrs_api_cert_pinning"));
}

// ---- Registry error values -------------------------------------------------

struct RegistryCase {
    const char* label;
    bool registered;
    bool createKey;  // the DeviceSupport key exists (possibly without values)
    std::vector<std::pair<std::wstring, DWORD>> dwords;
    std::vector<std::pair<std::wstring, std::wstring>> strings;
    std::wstring deviceRegistered;
    std::wstring syncSuccess;  // only reported for a registered device
    std::wstring certPinning;
};

void PrintTo(const RegistryCase& c, std::ostream* os) { *os << c.label; }

class ZepGeneratorRegistryTest : public ZepGeneratorTest, public ::testing::WithParamInterface<RegistryCase> {};

TEST_P(ZepGeneratorRegistryTest, ErrorValuesDecideTheRegistrySyncAndPinningOutcomes) {
    const RegistryCase& c = GetParam();
    platform.device->registered = c.registered;
    if (c.createKey) platform.registry->CreateKey(Hive::LocalMachine, kSupportKey);
    for (const auto& [name, value] : c.dwords) platform.registry->SetDword(Hive::LocalMachine, kSupportKey, name, value);
    for (const auto& [name, value] : c.strings) {
        platform.registry->SetString(Hive::LocalMachine, kSupportKey, name, value);
    }

    const auto tests = Run();

    EXPECT_EQ(ActualOf(tests, L"device_registered"), c.deviceRegistered);
    EXPECT_EQ(ActualOf(tests, L"sync_success"), c.registered ? c.syncSuccess : L"<missing>");
    EXPECT_EQ(ActualOf(tests, L"xrs_api_cert_pinning"), c.certPinning);
}

INSTANTIATE_TEST_SUITE_P(
    Values, ZepGeneratorRegistryTest,
    ::testing::Values(
        RegistryCase{"no key at all", true, false, {}, {}, L"registered", L"success", L"failed"},
        RegistryCase{"no key, unregistered", false, false, {}, {}, L"not_registered", L"", L"failed"},
        RegistryCase{"empty key", true, true, {}, {}, L"registered", L"success", L"failed"},
        RegistryCase{"all zero", true, false,
                     {{L"syncXRSError", 0}, {L"syncRetryError", 0}, {L"certPinningError", 0}}, {},
                     L"registered", L"success", L"success"},
        RegistryCase{"registerXrsError set, unregistered", false, false, {{L"registerXrsError", 1}}, {},
                     L"register_xrs_error", L"", L"failed"},
        RegistryCase{"registerXrsError zero, unregistered", false, false, {{L"registerXrsError", 0}}, {},
                     L"not_registered", L"", L"failed"},
        RegistryCase{"registerXrsError ignored when registered", true, false, {{L"registerXrsError", 1}}, {},
                     L"registered", L"success", L"failed"},
        RegistryCase{"syncXRSError", true, false, {{L"syncXRSError", 7}}, {}, L"registered", L"xrs_error",
                     L"failed"},
        RegistryCase{"syncRetryError", true, false, {{L"syncRetryError", 1}}, {}, L"registered",
                     L"retry_exceeded", L"failed"},
        RegistryCase{"both sync errors", true, false, {{L"syncXRSError", 1}, {L"syncRetryError", 1}}, {},
                     L"registered", L"retry_exceeded", L"failed"},
        RegistryCase{"certPinningError non-zero", true, false, {{L"certPinningError", 3}}, {}, L"registered",
                     L"success", L"failed"},
        RegistryCase{"names in other letter case", false, false,
                     {{L"REGISTERXRSERROR", 1}, {L"certpinningerror", 0}}, {}, L"register_xrs_error", L"",
                     L"success"},
        RegistryCase{"sync names in other letter case", true, false,
                     {{L"SYNCxrsERROR", 1}, {L"CertPinningError", 0}}, {}, L"registered", L"xrs_error",
                     L"success"},
        // A value of the wrong type cannot be read as a DWORD, so it counts as absent.
        RegistryCase{"pinning value as text", true, false, {}, {{L"certPinningError", L"0"}}, L"registered",
                     L"success", L"failed"},
        RegistryCase{"error values as text", false, false, {}, {{L"registerXrsError", L"1"}}, L"not_registered",
                     L"", L"failed"}));

TEST_F(ZepGeneratorTest, ValuesOutsideTheDeviceSupportKeyAreNotRead) {
    platform.device->registered = false;
    platform.registry->SetDword(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP", L"certPinningError", 0);
    platform.registry->SetDword(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP", L"registerXrsError", 1);
    platform.registry->SetDword(Hive::Users, kSupportKey, L"certPinningError", 0);
    platform.registry->SetDword(Hive::Users, kSupportKey, L"registerXrsError", 1);

    const auto tests = Run();

    EXPECT_EQ(ActualOf(tests, L"device_registered"), L"not_registered");
    EXPECT_EQ(ActualOf(tests, L"xrs_api_cert_pinning"), L"failed");
}

// ---- Registered certificate ------------------------------------------------

struct CertificateCase {
    const char* label;
    bool present;
    std::string thumbprint;
    std::string notAfter;
    std::wstring expected;
};

void PrintTo(const CertificateCase& c, std::ostream* os) { *os << c.label; }

class ZepGeneratorCertificateTest : public ZepGeneratorTest,
                                     public ::testing::WithParamInterface<CertificateCase> {};

// The fake clock stands at 2026-11-21T10:15:30Z; the boundary cases show that
// its time, not the real one, is what the expiry is compared with.
TEST_P(ZepGeneratorCertificateTest, ValidOnlyWhenPresentWithThumbprintAndExpiryAfterNow) {
    const CertificateCase& c = GetParam();
    platform.agents->coreAdapter->certificate = {c.present, c.thumbprint, c.notAfter};

    EXPECT_EQ(ActualOf(Run(), L"registered_cert_valid"), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Values, ZepGeneratorCertificateTest,
    ::testing::Values(CertificateCase{"valid", true, "3F2A9C", "2027-11-21T00:00:00Z", L"valid"},
                      CertificateCase{"one second left", true, "3F2A9C", "2026-11-21T10:15:31Z", L"valid"},
                      CertificateCase{"expires now", true, "3F2A9C", "2026-11-21T10:15:30Z", L"expired"},
                      CertificateCase{"expired a second ago", true, "3F2A9C", "2026-11-21T10:15:29Z", L"expired"},
                      CertificateCase{"long expired", true, "3F2A9C", "2020-01-01T00:00:00Z", L"expired"},
                      CertificateCase{"not present", false, "3F2A9C", "2027-11-21T00:00:00Z", L"expired"},
                      CertificateCase{"empty thumbprint", true, "", "2027-11-21T00:00:00Z", L"expired"},
                      CertificateCase{"unreadable expiry", true, "3F2A9C", "next year", L"expired"},
                      CertificateCase{"empty expiry", true, "3F2A9C", "", L"expired"}));

TEST_F(ZepGeneratorTest, CertificateFollowsThePlatformClock) {
    platform.agents->coreAdapter->certificate = {true, "3F2A9C", "2026-11-21T10:16:00Z"};
    EXPECT_EQ(ActualOf(Run(), L"registered_cert_valid"), L"valid");

    platform.clock->Advance(std::chrono::seconds(30));
    EXPECT_EQ(ActualOf(Run(), L"registered_cert_valid"), L"expired");
}

TEST_F(ZepGeneratorTest, CertificateIsExpiredWithoutACoreAdapter) {
    platform.agents->coreAdapter = nullptr;
    EXPECT_EQ(ActualOf(Run(), L"registered_cert_valid"), L"expired");
}

// ---- MQTT connection --------------------------------------------------------

struct MqttCase {
    const char* label;
    bool enabled;
    int state;
    bool disconnectExpected;
    bool retriesExceeded;
    std::wstring expected;
};

void PrintTo(const MqttCase& c, std::ostream* os) { *os << c.label; }

class ZepGeneratorMqttTest : public ZepGeneratorTest, public ::testing::WithParamInterface<MqttCase> {};

TEST_P(ZepGeneratorMqttTest, FailsOnlyForAnUnexpectedDisconnectOfEnabledMqtt) {
    const MqttCase& c = GetParam();
    auto& agent = *platform.agents->notificationAgent;
    agent.mqttEnabled = c.enabled;
    agent.state = c.state;
    agent.disconnectExpected = c.disconnectExpected;
    agent.retriesExceeded = c.retriesExceeded;

    EXPECT_EQ(ActualOf(Run(), L"mqtt_connection"), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Values, ZepGeneratorMqttTest,
    ::testing::Values(MqttCase{"connected", true, 2, false, false, L"success"},
                      MqttCase{"connected, stale retry flag", true, 2, false, true, L"success"},
                      MqttCase{"disabled", false, 0, false, false, L"success"},
                      MqttCase{"disabled, retries exceeded", false, 0, false, true, L"success"},
                      MqttCase{"expected disconnect", true, 0, true, false, L"success"},
                      MqttCase{"expected disconnect, retries exceeded", true, 1, true, true, L"success"},
                      MqttCase{"disconnected", true, 0, false, false, L"failed"},
                      MqttCase{"connecting", true, 1, false, false, L"failed"},
                      MqttCase{"unknown state", true, 3, false, false, L"failed"},
                      MqttCase{"disconnected, retries exceeded", true, 0, false, true, L"retry_exceeded"}));

TEST_F(ZepGeneratorTest, MqttWithoutANotificationAgentSaysSo) {
    platform.agents->notificationAgent = nullptr;
    EXPECT_EQ(ActualOf(Run(), L"mqtt_connection"), L"agentFactory is null");
}

// ---- Identity ----------------------------------------------------------------

TEST_F(ZepGeneratorTest, ComponentIdIsTheAgentIdInUpperCaseAndTheNameIsAlwaysZep) {
    const std::pair<std::wstring, std::wstring> cases[] = {
        {L"9a1b2c3d-4e5f-4a6b-8c7d-0123456789ab", L"9A1B2C3D-4E5F-4A6B-8C7D-0123456789AB"},
        {L"AbCdEf01-0000-4000-8000-00000000beef", L"ABCDEF01-0000-4000-8000-00000000BEEF"},
        {L"", L""},
    };
    for (const auto& [agentId, componentId] : cases) {
        platform.device->agentId = agentId;
        ZEP::ZEPDiagnosticsGenerator generator;
        EXPECT_EQ(generator.GetComponentId(), componentId);
        EXPECT_EQ(generator.GetFriendlyName(), L"ZEP");
    }
}

// ---- The manager's failure count ----------------------------------------------

TEST(FailedZepTestsCountTest, CountsTestsWhoseActualDiffersExactlyFromExpected) {
    zep::testing::TestPlatform platform;
    DiagnosticsManager manager;
    DiagnosticsManagerTestPeer peer(manager);
    struct Case {
        const wchar_t* expected;
        const wchar_t* actual;
        bool fails;
    };
    const Case cases[] = {
        {L"registered", L"registered", false}, {L"registered", L"Registered", true}, {L"1", L"1 ", true},
        {L"", L"", false},                     {L"success", L"failed", true},         {L"", L"x", true},
        {L"valid", L"valid", false},
    };
    int expectedFailures = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "expected '" << c.expected << "' actual '" << c.actual << "'");
        Tests test;
        test.name = L"t";
        test.expected = c.expected;
        test.actual = c.actual;
        peer.tests() = {test};
        EXPECT_EQ(peer.GetFailedZepTestsCount(), c.fails ? 1 : 0);
        expectedFailures += c.fails ? 1 : 0;
    }

    peer.tests().clear();
    for (const auto& c : cases) {
        Tests test;
        test.expected = c.expected;
        test.actual = c.actual;
        peer.tests().push_back(test);
    }
    EXPECT_EQ(peer.GetFailedZepTestsCount(), expectedFailures);

    peer.tests().clear();
    EXPECT_EQ(peer.GetFailedZepTestsCount(), 0);
}

}  // namespace
