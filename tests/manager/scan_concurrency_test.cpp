// Scans never overlap: concurrent callers take turns and every one of them gets its scan.
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

// Counts the scans between their first registry read and their last.
class ObservingRegistry : public zep::platform::MemoryRegistry {
public:
    bool GetDword(Hive hive, const std::wstring& key, const std::wstring& name, DWORD& value) override {
        if (name == L"TimeoutInSeconds") {
            const int now = ++active;
            for (int seen = maxActive.load(); now > seen && !maxActive.compare_exchange_weak(seen, now);) {
            }
            std::this_thread::sleep_for(2ms);  // widen the window an overlap would need
        } else if (name == L"certPinningError") {
            --active;
        }
        return MemoryRegistry::GetDword(hive, key, name, value);
    }
    std::atomic<int> active{0}, maxActive{0};
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

}  // namespace
