// A manager of its own on a platform of test doubles, for the manager's tests.
#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "support/ManagerPeer.h"
#include "support/TestPlatform.h"

namespace zep::testing {

class ManagerTest : public ::testing::Test {
public:
    // A getDiagnostics request as the hub delivers it.
    static ZEPNotificationData Request(const std::wstring& payload, const std::wstring& action = L"run",
                                       const std::wstring& message = L"getDiagnostics");
    static std::wstring Payload(const std::string& requestId, const std::string& targetsJson);

protected:
    ManagerTest();
    ~ManagerTest() override;

    // Delivers a notification on the calling thread and waits for the scan it
    // may have started.
    void Deliver(ZEPNotificationData data);
    // Runs one scan on the worker and waits for it.
    void Scan(unsigned long requestCode, std::optional<DiagnosticsParams> params = std::nullopt);

    // The names of the scans that were staged, in order (from the log).
    std::vector<std::wstring> ScanNames() const;
    // How many scans ran the agent's own branch so far.
    std::size_t ZepScans() const { return platform.log->Count("Starting Zep Diagnostics"); }

    TestPlatform platform;
    std::unique_ptr<DiagnosticsManager> manager;
    std::unique_ptr<DiagnosticsManagerTestPeer> peer;
};

}  // namespace zep::testing
