// A publish/subscribe hub inside one process, with its own delivery thread:
// the hub of hosts that run the module without the agent's service (the Linux
// host program, tests). Notifications are delivered one at a time, in the
// order published, to every subscriber whose filter accepts them.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "DiagnosticScanner/Export.h"
#include "platform/env/HubEnv.h"

namespace zep::platform {

class DIAGSCANNER_API InProcessHub : public HubEnv {
public:
    InProcessHub();
    // Delivers what is queued, then stops the delivery thread.
    ~InProcessHub() override;
    InProcessHub(const InProcessHub&) = delete;
    InProcessHub& operator=(const InProcessHub&) = delete;

    std::wstring Subscribe(NotificationCallback callback, bool qcpOnly) override;
    // Waits for a delivery in progress to that subscriber, unless called from
    // the delivery thread itself.
    void Unsubscribe(const std::wstring& subscriptionId) override;

    // Queues a notification for delivery and returns at once.
    void Publish(ZEPNotificationData notification);
    // Blocks until everything published so far has been delivered.
    void WaitUntilIdle();

private:
    struct Subscriber {
        NotificationCallback callback;
        bool qcpOnly = false;
    };
    void Run();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<ZEPNotificationData> queue_;
    std::map<unsigned, Subscriber> subscribers_;
    unsigned nextId_ = 1;
    bool delivering_ = false;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace zep::platform
