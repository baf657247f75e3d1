// The scan's outcome as critical event 1018: which scans report, and with what text.
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Strings.h"
#include "support/ManagerFixture.h"

namespace {

constexpr const char* kLabel = "DiagnosticsManager::LogCriticalEvent";
constexpr const char* kSignature = "9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08";

std::string Message(const std::string& text) { return std::string(kLabel) + " " + text; }

class CriticalEventTest : public zep::testing::ManagerTest {
protected:
    CriticalEventTest() { platform.log->Clear(); }

    void SetScan(int status, bool problematic, const std::string& signature) {
        peer->resultType() = static_cast<DiagnosticsManager::ResultType>(status);
        peer->isProblematic() = problematic;
        peer->problemSignature() = zep::text::FromUtf8(signature);
    }

    // The messages of LogCriticalEvent, in order.
    std::vector<std::string> EventMessages() const {
        std::vector<std::string> messages;
        for (const auto& message : platform.log->Messages()) {
            if (message.rfind(kLabel, 0) == 0) messages.push_back(message);
        }
        return messages;
    }
};

// ---- What is reported --------------------------------------------------------

struct Decision {
    const char* name;
    int status;
    bool problematic;
    std::string signature;
    std::optional<std::string> eventText;  // none: no event
    std::string decisionMessage;           // empty: no decision message
};

void PrintTo(const Decision& decision, std::ostream* out) { *out << decision.name; }

class CriticalEventDecisionTest : public CriticalEventTest, public ::testing::WithParamInterface<Decision> {};

TEST_P(CriticalEventDecisionTest, ReportsTheScanOutcome) {
    const Decision& d = GetParam();
    SetScan(d.status, d.problematic, d.signature);

    peer->LogCriticalEvent();

    const auto events = platform.events->Events();
    if (d.eventText) {
        ASSERT_EQ(events.size(), 1u);
        EXPECT_EQ(events[0].id, 1018);
        EXPECT_EQ(zep::text::ToUtf8(events[0].text), *d.eventText);
    } else {
        EXPECT_TRUE(events.empty());
    }

    std::vector<std::string> expected = {
        Message("problem signature : " + d.signature),
        Message("Device with commercial-intent is not registered OR registered to a non QAC org"),
        Message("scan status : " + std::to_string(d.status) + ", isProblematic : " + (d.problematic ? "1" : "0")),
    };
    if (!d.decisionMessage.empty()) expected.push_back(Message(d.decisionMessage));
    EXPECT_EQ(EventMessages(), expected);
}

const std::string kSig = kSignature;

INSTANTIATE_TEST_SUITE_P(
    DecisionTable, CriticalEventDecisionTest,
    ::testing::Values(
        Decision{"BeforeAnyScan", -1, false, kSig, std::nullopt, ""},
        Decision{"ProblematicWithoutStatus", -1, true, kSig, kSig, "Logging critical event: 1018: " + kSig},
        Decision{"TimedOut", 1, false, kSig, "1", "Logging critical event: 1"},
        Decision{"TimedOutAndProblematic", 1, true, kSig, "1", "Logging critical event: 1"},
        Decision{"CompleteWithoutProblem", 0, false, kSig, "0", "Logging critical event: 0"},
        Decision{"CompleteWithProblem", 0, true, kSig, kSig, "Logging critical event: 1018: " + kSig},
        Decision{"ErrorWithEmptySignature", 2, true, "", "", "Logging critical event: 1018: "},
        Decision{"ErrorWithoutProblem", 2, false, kSig, kSig, "Logging critical event: 1018: " + kSig},
        Decision{"OtherStatusWithProblem", 7, true, kSig, kSig, "Logging critical event: 1018: " + kSig},
        Decision{"OtherStatusWithoutProblem", 7, false, kSig, std::nullopt, ""}),
    [](const ::testing::TestParamInfo<Decision>& param) { return std::string(param.param.name); });

// ---- Which devices report ----------------------------------------------------

TEST_F(CriticalEventTest, RegisteredDeviceReportsWithoutAskingForProvisioning) {
    // No placeholder organisation is ever recognised, so registered devices report.
    platform.device->registered = true;
    platform.device->provisioned = false;
    SetScan(0, true, kSignature);

    peer->LogCriticalEvent();

    const auto events = platform.events->Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(zep::text::ToUtf8(events[0].text), kSignature);
    EXPECT_FALSE(platform.log->Contains("Device registered to QAC org"));
}

TEST_F(CriticalEventTest, ProvisionedUnregisteredDeviceReports) {
    platform.device->registered = false;
    platform.device->provisioned = true;
    SetScan(0, false, kSignature);

    peer->LogCriticalEvent();

    const auto events = platform.events->Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].id, 1018);
    EXPECT_EQ(zep::text::ToUtf8(events[0].text), "0");
}

TEST_F(CriticalEventTest, DeviceNeitherRegisteredNorProvisionedOnlyLogsTheSignature) {
    platform.device->registered = false;
    platform.device->provisioned = false;
    SetScan(2, true, kSignature);

    peer->LogCriticalEvent();

    EXPECT_TRUE(platform.events->Events().empty());
    EXPECT_EQ(EventMessages(), std::vector<std::string>{Message(std::string("problem signature : ") + kSignature)});
}

}  // namespace
