#include "platform/posix/DeviceFolderEnv.h"

#include <stdlib.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/InProcessHub.h"
#include "platform/MemoryRegistry.h"
#include "platform/Strings.h"

namespace zep::platform {
namespace {

namespace fs = std::filesystem;

constexpr std::uintmax_t kRotationBytes = 5u * 1024u * 1024u;

std::string Read(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void Write(const fs::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

// Writes beside `path` and renames over it, as editors and the agent do: the
// new file may well have the old one's size and time stamp.
void Replace(const fs::path& path, const std::string& bytes) {
    const fs::path temporary = path.string() + ".new";
    Write(temporary, bytes);
    fs::rename(temporary, path);
}

class DeviceFolderEnvTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = ::testing::TempDir() + "device-folder-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        dir = pattern;
        env = MakeDeviceFolderEnv(text::DecodeFileName(dir.native()), hub);
    }
    void TearDown() override { fs::remove_all(dir); }

    fs::path dir;
    std::shared_ptr<InProcessHub> hub = std::make_shared<InProcessHub>();
    Env env;
};

// ---- device.json ------------------------------------------------------------

using DeviceJsonTest = DeviceFolderEnvTest;

void ExpectAbsentDevice(const Env& env) {
    EXPECT_EQ(env.device->DeviceId(), L"");
    EXPECT_EQ(env.device->LogicalDeviceId(), L"");
    EXPECT_EQ(env.device->AgentId(), L"");
    EXPECT_EQ(env.device->ServiceVersion(), L"");
    EXPECT_FALSE(env.device->IsRegistered());
    EXPECT_FALSE(env.device->IsProvisioned());
    EXPECT_FALSE(env.device->HasCommercialIntent());
    DWORD flags = 7;
    EXPECT_FALSE(env.network->IsInternetConnected(flags));
    EXPECT_EQ(flags, 0u);
    EXPECT_EQ(env.system->LoggedInUserSid(), L"");
    EXPECT_FALSE(env.settings->EnableCustomSettings());
    EXPECT_FALSE(env.settings->DisableJwtValidation());
    EXPECT_EQ(env.agents->GetNotificationAgent(), nullptr);
    ASSERT_NE(env.agents->GetCoreAdapter(), nullptr);
    const auto certificate = env.agents->GetCoreAdapter()->GetRegisteredCertificate();
    EXPECT_FALSE(certificate.isPresent);
    EXPECT_EQ(certificate.thumbprint, "");
    EXPECT_EQ(certificate.notAfter, "");
}

TEST_F(DeviceJsonTest, MissingFileGivesAnAbsentDevice) { ExpectAbsentDevice(env); }

TEST_F(DeviceJsonTest, MalformedFilesGiveAnAbsentDevice) {
    for (const char* text : {"{\"registered\": true", "[true]", "\"registered\"", "", "\xff\xfe{}",
                             "{\"registered\": true} trailing"}) {
        SCOPED_TRACE(text);
        Replace(dir / "device.json", text);
        ExpectAbsentDevice(env);
    }
    // Deep nesting makes the parser throw rather than fail.
    Replace(dir / "device.json", std::string(5000, '[') + std::string(5000, ']'));
    ExpectAbsentDevice(env);
}

TEST_F(DeviceJsonTest, EveryKeyIsRead) {
    Write(dir / "device.json", R"({
        "deviceId": "Gerät-7C3E", "logicalDeviceId": "LD-4F2A9C", "agentId": "3f9d2c41",
        "serviceVersion": "4.12.3.0", "registered": true, "provisioned": true, "commercialIntent": true,
        "online": true, "loggedInUser": "S-1-5-21-1",
        "certificate": {"present": true, "thumbprint": "4A7F", "notAfter": "2031-01-31T00:00:00Z"},
        "notificationAgent": {"present": true, "mqttEnabled": false, "mqttState": 3,
                              "disconnectExpected": true, "retriesExceeded": true},
        "developerSettings": {"enableCustomSettings": true, "disableJwtValidation": true}})");

    EXPECT_EQ(env.device->DeviceId(), L"Ger\u00e4t-7C3E");
    EXPECT_EQ(env.device->LogicalDeviceId(), L"LD-4F2A9C");
    EXPECT_EQ(env.device->AgentId(), L"3f9d2c41");
    EXPECT_EQ(env.device->ServiceVersion(), L"4.12.3.0");
    EXPECT_TRUE(env.device->IsRegistered());
    EXPECT_TRUE(env.device->IsProvisioned());
    EXPECT_TRUE(env.device->HasCommercialIntent());
    DWORD flags = 0;
    EXPECT_TRUE(env.network->IsInternetConnected(flags));
    EXPECT_EQ(flags, 1u);
    EXPECT_EQ(env.system->LoggedInUserSid(), L"S-1-5-21-1");
    EXPECT_TRUE(env.settings->EnableCustomSettings());
    EXPECT_TRUE(env.settings->DisableJwtValidation());

    const auto certificate = env.agents->GetCoreAdapter()->GetRegisteredCertificate();
    EXPECT_TRUE(certificate.isPresent);
    EXPECT_EQ(certificate.thumbprint, "4A7F");
    EXPECT_EQ(certificate.notAfter, "2031-01-31T00:00:00Z");

    const auto agent = env.agents->GetNotificationAgent();
    ASSERT_NE(agent, nullptr);
    EXPECT_FALSE(agent->IsMqttEnabled());
    EXPECT_EQ(agent->GetMqttConnectionState(), 3);
    EXPECT_TRUE(agent->IsMqttDisconnectExpected());
    EXPECT_TRUE(agent->AreMqttRetriesExceeded());
}

TEST_F(DeviceJsonTest, KeysOfTheWrongTypeFallBackAlone) {
    Write(dir / "device.json", R"({"registered": "yes", "provisioned": true, "deviceId": 42,
        "notificationAgent": {"present": true, "mqttState": "2"}, "certificate": []})");
    EXPECT_FALSE(env.device->IsRegistered());
    EXPECT_TRUE(env.device->IsProvisioned());
    EXPECT_EQ(env.device->DeviceId(), L"");
    const auto agent = env.agents->GetNotificationAgent();
    ASSERT_NE(agent, nullptr);
    EXPECT_TRUE(agent->IsMqttEnabled());  // absent: enabled
    EXPECT_EQ(agent->GetMqttConnectionState(), 0);
    EXPECT_FALSE(env.agents->GetCoreAdapter()->GetRegisteredCertificate().isPresent);
}

TEST_F(DeviceJsonTest, ChangesArePickedUp) {
    const fs::path file = dir / "device.json";
    Write(file, R"({"registered": false})");
    EXPECT_FALSE(env.device->IsRegistered());

    Write(file, R"({"registered": true, "online": true})");
    EXPECT_TRUE(env.device->IsRegistered());
    DWORD flags = 0;
    EXPECT_TRUE(env.network->IsInternetConnected(flags));

    // Same size, rewritten in place: only the modification time tells.
    Write(file, R"({"deviceId": "AAAA"})");
    EXPECT_EQ(env.device->DeviceId(), L"AAAA");
    const auto stamp = fs::last_write_time(file);
    Write(file, R"({"deviceId": "BBBB"})");
    fs::last_write_time(file, stamp + std::chrono::seconds(1));
    EXPECT_EQ(env.device->DeviceId(), L"BBBB");

    // Same size and time stamp, but a new file renamed over the old one.
    Replace(file, R"({"deviceId": "CCCC"})");
    fs::last_write_time(file, stamp + std::chrono::seconds(1));
    EXPECT_EQ(env.device->DeviceId(), L"CCCC");

    // The agent components answer from the current file too.
    Write(file, R"({"notificationAgent": {"present": true, "mqttState": 2}})");
    const auto agent = env.agents->GetNotificationAgent();
    ASSERT_NE(agent, nullptr);
    EXPECT_EQ(agent->GetMqttConnectionState(), 2);
    Write(file, R"({"notificationAgent": {"present": true, "mqttState": 1, "retriesExceeded": true}})");
    EXPECT_EQ(agent->GetMqttConnectionState(), 1);
    EXPECT_TRUE(agent->AreMqttRetriesExceeded());

    fs::remove(file);
    ExpectAbsentDevice(env);
}

// ---- registry.reg -------------------------------------------------------------

using RegistryFileTest = DeviceFolderEnvTest;

constexpr const char* kZepKey = "SOFTWARE\\Quorin\\ZEP";

std::string RegText(const std::string& rateLimit) {
    return "Windows Registry Editor Version 5.00\r\n\r\n"
           "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP]\r\n"
           "\"GetDiagnosticsMqttRateLimit\"=dword:" +
           rateLimit +
           "\r\n"
           "\"InstallDir\"=\"C:\\\\Program Files\\\\Quorin\"\r\n";
}

TEST_F(RegistryFileTest, MissingFileIsAnEmptyRegistry) {
    DWORD value = 5;
    EXPECT_FALSE(env.registry->KeyExists(Hive::LocalMachine, text::FromUtf8(kZepKey)));
    EXPECT_FALSE(env.registry->GetDword(Hive::LocalMachine, text::FromUtf8(kZepKey), L"GetDiagnosticsMqttRateLimit",
                                        value));
    EXPECT_EQ(value, 5u);
}

TEST_F(RegistryFileTest, ValuesAreReadableAndFollowTheFile) {
    const fs::path file = dir / "registry.reg";
    const std::wstring key = text::FromUtf8(kZepKey);
    Write(file, RegText("0000000a"));

    DWORD value = 0;
    ASSERT_TRUE(env.registry->GetDword(Hive::LocalMachine, key, L"GetDiagnosticsMqttRateLimit", value));
    EXPECT_EQ(value, 10u);
    std::wstring installDir;
    ASSERT_TRUE(env.registry->GetString(Hive::LocalMachine, L"software\\quorin\\zep", L"InstallDir", installDir));
    EXPECT_EQ(installDir, L"C:\\Program Files\\Quorin");
    EXPECT_FALSE(env.registry->KeyExists(Hive::Users, key));

    Write(file, RegText("0000003c"));  // same size
    fs::last_write_time(file, fs::last_write_time(file) + std::chrono::seconds(1));
    ASSERT_TRUE(env.registry->GetDword(Hive::LocalMachine, key, L"GetDiagnosticsMqttRateLimit", value));
    EXPECT_EQ(value, 60u);

    // The registry editor exports UTF-16 with a byte-order mark.
    Replace(file, EncodeUtf16LeWithBom(text::FromUtf8(RegText("00000005"))));
    ASSERT_TRUE(env.registry->GetDword(Hive::LocalMachine, key, L"GetDiagnosticsMqttRateLimit", value));
    EXPECT_EQ(value, 5u);

    fs::remove(file);
    EXPECT_FALSE(env.registry->KeyExists(Hive::LocalMachine, key));
}

// ---- folders ------------------------------------------------------------------

TEST_F(DeviceFolderEnvTest, FoldersLieInTheDeviceFolder) {
    EXPECT_EQ(env.system->AppDataRoot(), std::nullopt);
    fs::create_directory(dir / "programdata");
    EXPECT_EQ(env.system->AppDataRoot(), text::DecodeFileName((dir / "programdata").native()));

    const std::wstring temp = env.system->TempFolder();
    EXPECT_EQ(temp, text::DecodeFileName((dir / "temp").native()) + L"/");
    EXPECT_TRUE(fs::is_directory(dir / "temp"));

    // A trailing separator on the device folder does not double the ones inside.
    const Env slashed = MakeDeviceFolderEnv(text::DecodeFileName(dir.native()) + L"/", hub);
    EXPECT_EQ(slashed.system->TempFolder(), temp);
    EXPECT_EQ(slashed.system->AppDataRoot(), env.system->AppDataRoot());
}

// ---- logs ---------------------------------------------------------------------

class LogFolderTest : public DeviceFolderEnvTest {
protected:
    fs::path LogPath(const std::string& suffix = "") const {
        return dir / "programdata" / "Log" / ("ZEPDiagnostics.log" + suffix);
    }
    // A log that is one byte short of rotating, plus older rotated files.
    void PrepareFullLog(int olderFiles) {
        fs::create_directories(LogPath().parent_path());
        Write(LogPath(), "");
        fs::resize_file(LogPath(), kRotationBytes - 1);
        for (int n = 1; n <= olderFiles; ++n) Write(LogPath("." + std::to_string(n)), "file " + std::to_string(n));
    }
};

TEST_F(LogFolderTest, AppendsLinesInTheLogFolder) {
    auto sink = env.logs->OpenLog("ZEPDiagnostics.log", 4);
    ASSERT_NE(sink, nullptr);
    sink->Write("first\n");
    sink.reset();
    sink = env.logs->OpenLog("ZEPDiagnostics.log", 4);
    ASSERT_NE(sink, nullptr);
    sink->Write("second\n");
    EXPECT_EQ(Read(LogPath()), "first\nsecond\n");

    EXPECT_EQ(env.logs->OpenLog("../escape.log", 4), nullptr);
    EXPECT_EQ(env.logs->OpenLog("", 4), nullptr);
}

TEST_F(LogFolderTest, RotatesAtFiveMebibytesWithoutSplittingLines) {
    auto sink = env.logs->OpenLog("ZEPDiagnostics.log", 4);
    ASSERT_NE(sink, nullptr);
    const std::string line = std::string(1023, 'x') + "\n";
    const std::uintmax_t lines = 6 * 1024;
    for (std::uintmax_t i = 0; i < lines; ++i) sink->Write(line);

    const auto current = fs::file_size(LogPath());
    const auto rotated = fs::file_size(LogPath(".1"));
    EXPECT_LE(rotated, kRotationBytes);
    EXPECT_GT(rotated, kRotationBytes - line.size());
    EXPECT_EQ(current + rotated, lines * line.size());
    EXPECT_EQ(rotated % line.size(), 0u);
    EXPECT_FALSE(fs::exists(LogPath(".2")));
}

TEST_F(LogFolderTest, RotationShiftsOlderFilesAndKeepsMaxFiles) {
    PrepareFullLog(2);
    auto sink = env.logs->OpenLog("ZEPDiagnostics.log", 3);
    ASSERT_NE(sink, nullptr);
    sink->Write("after rotation\n");

    EXPECT_EQ(Read(LogPath()), "after rotation\n");
    EXPECT_EQ(fs::file_size(LogPath(".1")), kRotationBytes - 1);
    EXPECT_EQ(Read(LogPath(".2")), "file 1");
    EXPECT_FALSE(fs::exists(LogPath(".3")));  // the old .2 was the oldest of three
}

TEST_F(LogFolderTest, SingleFileLogStartsOver) {
    PrepareFullLog(0);
    auto sink = env.logs->OpenLog("ZEPDiagnostics.log", 1);
    ASSERT_NE(sink, nullptr);
    sink->Write("after rotation\n");
    EXPECT_EQ(Read(LogPath()), "after rotation\n");
    EXPECT_FALSE(fs::exists(LogPath(".1")));
}

}  // namespace
}  // namespace zep::platform
