// Scans never overlap: concurrent callers take turns, a request during a scan waits for it.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "support/ManagerFixture.h"

using namespace std::chrono_literals;
using zep::platform::Hive;
using zep::testing::ManagerTest;

namespace {

// Counts the scans between their first registry read (the time-out) and their
// last (certificate pinning), and can hold a scan at its start.
class ObservingRegistry : public zep::platform::MemoryRegistry {
public:
    bool GetDword(Hive hive, const std::wstring& key, const std::wstring& name, DWORD& value) override {
        if (name == L"TimeoutInSeconds") {
            const int now = ++active;
            for (int seen = maxActive.load(); now > seen && !maxActive.compare_exchange_weak(seen, now);) {
            }
            ++waiting;
            while (held) std::this_thread::sleep_for(1ms);
            std::this_thread::sleep_for(2ms);  // widen the window an overlap would need
        } else if (name == L"certPinningError") {
            --active;
        }
        return MemoryRegistry::GetDword(hive, key, name, value);
    }
    std::atomic<int> active{0}, maxActive{0}, waiting{0};
    std::atomic<bool> held{false};
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
    constexpr std::size_t kScans = 3 * 4;
    std::vector<std::thread> callers;
    for (int c = 0; c < 3; ++c) {
        callers.emplace_back([this] {
            for (int i = 0; i < 4; ++i) manager->StartDiagnosticsScan(211, std::nullopt);
        });
    }
    for (auto& caller : callers) caller.join();
    manager->WaitForScanToFinish();

    EXPECT_EQ(ZepScans(), kScans);
    EXPECT_EQ(registry->maxActive.load(), 1);
    const auto names = ScanNames();
    EXPECT_EQ(std::set<std::wstring>(names.begin(), names.end()).size(), kScans);
}

TEST_F(ScanConcurrencyTest, RequestArrivingDuringAScanWaitsForItToEnd) {
    registry->held = true;
    manager->StartDiagnosticsScan(211, std::nullopt);
    while (registry->waiting.load() == 0) std::this_thread::sleep_for(1ms);

    // The hub's delivery thread now blocks at the rate-limit check.
    platform.hub->Publish(Request(ManagerTest::Payload("second", R"(["zep"])")));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(ZepScans(), 0u) << "the first scan is held at its start";
    EXPECT_FALSE(std::filesystem::exists(ZipPath(L"second")));

    registry->held = false;
    platform.hub->WaitUntilIdle();
    manager->WaitForScanToFinish();
    ASSERT_EQ(ZepScans(), 2u);
    EXPECT_TRUE(std::filesystem::exists(ZipPath(L"second")));
    EXPECT_EQ(registry->maxActive.load(), 1);

    // The request was judged after the first scan had written its result.
    const auto messages = platform.log->Messages();
    const std::string start = "Starting Zep Diagnostics";
    const auto second = std::find(std::find(messages.begin(), messages.end(), start) + 1, messages.end(), start);
    EXPECT_LT(std::find_if(messages.begin(), messages.end(),
                           [](const std::string& m) { return m.rfind("Json data written to file ", 0) == 0; }),
              second);
}

}  // namespace
