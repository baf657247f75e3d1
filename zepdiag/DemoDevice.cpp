#include "DemoDevice.h"

#ifndef _WIN32
#include <sys/stat.h>
#endif

#include <ctime>
#include <fstream>
#include <string_view>
#include <system_error>
#include <vector>

#include <json/json.h>

#include "platform/util/Paths.h"
#ifdef _WIN32
#include "WindowsHost.h"
#endif

namespace zepdiag {
namespace {

namespace fs = std::filesystem;
using std::chrono::system_clock;
using namespace std::chrono_literals;

constexpr const char* kDeviceId = "7C3E9A12-5B4D-4E8F-9A61-2D0B7F3C8E45";
constexpr const char* kLogicalDeviceId = "LD-4F2A9C";
constexpr const char* kAgentId = "3f9d2c41-8b7e-4a15-b6c2-9e0f1a7d5c38";
constexpr const char* kServiceVersion = "4.12.3.0";
constexpr const char* kPackageId = "com.quorin.vpnclient";
constexpr const char* kPluginId = "com.quorin.demoplugin";

std::string Utc(system_clock::time_point time, bool milliseconds) {
    const std::time_t seconds = system_clock::to_time_t(time);
    std::tm utc{};
#ifdef _WIN32
    gmtime_s(&utc, &seconds);
#else
    gmtime_r(&seconds, &utc);
#endif
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    std::string out = text;
    if (milliseconds) {
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
        char fraction[8];
        std::snprintf(fraction, sizeof fraction, ".%03d", static_cast<int>(ms));
        out += fraction;
    }
    return out + "Z";
}

// Log lines in the agent's layout, dated backwards from `end` one `step`
// apart, so that the newest line is the last one.
std::string LogLines(system_clock::time_point end, std::chrono::seconds step,
                     const std::vector<std::string_view>& lines) {
    std::string out;
    auto time = end - step * static_cast<long>(lines.size());
    for (const auto line : lines) {
        time += step;
        out += Utc(time, true);
        out += " ";
        out += line;
        out += "\n";
    }
    return out;
}

std::string DeviceJson(system_clock::time_point now) {
    const std::string notAfter = Utc(now + 365 * 24h, false);
    return std::string(R"({
  "deviceId": ")") + kDeviceId + R"(",
  "logicalDeviceId": ")" + kLogicalDeviceId + R"(",
  "agentId": ")" + kAgentId + R"(",
  "serviceVersion": ")" + kServiceVersion + R"(",
  "registered": true,
  "provisioned": true,
  "commercialIntent": true,
  "online": true,
  "loggedInUser": "S-1-5-21-3623811015-3361044348-30300820-1013",
  "certificate": {
    "present": true,
    "thumbprint": "4A7F1C9E2B6D8035E1A94C7B02F6D3E85A19C0B7",
    "notAfter": ")" + notAfter + R"("
  },
  "notificationAgent": {
    "present": true,
    "mqttEnabled": true,
    "mqttState": 2,
    "disconnectExpected": false,
    "retriesExceeded": false
  },
  "developerSettings": {
    "enableCustomSettings": false,
    "disableJwtValidation": false,
    "maxJitterSeconds": 5
  }
}
)";
}

// As the registry editor exports it, but in UTF-8 (which the loader reads as
// well as UTF-16) so that it can be edited with any tool.
constexpr std::string_view kRegistry =
    "Windows Registry Editor Version 5.00\r\n"
    "\r\n"
    "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP]\r\n"
    "\"InstallDir\"=\"C:\\\\Program Files\\\\Quorin\\\\ZEP\\\\\"\r\n"
    "\"Environment\"=\"production\"\r\n"
    "\"GetDiagnosticsMqttRateLimit\"=dword:0000000a\r\n"
    "\"LogLevel\"=dword:00000002\r\n"
    "\"TelemetryIntervalMinutes\"=dword:0000003c\r\n"
    "\r\n"
    "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP\\DeviceSupport]\r\n"
    "\"TimeoutInSeconds\"=dword:0000003c\r\n"
    "\"certPinningError\"=dword:00000000\r\n"
    "\r\n";

std::string AgentLog(system_clock::time_point now) {
    return LogLines(now - 2min, 7s, {
        "[i] [04112] ZEP service starting, version 4.12.3.0 (build 4.12.3.0-release)",
        "[i] [04112] Application data root: C:\\ProgramData\\Quorin\\ZEP",
        "[d] [04112] Network interfaces: "
        "{\"adapter\":\"Ethernet0\",\"address\":\"10.1.2.47\",\"gateway\":\"10.1.2.3\"}",
        "[d] [04112] DNS servers: [\"10.1.2.53\",\"10.1.2.54\"]",
        "[i] [04117] Device registered; logical device id LD-4F2A9C",
        "[i] [04117] Core adapter loaded, plugin host version 2.3.0.117",
        "[i] [05230] Telemetry sync completed, 42 records, sync point 18233",
        "[e] [05230] Proxy auto-configuration failed: {\"proxy\":\"10.1.9.250\",\"error\":12167}",
        "[i] [05230] Next telemetry sync in 60 minutes",
    });
}

std::string NotificationLog(system_clock::time_point now) {
    return LogLines(now - 90s, 5s, {
        "[i] [06001] Notification agent version 4.12.3.0 starting",
        "[d] [06001] Broker endpoint resolved: {\"host\":\"mqtt.zep.quorin.example\",\"ip\":\"52.174.18.9\"}",
        "[e] [06001] MQTT connect failed (rc=3), retrying in 10 seconds",
        "[i] [06001] MQTT connected, session present: false",
        "[i] [06001] Subscribed to devices/LD-4F2A9C/commands",
    });
}

std::string UpdaterLog(system_clock::time_point now) {
    return LogLines(now - 30min, 40s, {
        "[i] [07310] Update policy loaded: 1 package",
        "[i] [07310] Package com.quorin.vpnclient installed version 7.1.0.2204, policy version 7.1.0.2204",
        "[d] [07310] Download source: {\"cdn\":\"203.0.113.25\",\"port\":443}",
        "[i] [07310] Nothing to update",
    });
}

std::string ArchivedAgentLog(system_clock::time_point now) {
    return LogLines(now - 30 * 24h, 11s, {
        "[i] [03004] ZEP service starting, version 4.11.0.9",
        "[d] [03004] Network interfaces: "
        "{\"adapter\":\"Wi-Fi\",\"address\":\"192.168.40.17\",\"gateway\":\"192.168.40.1\"}",
        "[e] [03010] Registration failed: XRS error 503, retry 1 of 5",
        "[i] [03010] Device registered; logical device id LD-4F2A9C",
        "[i] [03004] ZEP service stopping for the update to version 4.12.3.0",
    });
}

// The smallest valid zip archive: an end-of-central-directory record only.
std::string EmptyZip() { return std::string("PK\x05\x06", 4) + std::string(18, '\0'); }

// Only the header of an SQLite database (page size 4096), padded to two pages.
std::string SyncDatabase() {
    std::string bytes("SQLite format 3\0", 16);
    bytes += std::string("\x10\x00\x01\x01\x00\x40\x20\x20", 8);
    bytes.resize(8192, '\0');
    return bytes;
}

constexpr std::string_view kUpdatePolicy =
    R"({"packages": [{"id": "com.quorin.vpnclient", "name": "Quorin VPN Client"}]})"
    "\n";

struct DemoTest {
    const char* id;
    const char* name;
    const char* expected;
    const char* actual;
};

// A tab-indented component result, written as JsonCpp writes result
// documents; a test passes when its actual value is the expected one.
std::string ComponentResult(const char* componentId, const char* friendlyName, const char* seconds,
                            const std::vector<DemoTest>& tests) {
    Json::Value document(Json::objectValue);
    document["componentId"] = componentId;
    document["friendlyName"] = friendlyName;
    document["executionTimeSeconds"] = seconds;
    document["resultType"] = "Complete";
    bool failed = false;
    document["tests"] = Json::Value(Json::arrayValue);
    for (const auto& test : tests) {
        Json::Value entry(Json::objectValue);
        entry["id"] = test.id;
        entry["friendlyName"] = test.name;
        entry["expected"] = test.expected;
        entry["actual"] = test.actual;
        const bool passed = std::string_view(test.expected) == test.actual;
        entry["result"] = passed ? "pass" : "fail";
        failed |= !passed;
        document["tests"].append(entry);
    }
    document["isProblematic"] = failed;
    Json::StreamWriterBuilder builder;  // tab indentation by default
    return Json::writeString(builder, document);
}

// The package's own diagnostics: one passing and one failing test.
std::string PackageComponentResult() {
    return ComponentResult(kPackageId, "Quorin VPN Client", "0.042",
                           {{"5d0c1a2e-7f43-4b9e-a1c6-0e8b3d2f9a71", "vpn_service_running", "running", "running"},
                            {"9b47e3f0-2c18-4d6a-b5e9-71a0c4d82f36", "vpn_tunnel_established", "connected",
                             "disconnected"}});
}

#ifndef _WIN32
std::string InstallScript() {
    return std::string(R"(#!/bin/sh
# Quorin VPN Client: the package's script on this demo device. It knows one
# command: -command get-diagnostics -outDir <folder> writes the package's
# component result and a log into <folder>.
set -u

command=
out_dir=
while [ "$#" -gt 0 ]; do
    case "$1" in
        -command | -outDir)
            if [ "$#" -lt 2 ]; then
                echo "install.sh: $1 needs a value" >&2
                exit 2
            fi
            if [ "$1" = -command ]; then command=$2; else out_dir=$2; fi
            shift 2
            ;;
        *)
            echo "install.sh: unknown argument: $1" >&2
            exit 2
            ;;
    esac
done

if [ "$command" != get-diagnostics ]; then
    echo "install.sh: unsupported command: ${command:-<none>}" >&2
    exit 2
fi
if [ -z "$out_dir" ]; then
    echo "install.sh: -outDir is required" >&2
    exit 2
fi
mkdir -p "$out_dir" || exit 1
now=$(date -u +%Y-%m-%dT%H:%M:%SZ)

cat > "$out_dir/component-result.json" <<'RESULT' || exit 1
)") + PackageComponentResult() + R"(
RESULT

cat > "$out_dir/vpnclient-diagnostics.log" <<LOG || exit 1
$now [i] get-diagnostics started, output folder $out_dir
$now [i] service QuorinVpnService: running, version 7.1.0.2204
$now [e] tunnel: not established, last error 809 (no answer from vpn.quorin.example)
$now [i] get-diagnostics finished
LOG
exit 0
)";
}

#endif

#ifdef _WIN32
// The same package script for Windows, where the module runs it with
// PowerShell: install.ps1 -command get-diagnostics -outDir <folder>.
std::string InstallPowerShellScript() {
    return std::string(R"(# Quorin VPN Client: the package's script on this demo device. It knows one
# command: -command get-diagnostics -outDir <folder> writes the package's
# component result and a log into <folder>.
param([string]$command, [string]$outDir)

if ($command -ne 'get-diagnostics') {
    [Console]::Error.WriteLine("install.ps1: unsupported command: $command")
    exit 2
}
if (-not $outDir) {
    [Console]::Error.WriteLine('install.ps1: -outDir is required')
    exit 2
}
New-Item -ItemType Directory -Force -Path $outDir | Out-Null
$now = (Get-Date).ToUniversalTime().ToString('yyyy-MM-ddTHH:mm:ssZ')
# WriteAllText: UTF-8 without the byte-order mark Set-Content would add.
[IO.File]::WriteAllText((Join-Path $outDir 'component-result.json'), @'
)") + PackageComponentResult() + R"(
'@)
[IO.File]::WriteAllText((Join-Path $outDir 'vpnclient-diagnostics.log'), @"
$now [i] get-diagnostics started, output folder $outDir
$now [i] service QuorinVpnService: running, version 7.1.0.2204
$now [e] tunnel: not established, last error 809 (no answer from vpn.quorin.example)
$now [i] get-diagnostics finished

"@)
exit 0
)";
}

#endif

// The demo plug-in: the extension module finds it by its folder name and
// runs its program with the diagnostics folder of each running instance.
std::string PluginManifest(const char* program) {
    return std::string(R"({
  "id": ")") + kPluginId + R"(",
  "elevations": ["elevated"],
  "program": ")" + program + R"("
}
)";
}

std::string PluginComponentResult() {
    return ComponentResult(kPluginId, "Demo Plug-in", "0.015",
                           {{"1f6b0c3a-94d2-4e57-8a1b-c3e7d95f2048", "demo_service_running", "running", "running"},
                            {"7a2d9e41-0b5c-4f83-9d6e-28c1f4a7b390", "demo_config_present", "present", "missing"}});
}

#ifndef _WIN32
std::string PluginScript() {
    return std::string(R"(#!/bin/sh
# Demo Plug-in: the plug-in's program on this demo device. It knows one
# command: get-diagnostics <folder> <elevated|user|none> writes the plug-in's
# component result and a log into <folder> and answers on standard output
# whether the agent should delete them once uploaded.
set -u

if [ "$#" -ne 3 ] || [ "$1" != get-diagnostics ]; then
    echo "run.sh: usage: run.sh get-diagnostics <folder> <elevated|user|none>" >&2
    exit 2
fi
out_dir=$2
elevation=$3
mkdir -p "$out_dir/Log" || exit 1
now=$(date -u +%Y-%m-%dT%H:%M:%SZ)

cat > "$out_dir/component-result.json" <<'RESULT' || exit 1
)") + PluginComponentResult() + R"(
RESULT

cat > "$out_dir/Log/demo-plugin.log" <<LOG || exit 1
$now [i] get-diagnostics started by the $elevation instance, output folder $out_dir
$now [i] demo service: running, version 1.4.0.12
$now [e] configuration: /etc/quorin/demo-plugin.conf not found
$now [i] get-diagnostics finished
LOG
echo '{"deleteFilesOnUpload": false}'
exit 0
)";
}

#endif

class Writer {
public:
    explicit Writer(fs::path root) : root_(std::move(root)) {}

    void Folder(const fs::path& relative) {
        if (!ok()) return;
        std::error_code code;
        fs::create_directories(root_ / relative, code);
        if (code) error_ = "cannot create " + zep::path::NarrowPath(root_ / relative) + ": " + code.message();
    }

    void File(const fs::path& relative, std::string_view bytes) {
        Folder(relative.parent_path());
        if (!ok()) return;
        const fs::path path = root_ / relative;
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        out.close();
        if (!out) error_ = "cannot write " + zep::path::NarrowPath(path);
    }

#ifndef _WIN32
    void Executable(const fs::path& relative) {
        if (!ok()) return;
        const fs::path path = root_ / relative;
        if (::chmod(path.c_str(), 0755) != 0) error_ = "cannot make " + zep::path::NarrowPath(path) + " executable";
    }
#endif

    void Copy(const fs::path& from, const fs::path& relative) {
        Folder(relative.parent_path());
        if (!ok()) return;
        std::error_code code;
        fs::copy_file(from, root_ / relative, fs::copy_options::overwrite_existing, code);
        if (code) error_ = "cannot copy " + zep::path::NarrowPath(from) + ": " + code.message();
    }

    bool ok() const { return error_.empty(); }
    const std::string& error() const { return error_; }

private:
    fs::path root_;
    std::string error_;
};

}  // namespace

FolderKind InspectDeviceFolder(const fs::path& dir) {
    std::error_code code;
    const auto status = fs::status(dir, code);
    if (status.type() == fs::file_type::not_found) return FolderKind::Missing;
    if (code || status.type() != fs::file_type::directory) return FolderKind::NotADirectory;
    if (fs::is_regular_file(dir / "device.json", code) || fs::is_directory(dir / "programdata", code)) {
        return FolderKind::Device;
    }
    // The lock of a zepdiag run waiting to create the device does not count.
    for (fs::directory_iterator it(dir, code), end; !code && it != end; it.increment(code)) {
        if (it->path().filename() != kRunLockName) return FolderKind::Other;
    }
    return code ? FolderKind::Other : FolderKind::Empty;
}

bool CreateDemoDevice(const fs::path& dir, system_clock::time_point now, std::string& error) {
    Writer w(dir);
    w.File("device.json", DeviceJson(now));
    w.File("registry.reg", kRegistry);
    w.File("programdata/Log/ZEPAgent.log", AgentLog(now));
    w.File("programdata/Log/NotificationAgent.log", NotificationLog(now));
    w.File("programdata/Log/Updater.log", UpdaterLog(now));
    w.File("programdata/Log/archive/ZEPAgent-" + Utc(now - 30 * 24h, false).substr(0, 10) + ".log",
           ArchivedAgentLog(now));
    w.File("programdata/Log/archive/crash-reports.zip", EmptyZip());
    w.File("programdata/DB/SyncPoint.sqlite3", SyncDatabase());
    w.Folder("programdata/diagnostics");
    w.Folder("programdata/plugin-data");
    w.Folder("temp");
    w.File("update-policy.json", kUpdatePolicy);
#ifdef _WIN32
    // A shell script cannot run here: the package script is PowerShell, and
    // the plug-in a small program that hands out its component result.
    w.File(fs::path("packages") / kPackageId / "temp" / "install.ps1", InstallPowerShellScript());
    w.File("plugins/demo-plugin/plugin.json", PluginManifest("demo-plugin.exe"));
    w.File("plugins/demo-plugin/component-result.json", PluginComponentResult());
    w.Copy(RunningProgramFolder() / "demo-plugin.exe", "plugins/demo-plugin/demo-plugin.exe");
#else
    w.File(fs::path("packages") / kPackageId / "temp" / "install.sh", InstallScript());
    w.Executable(fs::path("packages") / kPackageId / "temp" / "install.sh");
    w.File("plugins/demo-plugin/plugin.json", PluginManifest("run.sh"));
    w.File("plugins/demo-plugin/run.sh", PluginScript());
    w.Executable("plugins/demo-plugin/run.sh");
#endif
    error = w.error();
    return w.ok();
}

}  // namespace zepdiag
