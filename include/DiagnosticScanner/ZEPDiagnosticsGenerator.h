// The agent's own five health tests.
#pragma once

#include <string>
#include <vector>

#include "DiagnosticScanner/AgentTypes.h"
#include "DiagnosticScanner/Export.h"
#include "DiagnosticScanner/IDiagnosticsGenerator.h"

namespace zep {
class AgentFactory;
}

namespace ZEP {

class DIAGSCANNER_API ZEPDiagnosticsGenerator : public zep::diagnostics::IDiagnosticsGenerator {
public:
    ZEPDiagnosticsGenerator();

    // Registration (with, for a registered device, the certificate, MQTT and
    // telemetry tests before it), then certificate pinning. The collected list
    // is not cleared: a second run on the same object reports every test twice.
    void RunTests(std::vector<zep::diagnostics::Tests>& tests) override;
    // The agent's id in upper case.
    std::wstring GetComponentId() override;
    // Always "ZEP".
    std::wstring GetFriendlyName() override;

protected:
    virtual void CheckDeviceRegistration();
    virtual void CheckTelemetrySyncXrsError(std::wstring& actual);
    virtual void CheckTelemetrySyncRetryError(std::wstring& actual);
    virtual void CheckMqttStatus();
    virtual void CheckIfMqttRetriesExceeded(zep::AgentFactory* factory, std::wstring& actual);
    virtual void CheckTelemetrySyncStatus();
    virtual void CheckRegistrationFailedWithXRSError(std::wstring& actual);
    virtual void CheckRegisteredCertificateIsValid();
    // Reads a DWORD error value of the generator's key; false when the key is
    // missing or the value cannot be read.
    virtual bool GetErrorStatusFromRegistry(const std::wstring& valueName, DWORD& value);
    virtual void CheckXrsApiCertPinningStatus();

public:
    // Declared after the checks, as the interface declares its destructor
    // after its operations: the checks take the virtual slots that directly
    // follow the interface's.
    virtual ~ZEPDiagnosticsGenerator() = default;

protected:

    std::wstring registryKeyPath;
    std::vector<zep::diagnostics::Tests> tests;
};

}  // namespace ZEP
