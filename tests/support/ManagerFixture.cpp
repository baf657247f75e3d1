#include "support/ManagerFixture.h"

#include <fstream>

#include "platform/Strings.h"

namespace zep::testing {

ManagerTest::ManagerTest() {
    DiagnosticsManagerTestPeer::SetTestTimeout(60);
    manager = std::make_unique<DiagnosticsManager>();
    peer = std::make_unique<DiagnosticsManagerTestPeer>(*manager);
    manager->Init(nullptr);
}

ManagerTest::~ManagerTest() {
    manager->WaitForScanToFinish();
    platform.hub->WaitUntilIdle();
    manager.reset();
    DiagnosticsManagerTestPeer::SetTestTimeout(60);
}

ZEPNotificationData ManagerTest::Request(const std::wstring& payload, const std::wstring& action,
                                         const std::wstring& message) {
    return ZEPNotificationData(3, 0, action, message, payload);
}

std::wstring ManagerTest::Payload(const std::string& requestId, const std::string& targetsJson) {
    return text::FromUtf8(R"({"zep-message":{"action":{"cmd_param":{"requestId":")" + requestId +
                          R"(","target":)" + targetsJson + "}}}}");
}

void ManagerTest::Deliver(ZEPNotificationData data) {
    peer->OnNotification(data);
    manager->WaitForScanToFinish();
}

void ManagerTest::Scan(unsigned long requestCode, std::optional<DiagnosticsParams> params) {
    manager->StartDiagnosticsScan(requestCode, std::move(params));
    manager->WaitForScanToFinish();
}

std::filesystem::path ManagerTest::ComponentResultPath(const std::wstring& scanName) const {
    return platform.rootPath / "temp" / "Quorin" / "Zep" / text::ToUtf8(scanName) / "ZEP" / "component-result.json";
}

Json::Value ManagerTest::ComponentResult(const std::wstring& scanName) const {
    std::ifstream in(ComponentResultPath(scanName));
    Json::Value document;
    if (in) in >> document;
    return document;
}

}  // namespace zep::testing
