#include "platform/device/InProcessHub.h"

#include <string>
#include <vector>

namespace zep::platform {

InProcessHub::InProcessHub() : thread_([this] { Run(); }) {}

InProcessHub::~InProcessHub() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

std::wstring InProcessHub::Subscribe(NotificationCallback callback, bool qcpOnly) {
    std::lock_guard<std::mutex> lock(mutex_);
    const unsigned id = nextId_++;
    subscribers_[id] = Subscriber{std::move(callback), qcpOnly};
    return L"sub-" + std::to_wstring(id);
}

void InProcessHub::Unsubscribe(const std::wstring& subscriptionId) {
    unsigned id = 0;
    try {
        if (subscriptionId.rfind(L"sub-", 0) != 0) return;
        id = static_cast<unsigned>(std::stoul(subscriptionId.substr(4)));
    } catch (...) {
        return;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    subscribers_.erase(id);
    if (std::this_thread::get_id() != thread_.get_id()) {
        changed_.wait(lock, [this] { return !delivering_; });
    }
}

void InProcessHub::Publish(ZEPNotificationData notification) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        queue_.push_back(std::move(notification));
    }
    changed_.notify_all();
}

void InProcessHub::WaitUntilIdle() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return queue_.empty() && !delivering_; });
}

void InProcessHub::Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        if (queue_.empty()) return;  // stopping, and everything was delivered
        ZEPNotificationData notification = std::move(queue_.front());
        queue_.pop_front();
        std::vector<NotificationCallback> targets;
        for (const auto& entry : subscribers_) {
            if (!entry.second.qcpOnly || notification.isQCPNotification()) targets.push_back(entry.second.callback);
        }
        delivering_ = true;
        lock.unlock();
        for (auto& callback : targets) {
            // A subscriber's failure must not stop the hub for the others.
            try {
                callback(notification);
            } catch (...) {
            }
        }
        lock.lock();
        delivering_ = false;
        changed_.notify_all();
    }
}

}  // namespace zep::platform
