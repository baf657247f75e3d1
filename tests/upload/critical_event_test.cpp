// The scan's outcome as critical event 1018: which scans and devices report, and with what text.
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/util/Strings.h"
#include "support/ManagerFixture.h"

namespace {

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

class CriticalEventTest : public zep::testing::ManagerTest, public ::testing::WithParamInterface<Decision> {};

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
        Decision{"ErrorWithEmptySignature", 2, true, "", "", "1018: "},
        Decision{"ErrorWithoutProblem", 2, false, kSig, kSig, "1018: " + kSig},
        Decision{"OtherStatusWithProblem", 7, true, kSig, kSig, "1018: " + kSig},
        Decision{"OtherStatusWithoutProblem", 7, false, kSig, std::nullopt, ""},
        // No placeholder organisation is recognised, so provisioning is not asked.
        Decision{"RegisteredUnprovisioned", 0, true, kSig, kSig, "1018: " + kSig, true, false},
        Decision{"ProvisionedUnregistered", 0, false, kSig, "0", "0", false, true},
        Decision{"NeitherRegisteredNorProvisioned", 2, true, kSig, std::nullopt, "", false, false}),
    [](const ::testing::TestParamInfo<Decision>& param) { return std::string(param.param.name); });

}  // namespace
