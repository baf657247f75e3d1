#include "platform/agent/CommonBase.h"

#include <array>
#include <cstdio>


#include "platform/util/CivilTime.h"
#include "platform/env/Env.h"
#include "platform/util/Crypto.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"

using zep::platform::CurrentEnv;
using zep::platform::Hive;

// ---- String -----------------------------------------------------------------

std::string String::UTF16ToUTF8(const std::wstring& text) { return zep::text::ToUtf8(text); }
std::wstring String::UTF8ToUTF16(const std::string& text) { return zep::text::FromUtf8(text); }
std::wstring String::ToLower(const std::wstring& text) { return zep::text::Lower(text); }
std::wstring String::ToUpper(const std::wstring& text) { return zep::text::Upper(text); }
bool String::CaseInsesitiveEqual(const std::wstring& a, const std::wstring& b) {
    return zep::text::EqualsIgnoreCase(a, b);
}

// ---- utility ----------------------------------------------------------------

bool utility::GetZepAppDataRootPath(std::wstring& root) {
    root.clear();
    auto found = CurrentEnv()->system->AppDataRoot();
    if (!found) return false;
    root = std::move(*found);
    return true;
}

std::wstring utility::GetSystemDirectoryW() { return CurrentEnv()->system->SystemDirectory(); }
std::wstring utility::GetWindowsDirectoryW() { return CurrentEnv()->system->WindowsDirectory(); }

void utility::InitLog(Log& log, const std::string& fileName, int maxFiles) {
    log.Open(CurrentEnv()->logs->OpenLog(fileName, maxFiles));
}

// ---- CRegUtil ---------------------------------------------------------------

namespace {
Hive ToHive(HKEY hive) { return hive == HKEY_USERS ? Hive::Users : Hive::LocalMachine; }
}  // namespace

bool CRegUtil::DoesKeyExists(HKEY hive, const std::wstring& key) {
    return CurrentEnv()->registry->KeyExists(ToHive(hive), key);
}
int CRegUtil::GetRegValueOfDwordType(HKEY hive, const std::wstring& key, const std::wstring& name, DWORD& value) {
    return CurrentEnv()->registry->GetDword(ToHive(hive), key, name, value) ? 1 : 0;
}
int CRegUtil::GetRegValueOfStringType(HKEY hive, const std::wstring& key, const std::wstring& name,
                                      std::wstring& value) {
    return CurrentEnv()->registry->GetString(ToHive(hive), key, name, value) ? 1 : 0;
}

// ---- ProcessWrap ------------------------------------------------------------

std::chrono::milliseconds ProcessWrap::ChildProcessCeiling() {
    DWORD seconds = 30 * 60;
    CRegUtil::GetRegValueOfDwordType(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport",
                                     L"ChildProcessTimeoutInSeconds", seconds);
    return std::chrono::seconds(seconds);
}

int ProcessWrap::LaunchApplicationAndCheckExitCode(const std::wstring& commandLine, const std::wstring& arguments,
                                                   bool wait, void* hostContext) {
    return CurrentEnv()->processes->LaunchCommandLine(commandLine, arguments, wait, hostContext,
                                                      ChildProcessCeiling());
}

// ---- CoreUtility ------------------------------------------------------------

CoreUtility* CoreUtility::GetInstance() {
    static CoreUtility instance;
    return &instance;
}
bool CoreUtility::IsDeviceRegistered() { return CurrentEnv()->device->IsRegistered(); }
std::wstring CoreUtility::GetDeviceID() { return CurrentEnv()->device->DeviceId(); }
std::wstring CoreUtility::GetLogicalDeviceID() { return CurrentEnv()->device->LogicalDeviceId(); }

unsigned long CoreUtility::CreateSHA256Hash(std::string& digest, const std::string& input) {
    std::string hex = zep::crypto::Sha256Hex(input);
    if (hex.empty()) return 1;
    digest = std::move(hex);
    return 0;
}

bool CoreUtility::IsCertificateExpired(const std::string& thumbprint, const std::string& notAfter) {
    if (thumbprint.empty()) return true;
    const auto expiry = zep::civil::ParseIso8601Utc(notAfter);
    if (!expiry) return true;
    return *expiry <= CurrentEnv()->clock->SystemNow();
}

// ---- Dates and times --------------------------------------------------------

GmtDateTime DateTimeUtility::GetCurrentGmtDatetime() { return zep::civil::ToGmt(CurrentEnv()->clock->SystemNow()); }

std::string DateTimeUtility::convertGMTTimeToString(const GmtDateTime& time) {
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02dZ", time.year, time.month, time.day, time.hour,
                  time.minute, time.second);
    return text;
}

std::wstring System::GetTime(const GmtDateTime& time) {
    return zep::text::FromUtf8(DateTimeUtility::convertGMTTimeToString(time));
}

std::wstring System::GetLoggedInUserSID() { return CurrentEnv()->system->LoggedInUserSid(); }

// ---- CGuid ------------------------------------------------------------------

std::wstring CGuid::NewGuid(int format) {
    std::array<std::uint8_t, 16> bytes{};
    CurrentEnv()->random->Fill(bytes.data(), bytes.size());
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    static constexpr wchar_t kLower[] = L"0123456789abcdef";
    static constexpr wchar_t kUpper[] = L"0123456789ABCDEF";
    const wchar_t* hex = format == 1 ? kLower : kUpper;
    std::wstring guid;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) guid.push_back(L'-');
        guid.push_back(hex[bytes[i] >> 4]);
        guid.push_back(hex[bytes[i] & 0x0F]);
    }
    return format == 1 ? guid : L"{" + guid + L"}";
}

// ---- Network, settings, subscription, agents ---------------------------------

bool NetworkUtility::IsInternetConnected(DWORD& flags) { return CurrentEnv()->network->IsInternetConnected(flags); }

unsigned int ApiUtility::GetRandomJitterInSeconds(unsigned int maxMilliseconds) {
    unsigned int maxSeconds = maxMilliseconds / 1000;
    const auto env = CurrentEnv();
    const unsigned int cap = env->settings->MaxJitterSeconds();
    if (cap != 0 && cap < maxSeconds) maxSeconds = cap;
    std::uint64_t random = 0;
    env->random->Fill(reinterpret_cast<std::uint8_t*>(&random), sizeof random);
    return static_cast<unsigned int>(random % (static_cast<std::uint64_t>(maxSeconds) + 1));
}

void ApiUtility::SleepForSeconds(unsigned int seconds) {
    CurrentEnv()->clock->SleepFor(std::chrono::seconds(seconds));
}

DeveloperSettings* DeveloperSettings::GetInstance() {
    static DeveloperSettings instance;
    return &instance;
}
bool DeveloperSettings::EnableCustomSettings() { return CurrentEnv()->settings->EnableCustomSettings(); }
bool DeveloperSettings::DisableJwtValidation() { return CurrentEnv()->settings->DisableJwtValidation(); }

bool DeviceSubscriptionUtility::isDeviceProvision() { return CurrentEnv()->device->IsProvisioned(); }

zep::AgentFactory* zep::AgentFactory::GetInstance() {
    static AgentFactory instance;
    return &instance;
}
std::shared_ptr<zep::platform::NotificationAgent> zep::AgentFactory::GetNotificationAgent() {
    return CurrentEnv()->agents->GetNotificationAgent();
}
std::shared_ptr<zep::platform::CoreAdapter> zep::AgentFactory::GetCoreAdapterAgent() {
    return CurrentEnv()->agents->GetCoreAdapter();
}
std::shared_ptr<IConfigAgent> zep::AgentFactory::GetConfigPolicyAgent() {
    // The configuration agent is the platform's singleton, never destroyed.
    return std::shared_ptr<IConfigAgent>(ConfigPolicyAgent::GetInstance(), [](IConfigAgent*) {});
}
