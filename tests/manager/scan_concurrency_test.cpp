// Scans never overlap: concurrent callers take turns, and a request that
// arrives during a scan waits for it.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "platform/Strings.h"
#include "support/ManagerFixture.h"

using namespace std::chrono_literals;
using zep::platform::Hive;
using zep::testing::ManagerTest;

namespace {

// Notes how many scans are between their first registry read (the time-out,
// at the start of a scan) and their last (certificate pinning, at the end of
// the health tests), and can hold a scan at its start until released.
class ObservingRegistry : public zep::platform::MemoryRegistry {
public:
    bool GetDword(Hive hive, const std::wstring& key, const std::wstring& name, DWORD& value) override {
        if (name == L"TimeoutInSeconds") {
            const int now = ++active;
            int seen = maxActive.load();
            while (now > seen && !maxActive.compare_exchange_weak(seen, now)) {
            }
            WaitIfHeld();
            std::this_thread::sleep_for(2ms);  // widen the window an overlap would need
        } else if (name == L"certPinningError") {
            --active;
        }
        return MemoryRegistry::GetDword(hive, key, name, value);
    }
    void Hold() {
        std::lock_guard<std::mutex> lock(mutex_);
        held_ = true;
    }
    void Release() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            held_ = false;
        }
        changed_.notify_all();
    }
    std::atomic<int> active{0};
    std::atomic<int> maxActive{0};
    std::atomic<int> waiting{0};

private:
    void WaitIfHeld() {
        std::unique_lock<std::mutex> lock(mutex_);
        ++waiting;
        changed_.wait(lock, [this] { return !held_; });
        --waiting;
    }
    std::mutex mutex_;
    std::condition_variable changed_;
    bool held_ = false;
};

class ScanConcurrencyTest : public ManagerTest {
protected:
    ScanConcurrencyTest() {
        registry->CreateKey(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport");
        platform.env.registry = registry;
        platform.Reinstall();
    }
    std::shared_ptr<ObservingRegistry> registry = std::make_shared<ObservingRegistry>();
};

TEST_F(ScanConcurrencyTest, ConcurrentCallersNeverOverlapAndEveryScanRuns) {
    constexpr int kCallers = 3;
    constexpr int kScansEach = 4;
    std::vector<std::thread> callers;
    for (int c = 0; c < kCallers; ++c) {
        callers.emplace_back([this] {
            for (int i = 0; i < kScansEach; ++i) manager->StartDiagnosticsScan(211, std::nullopt);
        });
    }
    for (auto& caller : callers) caller.join();
    manager->WaitForScanToFinish();

    EXPECT_EQ(ZepScans(), static_cast<std::size_t>(kCallers * kScansEach));
    EXPECT_EQ(registry->maxActive.load(), 1);
    const auto names = ScanNames();
    EXPECT_EQ(std::set<std::wstring>(names.begin(), names.end()).size(), static_cast<std::size_t>(kCallers * kScansEach));
}

TEST_F(ScanConcurrencyTest, RequestArrivingDuringAScanWaitsForItToEnd) {
    registry->Hold();
    manager->StartDiagnosticsScan(211, std::nullopt);
    while (registry->waiting.load() == 0) std::this_thread::sleep_for(1ms);

    // The hub's delivery thread now blocks at the rate-limit check.
    platform.hub->Publish(Request(ManagerTest::Payload("second", R"(["zep"])")));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(ZepScans(), 0u) << "the first scan is held at its start";
    EXPECT_FALSE(std::filesystem::exists(ZipPath(L"second")));

    registry->Release();
    platform.hub->WaitUntilIdle();
    manager->WaitForScanToFinish();
    EXPECT_EQ(ZepScans(), 2u);
    EXPECT_TRUE(std::filesystem::exists(ZipPath(L"second")));
    EXPECT_EQ(registry->maxActive.load(), 1);

    // The request was judged after the first scan and started the second one.
    const auto messages = platform.log->Messages();
    std::vector<std::size_t> starts;
    for (std::size_t i = 0; i < messages.size(); ++i) {
        if (messages[i] == "Starting Zep Diagnostics") starts.push_back(i);
    }
    ASSERT_EQ(starts.size(), 2u);
    bool firstResultWrittenBetween = false;
    for (std::size_t i = starts[0]; i < starts[1]; ++i) {
        firstResultWrittenBetween |= messages[i].rfind("Json data written to file ", 0) == 0;
    }
    EXPECT_TRUE(firstResultWrittenBetween);
}

}  // namespace
