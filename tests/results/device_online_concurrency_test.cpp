// A resumed upload never overlaps a scan: the device-online notification waits
// for the running scan and then sees the history line that scan wrote.
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/util/Strings.h"
#include "platform/agent/ZEPNotificationData.h"
#include "support/ManagerFixture.h"

using namespace std::chrono_literals;
using zep::platform::Hive;
using zep::testing::ReadText;
using zep::testing::WriteText;

namespace {

namespace fs = std::filesystem;

// Holds a scan at its start (its first registry read) until released, and
// remembers the scan's thread.
class HoldingRegistry : public zep::platform::MemoryRegistry {
public:
    bool GetDword(Hive hive, const std::wstring& key, const std::wstring& name, DWORD& value) override {
        if (name == L"TimeoutInSeconds") {
            std::unique_lock<std::mutex> lock(mutex_);
            scanThread_ = std::this_thread::get_id();
            held_ = true;
            changed_.notify_all();
            changed_.wait(lock, [this] { return released_; });
        }
        return MemoryRegistry::GetDword(hive, key, name, value);
    }
    void WaitUntilHeld() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return held_; });
    }
    void Release() {
        std::lock_guard<std::mutex> lock(mutex_);
        released_ = true;
        changed_.notify_all();
    }
    bool IsScanThread() {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::this_thread::get_id() == scanThread_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool held_ = false;
    bool released_ = false;
    std::thread::id scanThread_;
};

// The network is down for the scan and up for everyone else, so the scan
// leaves its upload pending and only the resumed upload can send it.
class OfflineForTheScan : public zep::platform::NetworkEnv {
public:
    explicit OfflineForTheScan(std::shared_ptr<HoldingRegistry> registry) : registry_(std::move(registry)) {}
    bool IsInternetConnected(DWORD& flags) override {
        const bool online = !registry_->IsScanThread();
        flags = online ? 1u : 0u;
        return online;
    }

private:
    std::shared_ptr<HoldingRegistry> registry_;
};

class DeviceOnlineConcurrencyTest : public zep::testing::ManagerTest {
protected:
    DeviceOnlineConcurrencyTest() {
        registry->CreateKey(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport");
        platform.env.registry = registry;
        platform.env.network = std::make_shared<OfflineForTheScan>(registry);
        platform.Reinstall();
    }
    fs::path Latest() const { return platform.rootPath / "programdata" / "diagnostics" / "latest"; }
    fs::path History() const { return platform.rootPath / "programdata" / "diagnostics" / "scan-history.log"; }

    std::shared_ptr<HoldingRegistry> registry = std::make_shared<HoldingRegistry>();
};

TEST_F(DeviceOnlineConcurrencyTest, TheResumeWaitsForTheRunningScanAndCompletesItsUpload) {
    // An earlier scan left offline: resumed at once, it would be uploaded now.
    WriteText(Latest() / "scan-result.json", R"({"id":"earlier-scan","failTestCount":0,"problemSignature":""})");
    const std::string earlier = std::string("T0,Mqtt,2,1,0,\"\"") + zep::testing::kHistoryLineEnd;
    WriteText(History(), earlier);

    manager->StartDiagnosticsScan(DiagnosticsManager::kManualScanRequest, std::nullopt);
    registry->WaitUntilHeld();
    platform.hub->Publish(ZEPNotificationData(6, 0, L"", L"", L""));
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(platform.storage->Uploads().empty()) << "the resume ran during the scan";
    EXPECT_EQ(ReadText(History()), earlier);

    registry->Release();
    manager->WaitForScanToFinish();
    platform.hub->WaitUntilIdle();

    // The resume found the scan's own pending line, not the earlier one.
    const auto names = ScanNames();
    ASSERT_EQ(names.size(), 1u);
    const auto uploads = platform.storage->Uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].filePath, (Latest() / ("LD-TEST01_" + zep::text::ToUtf8(names[0]) + ".zip")).string());
    const std::string history = ReadText(History());
    EXPECT_EQ(history.rfind(earlier, 0), 0u);
    EXPECT_NE(history.find("\n2026-11-21T10:15:30Z,Manual,0,0,", earlier.size() - 1), std::string::npos) << history;
}

}  // namespace
