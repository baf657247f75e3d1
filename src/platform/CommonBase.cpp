#include "platform/CommonBase.h"

#include <array>
#include <cstdio>

#include <openssl/evp.h>

#include "platform/CivilTime.h"
#include "platform/Env.h"
#include "platform/Paths.h"
#include "platform/Strings.h"

using zep::platform::CurrentEnv;
using zep::platform::Hive;

// ---- FileSystem -------------------------------------------------------------

bool FileSystem::fileExists(const std::wstring& path) { return CurrentEnv()->files->FileExists(path); }
bool FileSystem::directoryExists(const std::wstring& path) { return CurrentEnv()->files->DirectoryExists(path); }
bool FileSystem::createDirectory(const std::wstring& path, bool recursive) {
    return CurrentEnv()->files->CreateDirectory(path, recursive);
}
bool FileSystem::deleteDirectoryOrFile(const std::wstring& path, bool recursive) {
    return CurrentEnv()->files->Remove(path, recursive);
}
bool FileSystem::copyFile(const std::wstring& from, const std::wstring& to) {
    return CurrentEnv()->files->CopyFile(from, to);
}
bool FileSystem::copyDir(const std::wstring& from, const std::wstring& to) {
    return CurrentEnv()->files->CopyDirectory(from, to);
}
bool FileSystem::GetDiskFreeSpaceEx(const std::wstring& path, std::uint64_t& freeBytes) {
    const auto available = CurrentEnv()->files->FreeSpace(path);
    if (!available) return false;
    freeBytes = *available;
    return true;
}
std::uint64_t FileSystem::fileSize(const std::wstring& path) { return CurrentEnv()->files->FileSize(path).value_or(0); }
bool FileSystem::readFile(const std::wstring& path, std::string& contents) {
    return CurrentEnv()->files->ReadFile(path, contents);
}
bool FileSystem::readFileTail(const std::wstring& path, std::size_t maxBytes, std::string& contents,
                              bool& truncated) {
    return CurrentEnv()->files->ReadFileTail(path, maxBytes, contents, truncated);
}
bool FileSystem::writeFile(const std::wstring& path, const std::string& contents) {
    return CurrentEnv()->files->WriteFile(path, contents);
}
bool FileSystem::writeFileAtomically(const std::wstring& path, const std::string& contents) {
    return CurrentEnv()->files->WriteFileAtomically(path, contents);
}

namespace {
bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }
}  // namespace

std::wstring FileSystem::getFileName(const std::wstring& path) {
    for (std::size_t i = path.size(); i > 0; --i) {
        if (IsSeparator(path[i - 1])) return path.substr(i);
    }
    return path;
}

std::wstring FileSystem::getDirectoryName(const std::wstring& path) {
    for (std::size_t i = path.size(); i > 0; --i) {
        if (IsSeparator(path[i - 1])) return path.substr(0, i - 1);
    }
    return std::wstring();
}

std::wstring FileSystem::GetExtendedAbsolutePathW(const std::wstring& path) {
    return zep::path::ExtendedAbsolute(path);
}

bool FileSystem::FindFileInDirectoryTree(const std::wstring& folder, const std::wstring& extension,
                                         std::wstring& found) {
    for (auto& file : CurrentEnv()->files->ListFiles(folder, true)) {
        if (file.size() >= extension.size() &&
            file.compare(file.size() - extension.size(), extension.size(), extension) == 0) {
            found = std::move(file);
            return true;
        }
    }
    return false;
}

std::wstring FileSystem::GetTempFolderPath() { return CurrentEnv()->system->TempFolder(); }

int FileSystem::GetFileListForFolder(const std::wstring& folder, const std::wstring& filter,
                                     std::vector<std::wstring>& files) {
    int count = 0;
    for (auto& file : CurrentEnv()->files->ListFiles(folder, true)) {
        if (!filter.empty() &&
            (file.size() < filter.size() || file.compare(file.size() - filter.size(), filter.size(), filter) != 0)) {
            continue;
        }
        files.push_back(std::move(file));
        ++count;
    }
    return count;
}

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
    return CurrentEnv()->processes->LaunchCommandLine(commandLine, arguments, wait, hostContext);
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
    std::array<unsigned char, EVP_MAX_MD_SIZE> raw{};
    unsigned int length = 0;
    if (EVP_Digest(input.data(), input.size(), raw.data(), &length, EVP_sha256(), nullptr) != 1) return 1;
    static constexpr char kHex[] = "0123456789abcdef";
    digest.clear();
    digest.reserve(length * 2u);
    for (unsigned int i = 0; i < length; ++i) {
        digest.push_back(kHex[raw[i] >> 4]);
        digest.push_back(kHex[raw[i] & 0x0F]);
    }
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
