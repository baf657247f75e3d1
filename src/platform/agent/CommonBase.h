// The agent's base library as the module sees it. These names are the ones the
// agent's other modules use; each is a thin layer over the installed Env
// (Env.h), so the module's code reads like the agent's and tests can replace
// what lies beneath.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/env/AgentEnv.h"
#include "platform/env/FileSystemEnv.h"
#include "platform/agent/AgentPolicies.h"
#include "platform/agent/Log.h"
#include "platform/agent/WinTypes.h"

// Files and folders. Paths in the running system's form (Paths.h).
//
// A path below one of the trusted roots (the agent's data root, the system's
// temporary folder, the logged-in user's local application data) is reached
// from that root down without following any link or reparse point, and what
// it names is acted on through the folder that was opened (env/Beneath.h):
// a user who can write below a root cannot redirect what the agent reads,
// packs, writes or deletes there. Paths outside the roots are used as given.
class FileSystem {
public:
    // Documents the module reads are small; anything larger is refused.
    static constexpr std::uint64_t kMaxDocumentBytes = 16u * 1024 * 1024;

    // True when `path` is a regular file (a folder, not a link).
    static bool fileExists(const std::wstring& path);
    static bool directoryExists(const std::wstring& path);
    // Creates the folder, with its parents when `recursive`; true when it exists afterwards.
    static bool createDirectory(const std::wstring& path, bool recursive);
    // Deletes a file or folder (a whole tree when `recursive`, links removed
    // as links); true when it is gone.
    static bool deleteDirectoryOrFile(const std::wstring& path, bool recursive);
    static bool copyFile(const std::wstring& from, const std::wstring& to);
    // Copies what is below `from` into `to`; links and special files are left out.
    static bool copyDir(const std::wstring& from, const std::wstring& to);
    // Bytes free to the caller on the volume of `path`; false when unknown.
    static bool GetDiskFreeSpaceExW(const std::wstring& path, std::uint64_t& freeBytes);
    // Size in bytes; 0 when the file cannot be read.
    static std::uint64_t fileSize(const std::wstring& path);
    // Reads a whole regular file of at most `limit` bytes (never a FIFO or a
    // device, never waiting); a larger one is refused with a log line.
    static bool readFile(const std::wstring& path, std::string& contents,
                         std::uint64_t limit = kMaxDocumentBytes);
    // Reads the end of a file, at most `maxBytes`, from a line start on.
    static bool readFileTail(const std::wstring& path, std::uint64_t maxBytes, std::string& contents);
    // Replaces the file atomically: a temporary file beside it, flushed and
    // renamed over it; on failure the old file is unchanged.
    static bool writeFileAtomically(const std::wstring& path, const std::string& contents);
    // Writes the file, truncating it (not atomic).
    static bool writeFile(const std::wstring& path, const std::string& contents);
    // The last component of a path, and everything before its last separator.
    static std::wstring getFileName(const std::wstring& path);
    static std::wstring getDirectoryName(const std::wstring& path);
    // The system's temporary folder, ending with a separator.
    static std::wstring GetTempFolderPath();
    // The absolute form of a path in the system's long-path syntax ("\\?\"
    // prefixed on Windows; the plain absolute path elsewhere). A trailing
    // wildcard component is kept.
    static std::wstring GetExtendedAbsolutePathW(const std::wstring& path);
    // The first file below `folder` (recursively, in name order) whose name
    // ends with `extension` (letter case as given); false when there is none.
    static bool FindFileInDirectoryTree(const std::wstring& folder, const std::wstring& extension,
                                        std::wstring& found);
    // Appends the files below `folder` (recursively) whose names end with
    // `filter` (all files when empty); returns how many it appended.
    static int GetFileListForFolder(const std::wstring& folder, const std::wstring& filter,
                                    std::vector<std::wstring>& files);
    // True when `folder` holds a regular file anywhere below it (the walk
    // stops at the first one).
    static bool folderHoldsFiles(const std::wstring& folder);
    // Opens the folder `path` (created with its parents when `create`) for
    // work below it by the folder's own operations.
    static std::unique_ptr<zep::platform::Folder> openFolder(const std::wstring& path, bool create);
    // Opens a regular file for reading (never a link, a FIFO or a device).
    static std::unique_ptr<zep::platform::InputFile> openFile(const std::wstring& path);
};

// Text conversions and comparisons.
class String {
public:
    static std::string UTF16ToUTF8(const std::wstring& text);
    static std::wstring UTF8ToUTF16(const std::string& text);
    static std::wstring ToLower(const std::wstring& text);
    static std::wstring ToUpper(const std::wstring& text);
    static bool CaseInsesitiveEqual(const std::wstring& a, const std::wstring& b);
};

namespace utility {
// The agent's application-data root, without a trailing separator. False when
// the agent's installation cannot be found; `root` is then left empty.
bool GetZepAppDataRootPath(std::wstring& root);
// The system directory, without a trailing separator.
std::wstring GetSystemDirectoryW();
// The Windows directory, without a trailing separator.
std::wstring GetWindowsDirectoryW();
// Opens `log` as the file `fileName` in the agent's log folder.
void InitLog(Log& log, const std::string& fileName, int maxFiles);
// The file's digest as lower-case hexadecimal, read in chunks (an archive of
// gigabytes is never held in memory). `algorithm` "SHA-256" (also "SHA256");
// empty when the file cannot be read or the algorithm is unknown.
std::wstring GetFileHash(const std::wstring& path, const std::wstring& algorithm);
// Hands over the SHA-256 of a file its writer has just finished, so that
// GetFileHash need not read it again: it is taken for as long as the file
// has the same identity, size and last write time; anything else is read.
void RememberFileHash(const zep::platform::EntryInfo& file, const std::wstring& sha256Hex);
}  // namespace utility

// Registry reads (registry key paths keep their backslashes on every system).
class CRegUtil {
public:
    static bool DoesKeyExists(HKEY hive, const std::wstring& key);
    // Non-zero on success.
    static int GetRegValueOfDwordType(HKEY hive, const std::wstring& key, const std::wstring& name, DWORD& value);
    static int GetRegValueOfStringType(HKEY hive, const std::wstring& key, const std::wstring& name,
                                       std::wstring& value);
};

class ProcessWrap {
public:
    // The hard limit on a child process's run (the whole process tree is ended
    // after it, so that one hung script cannot hold every later scan): the
    // DWORD "ChildProcessTimeoutInSeconds" under SOFTWARE\Quorin\ZEP\DeviceSupport,
    // 30 minutes when absent, no limit when 0.
    static std::chrono::milliseconds ChildProcessCeiling();
    // Runs a command line; non-zero when it ran and exited with 0.
    static int LaunchApplicationAndCheckExitCode(const std::wstring& commandLine, const std::wstring& arguments,
                                                 bool wait, void* hostContext);
};

class CoreUtility {
public:
    static CoreUtility* GetInstance();
    bool IsDeviceRegistered();
    std::wstring GetDeviceID();
    std::wstring GetLogicalDeviceID();
    // SHA-256 of `input` as 64 lower-case hexadecimal characters; 0 on success.
    static unsigned long CreateSHA256Hash(std::string& digest, const std::string& input);
    // True unless `notAfter` (ISO 8601 UTC) lies in the future. A certificate
    // without a thumbprint or with an unreadable expiry counts as expired.
    static bool IsCertificateExpired(const std::string& thumbprint, const std::string& notAfter);
    // Verifies a compact JSON web token against the token-signing keys of the
    // platform policy that `configAgent` gives (RS256 and ES256; "none" and
    // every other algorithm are refused; an "exp" in the past is refused).
    // With `skipValidation` the signature and expiry are not checked, as on
    // developer devices, but the token must still be well formed. `claims`
    // receives the payload's JSON text on success. Never logs the token.
    static bool VerifyJWT(const std::string& jwt, std::string& claims, std::shared_ptr<IConfigAgent> configAgent,
                          bool skipValidation);
};

// A GMT date and time, as the platform's date-time helpers pass it around.
struct GmtDateTime {
    int year = 1970, month = 1, day = 1, hour = 0, minute = 0, second = 0, millisecond = 0;
};

class DateTimeUtility {
public:
    static GmtDateTime GetCurrentGmtDatetime();
    // ISO 8601 UTC to the second, for example 2026-11-21T10:15:30Z.
    static std::string convertGMTTimeToString(const GmtDateTime& time);
};

class System {
public:
    // Where Windows keeps a user's folders: under HKEY_USERS\<SID>.
    static constexpr const wchar_t* kShellFoldersKey =
        L"\\Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Shell Folders";
    static constexpr const wchar_t* kLocalAppDataValue = L"Local AppData";

    // The same rendering as DateTimeUtility::convertGMTTimeToString, wide.
    static std::wstring GetTime(const GmtDateTime& time);
    static std::wstring GetLoggedInUserSID();
};

class CGuid {
public:
    // A new random GUID; format 1 is lower case without braces.
    static std::wstring NewGuid(int format);
};

class NetworkUtility {
public:
    bool IsInternetConnected(DWORD& flags);
};

class ApiUtility {
public:
    // A random whole number of seconds from 0 up to `maxMilliseconds` / 1000
    // (inclusive), bounded by the developer setting MaxJitterSeconds when it
    // is set. The range is given in milliseconds, the answer in seconds: the
    // retry of a refused upload waits up to five minutes for 300000.
    static unsigned int GetRandomJitterInSeconds(unsigned int maxMilliseconds);
    // Blocks the calling thread through the platform's clock.
    static void SleepForSeconds(unsigned int seconds);
};

class DeveloperSettings {
public:
    static DeveloperSettings* GetInstance();
    bool EnableCustomSettings();
    bool DisableJwtValidation();
};

class DeviceSubscriptionUtility {
public:
    static bool isDeviceProvision();
};

namespace zep {
class AgentFactory {
public:
    static AgentFactory* GetInstance();
    std::shared_ptr<platform::NotificationAgent> GetNotificationAgent();
    std::shared_ptr<platform::CoreAdapter> GetCoreAdapterAgent();
    std::shared_ptr<IConfigAgent> GetConfigPolicyAgent();
};
}  // namespace zep
