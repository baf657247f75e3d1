// The scan's outcome reported to the agent's critical-event log (event 1018).
#include <exception>
#include <sstream>
#include <string>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/util/ExceptionText.h"
#include "platform/agent/CommonBase.h"
#include "platform/agent/FileStorageAgent.h"

namespace {
constexpr const char* kLabel = "DiagnosticsManager::LogCriticalEvent";
constexpr int kScanOutcomeEventId = 1018;

// Devices held by the maker's own placeholder organisations.
constexpr const wchar_t* kUnclaimedOrganization = L"organization\\Unclaimed";
constexpr const wchar_t* kAutoclaimedOrganization = L"organization\\QuorinAutoclaimed";

// The device's organisation as the module knows it. Nothing fills it in this
// version, so its path is always empty.
struct DeviceOrganization {
    std::wstring path;
};

std::wstring DigitText(unsigned long value) {
    std::wostringstream text;
    text << value;
    return text.str();
}

}  // namespace

void DiagnosticsManager::LogCriticalEvent() {
    try {
        g_log.d(L"%s problem signature : %s", kLabel, problemSignature);

        if (CoreUtility::GetInstance()->IsDeviceRegistered()) {
            // The record is fresh, so neither placeholder matches and every
            // registered device reports. That is how this version behaves.
            const DeviceOrganization organization;
            if (String::CaseInsesitiveEqual(organization.path, kUnclaimedOrganization) ||
                String::CaseInsesitiveEqual(organization.path, kAutoclaimedOrganization)) {
                g_log.d(L"%s Device registered to QAC org", kLabel);
                return;
            }
        } else if (!DeviceSubscriptionUtility::isDeviceProvision()) {
            return;
        }

        g_log.d(L"%s Device with commercial-intent is not registered OR registered to a non QAC org", kLabel);
        const int status = static_cast<int>(resultType);
        g_log.d(L"%s scan status : %d, isProblematic : %d", kLabel, status, isProblematic);

        std::wstring text;
        if (status == ErrorTimeOut) {
            g_log.d(L"%s Logging critical event: %d", kLabel, 1);
            text = DigitText(1);
        } else if (status == Complete && !isProblematic) {
            g_log.d(L"%s Logging critical event: %d", kLabel, 0);
            text = DigitText(0);
        } else if (status == Complete || status == ErrorGeneral || isProblematic) {
            g_log.d(L"%s Logging critical event: 1018: %s", kLabel, problemSignature);
            text = problemSignature;
        } else {
            // No scan result to speak of (before the first scan, for instance).
            return;
        }
        CriticalEventLogger::Log(kScanOutcomeEventId, text);
    } catch (...) {
        g_log.d(L"%s: Exception Occurred: %ls", kLabel, zep::CurrentExceptionText());
    }
}
