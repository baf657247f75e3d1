// The singleton, its construction and start-up.
#include "DiagnosticScanner/DiagnosticsManager.h"

#include "platform/agent/CommonBase.h"
#include "platform/agent/ZEPShared.h"

std::atomic<DiagnosticsManager*> DiagnosticsManager::_diagnosticsManager{nullptr};
std::mutex DiagnosticsManager::_instanceMutex;
std::atomic<std::uint32_t> DiagnosticsManager::_testTimeoutInSeconds{60};

DiagnosticsManager* DiagnosticsManager::GetInstance() {
    DiagnosticsManager* instance = _diagnosticsManager.load(std::memory_order_acquire);
    if (instance == nullptr) {
        std::lock_guard<std::mutex> guard(_instanceMutex);
        instance = _diagnosticsManager.load(std::memory_order_relaxed);
        if (instance == nullptr) {
            instance = new DiagnosticsManager();
            _diagnosticsManager.store(instance, std::memory_order_release);
        }
    }
    return instance;
}

DiagnosticsManager::DiagnosticsManager() = default;

DiagnosticsManager::~DiagnosticsManager() {
    try {
        if (!subscriptionId.empty()) ZEPPublisherSubscriber::GetInstance()->Unsubscribe(subscriptionId);
    } catch (...) {
        // A destructor must not throw; the hub is going away with the process.
    }
    // The worker is neither joined nor freed: the singleton lives until the
    // process ends, and destroying a running std::thread would terminate it.
    if (scanThread && scanThread->joinable()) static_cast<void>(scanThread.release());
}

void DiagnosticsManager::Init(void* context) {
    hostContext = context;
    subscriptionId = ZEPPublisherSubscriber::GetInstance()->Subscribe(
        [this](ZEPNotificationData& data) { OnNotification(data); }, false);
    initialized = true;
    utility::InitLog(g_log, "ZEPDiagnostics.log", 4);
}

void DiagnosticsManager::WaitForScanToFinish() {
    std::lock_guard<std::mutex> guard(scanThreadMutex);
    if (scanThread && scanThread->joinable() && scanThread->get_id() != std::this_thread::get_id()) {
        scanThread->join();
    }
}
