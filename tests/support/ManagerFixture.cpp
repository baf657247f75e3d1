#include "support/ManagerFixture.h"

#include "platform/util/Strings.h"

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

std::vector<std::wstring> ManagerTest::ScanNames() const {
    const std::string marker = "DiagnosticsManager::CreateZipFolder: staging diagnostics under ";
    const std::string prefix = "LD-TEST01_";
    std::vector<std::wstring> names;
    for (const auto& message : platform.log->Messages()) {
        if (message.rfind(marker, 0) != 0) continue;
        const std::string staging = std::filesystem::path(message.substr(marker.size())).filename().string();
        if (staging.rfind(prefix, 0) == 0) names.push_back(text::FromUtf8(staging.substr(prefix.size())));
    }
    return names;
}

}  // namespace zep::testing
