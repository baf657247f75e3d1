// A resumed upload never overlaps a scan: the device-online notification waits
// for the running scan and then sees the history line that scan wrote.
#include <chrono>
#include <atomic>
#include <filesystem>
#include <future>
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

// Holds a scan at its start; offline for that scan only, so only the resume can send its zip.
class HoldingRegistry : public zep::platform::MemoryRegistry, public zep::platform::NetworkEnv {
public:
    bool GetDword(Hive hive, const std::wstring& key, const std::wstring& name, DWORD& value) override {
        if (name == L"TimeoutInSeconds") {
            scanThread = std::this_thread::get_id();
            held.set_value();
            released.wait();
        }
        return MemoryRegistry::GetDword(hive, key, name, value);
    }
    bool IsInternetConnected(DWORD& flags) override {
        flags = std::this_thread::get_id() != scanThread.load() ? 1u : 0u;
        return flags == 1u;
    }
    std::atomic<std::thread::id> scanThread{};
    std::promise<void> held, release;
    std::shared_future<void> released = release.get_future().share();
};

class DeviceOnlineConcurrencyTest : public zep::testing::ManagerTest {
protected:
    DeviceOnlineConcurrencyTest() {
        registry->CreateKey(Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport");
        platform.env.registry = registry;
        platform.env.network = registry;
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
    registry->held.get_future().wait();
    platform.hub->Publish(ZEPNotificationData(6, 0, L"", L"", L""));
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(platform.storage->Uploads().empty()) << "the resume ran during the scan";
    EXPECT_EQ(ReadText(History()), earlier);

    registry->release.set_value();
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
