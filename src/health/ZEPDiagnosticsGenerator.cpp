#include "DiagnosticScanner/ZEPDiagnosticsGenerator.h"

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/agent/CommonBase.h"
#include "platform/agent/ZEPShared.h"

using zep::diagnostics::Tests;

namespace {

constexpr int kMqttConnected = 2;

Tests MakeTest(const wchar_t* name, const wchar_t* id, const wchar_t* expected, const wchar_t* actual) {
    Tests test;
    test.name = name;
    test.id = id;
    test.expected = expected;
    test.actual = actual;
    return test;
}

}  // namespace

namespace ZEP {

ZEPDiagnosticsGenerator::ZEPDiagnosticsGenerator() : registryKeyPath(L"Software\\Quorin\\ZEP\\DeviceSupport") {}

void ZEPDiagnosticsGenerator::RunTests(std::vector<Tests>& out) {
    CheckDeviceRegistration();
    CheckXrsApiCertPinningStatus();
    out = tests;
}

std::wstring ZEPDiagnosticsGenerator::GetComponentId() { return String::ToUpper(ZepInfo::GetInstance()->GetId()); }

std::wstring ZEPDiagnosticsGenerator::GetFriendlyName() { return L"ZEP"; }

void ZEPDiagnosticsGenerator::CheckDeviceRegistration() {
    Tests test = MakeTest(L"device_registered", L"123470e1-6d56-4eb7-8fdf-3bd3edc8bf02", L"registered",
                          L"not_registered");
    if (CoreUtility::GetInstance()->IsDeviceRegistered()) {
        test.actual = L"registered";
        // The dependent tests only mean something for a registered device,
        // and they are reported before the registration test itself.
        CheckRegisteredCertificateIsValid();
        CheckMqttStatus();
        CheckTelemetrySyncStatus();
    } else {
        CheckRegistrationFailedWithXRSError(test.actual);
    }
    tests.push_back(std::move(test));
}

void ZEPDiagnosticsGenerator::CheckRegistrationFailedWithXRSError(std::wstring& actual) {
    DWORD value = 0;
    if (GetErrorStatusFromRegistry(L"registerXrsError", value) && value != 0) actual = L"register_xrs_error";
}

void ZEPDiagnosticsGenerator::CheckTelemetrySyncXrsError(std::wstring& actual) {
    DWORD value = 0;
    if (GetErrorStatusFromRegistry(L"syncXRSError", value) && value != 0) actual = L"xrs_error";
}

void ZEPDiagnosticsGenerator::CheckTelemetrySyncRetryError(std::wstring& actual) {
    DWORD value = 0;
    if (GetErrorStatusFromRegistry(L"syncRetryError", value) && value != 0) actual = L"retry_exceeded";
}

void ZEPDiagnosticsGenerator::CheckRegisteredCertificateIsValid() {
    Tests test = MakeTest(L"registered_cert_valid", L"123470e1-6d56-4eb7-8fdf-3bd3edc8bf03", L"valid", L"expired");
    if (auto adapter = zep::AgentFactory::GetInstance()->GetCoreAdapterAgent()) {
        const auto certificate = adapter->GetRegisteredCertificate();
        if (certificate.isPresent &&
            !CoreUtility::IsCertificateExpired(certificate.thumbprint, certificate.notAfter)) {
            test.actual = L"valid";
        }
    }
    tests.push_back(std::move(test));
}

void ZEPDiagnosticsGenerator::CheckMqttStatus() {
    Tests test = MakeTest(L"mqtt_connection", L"773270e1-6d56-4eb7-8fdf-3bd3edc8bc02", L"success", L"failed");
    zep::AgentFactory* factory = zep::AgentFactory::GetInstance();
    auto agent = factory != nullptr ? factory->GetNotificationAgent() : nullptr;
    if (!agent) {
        test.actual = L"agentFactory is null";
    } else if (agent->IsMqttEnabled() && agent->GetMqttConnectionState() != kMqttConnected &&
               !agent->IsMqttDisconnectExpected()) {
        CheckIfMqttRetriesExceeded(factory, test.actual);
    } else {
        test.actual = L"success";
    }
    tests.push_back(std::move(test));
}

void ZEPDiagnosticsGenerator::CheckIfMqttRetriesExceeded(zep::AgentFactory* factory, std::wstring& actual) {
    auto agent = factory != nullptr ? factory->GetNotificationAgent() : nullptr;
    if (agent && agent->AreMqttRetriesExceeded()) actual = L"retry_exceeded";
}

void ZEPDiagnosticsGenerator::CheckTelemetrySyncStatus() {
    Tests test = MakeTest(L"sync_success", L"1a4270e1-6d56-4eb7-8fdf-3bd3edc8bd02", L"success", L"success");
    CheckTelemetrySyncXrsError(test.actual);
    CheckTelemetrySyncRetryError(test.actual);
    tests.push_back(std::move(test));
}

bool ZEPDiagnosticsGenerator::GetErrorStatusFromRegistry(const std::wstring& valueName, DWORD& value) {
    if (!CRegUtil::DoesKeyExists(HKEY_LOCAL_MACHINE, registryKeyPath)) return false;
    return CRegUtil::GetRegValueOfDwordType(HKEY_LOCAL_MACHINE, registryKeyPath, valueName, value) != 0;
}

void ZEPDiagnosticsGenerator::CheckXrsApiCertPinningStatus() {
    Tests test = MakeTest(L"xrs_api_cert_pinning", L"123470e1-6d56-4eb7-8fdf-3bd3edc8bf06", L"success", L"failed");
    // Unlike the other error values, a missing one counts as a failure: only a
    // pinning check that ran and wrote 0 proves the pinning works.
    DWORD value = 0;
    if (GetErrorStatusFromRegistry(L"certPinningError", value) && value == 0) test.actual = L"success";
    tests.push_back(std::move(test));
}

}  // namespace ZEP

int DiagnosticsManager::GetFailedZepTestsCount() {
    int failed = 0;
    for (const auto& test : tests) {
        if (test.actual != test.expected) ++failed;
    }
    return failed;
}
