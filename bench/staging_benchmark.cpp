// The whole staging and zip of a device of realistic size, as a user waits
// for it: a manual scan on a generated device folder, timed end to end.
//
//   zep_staging_bench generate DIR [shape options]   the device, seeded
//   zep_staging_bench run DIR [--report FILE]         one manual scan, measured
//   zep_staging_bench zipinfo ZIP [--log-list FILE]   what an archive holds
//   zep_staging_bench extract ZIP ENTRY OUT           one entry, uncompressed
//   zep_staging_bench check [PARENT]                  a smaller device, scanned
//                                                     and held against the model
//
// Generation and measurement are separate processes so that the peak
// resident memory of a run is the scan's own.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/env/Env.h"
#include "platform/device/InProcessHub.h"
#include "platform/util/Strings.h"
#include "platform/device/DeviceFolder.h"

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kKiB = 1024;
constexpr std::uint64_t kMiB = 1024 * kKiB;
// The module keeps the newest logs up to this many bytes.
constexpr std::uint64_t kLogBudget = 50 * kMiB;
// The module's own log is the newest file of the copy it scans and joins the
// logs kept. Room left at the budget's edge stops it from pushing out a file
// that a copy made without it keeps, so that both archives compare file for file.
constexpr std::uint64_t kBudgetMargin = kMiB;
constexpr std::uint64_t kDefaultMinLogFile = 4 * kKiB;
constexpr std::int64_t kThirtyDays = 30LL * 24 * 3600;
constexpr const char* kLogicalDeviceId = "LD-BENCH01";
constexpr const char* kLogPrefix = "ZEP/Log/";
constexpr const char* kModuleLogName = "ZEPDiagnostics.log";

// ---- deterministic randomness -----------------------------------------------

class Rng {
public:
    explicit Rng(std::uint64_t seed) : state_(seed) {}
    std::uint64_t Next() {  // splitmix64
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    std::uint64_t Below(std::uint64_t n) { return n == 0 ? 0 : Next() % n; }
    unsigned Octet(unsigned low, unsigned high) { return low + static_cast<unsigned>(Below(high - low + 1)); }
    double Unit() { return static_cast<double>(Next() >> 11) * (1.0 / 9007199254740992.0); }

private:
    std::uint64_t state_;
};

// ---- text helpers -----------------------------------------------------------

void AppendUint(std::string& out, std::uint64_t value, int width = 0) {
    char digits[24];
    int n = 0;
    do {
        digits[n++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    for (int pad = n; pad < width; ++pad) out += '0';
    while (n > 0) out += digits[--n];
}

void AppendHex(std::string& out, std::uint64_t value, int width) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    for (int shift = (width - 1) * 4; shift >= 0; shift -= 4) out += kHex[(value >> shift) & 0xF];
}

// "2024-05-01T12:34:56.789Z", as the agent stamps its lines.
void AppendUtc(std::string& out, std::int64_t seconds, unsigned milliseconds) {
    const std::time_t time = static_cast<std::time_t>(seconds);
    std::tm utc{};
    gmtime_r(&time, &utc);
    AppendUint(out, static_cast<std::uint64_t>(utc.tm_year + 1900), 4);
    out += '-';
    AppendUint(out, static_cast<std::uint64_t>(utc.tm_mon + 1), 2);
    out += '-';
    AppendUint(out, static_cast<std::uint64_t>(utc.tm_mday), 2);
    out += 'T';
    AppendUint(out, static_cast<std::uint64_t>(utc.tm_hour), 2);
    out += ':';
    AppendUint(out, static_cast<std::uint64_t>(utc.tm_min), 2);
    out += ':';
    AppendUint(out, static_cast<std::uint64_t>(utc.tm_sec), 2);
    out += '.';
    AppendUint(out, milliseconds, 3);
    out += 'Z';
}

bool MentionsVersion(std::string_view line) {
    constexpr std::string_view kWord = "version";
    for (std::size_t i = 0; i + kWord.size() <= line.size(); ++i) {
        std::size_t j = 0;
        while (j < kWord.size() && (line[i + j] | 0x20) == kWord[j]) ++j;
        if (j == kWord.size()) return true;
    }
    return false;
}

std::string Mib(std::uint64_t bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", static_cast<double>(bytes) / static_cast<double>(kMiB));
    return text;
}

// ---- the device's shape -----------------------------------------------------

struct DeviceShape {
    std::uint64_t seed = 20240611;
    std::uint64_t logBytes = 200 * kMiB;
    std::uint64_t logFiles = 1000;
    std::uint64_t dbBytes = 20 * kMiB;
    std::uint64_t dataFiles = 2000;  // every file under programdata, logs and database included
    std::uint64_t minLogFile = kDefaultMinLogFile;
};

struct LogFile {
    std::string rel;  // below programdata/Log
    std::uint64_t size = 0;
    timespec mtime{};
    bool archive = false;
    std::uint64_t seed = 0;
};

struct Folder {
    const char* rel;    // below Log; "" is Log itself
    const char* stem;   // of the file names in it
    unsigned weight;    // share of the files
};

// Up to three levels below Log. The files directly in Log are the ones the
// module scrubs, so they get a good share.
constexpr Folder kFolders[] = {
    {"", "ZEPAgent", 14},
    {"", "ZEPNotification", 8},
    {"", "ZEPUpdater", 5},
    {"", "ZEPSync", 4},
    {"Agent", "Agent", 8},
    {"Agent/Archive", "Agent", 7},
    {"Agent/Archive/2024", "Agent", 6},
    {"Notification", "Notification", 5},
    {"Notification/Archive", "Notification", 4},
    {"Updater", "Updater", 4},
    {"Updater/Downloads", "Download", 3},
    {"Plugins/VPN", "VpnClient", 6},
    {"Plugins/VPN/Archive", "VpnClient", 5},
    {"Plugins/Inventory", "Inventory", 5},
    {"Plugins/Inventory/Archive/Old", "Inventory", 4},
    {"Plugins/Compliance", "Compliance", 4},
    {"Sync", "SyncEngine", 4},
    {"Sync/Archive", "SyncEngine", 4},
};

bool Newer(const LogFile& a, const LogFile& b) {
    if (a.mtime.tv_sec != b.mtime.tv_sec) return a.mtime.tv_sec > b.mtime.tv_sec;
    if (a.mtime.tv_nsec != b.mtime.tv_nsec) return a.mtime.tv_nsec > b.mtime.tv_nsec;
    return a.rel < b.rel;
}

// The logs (not archives), newest first.
std::vector<std::size_t> NewestFirst(const std::vector<LogFile>& logs) {
    std::vector<std::size_t> order;
    for (std::size_t i = 0; i < logs.size(); ++i) {
        if (!logs[i].archive) order.push_back(i);
    }
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return Newer(logs[a], logs[b]); });
    return order;
}

// How many of `order` fit the budget: the file at which the running total
// passes it, and every older one, are out.
std::size_t KeptCount(const std::vector<LogFile>& logs, const std::vector<std::size_t>& order, std::uint64_t& total) {
    total = 0;
    for (std::size_t k = 0; k < order.size(); ++k) {
        if (total + logs[order[k]].size > kLogBudget) return k;
        total += logs[order[k]].size;
    }
    return order.size();
}

// Takes up to `want` bytes from the files `donors` (largest first), leaving
// each at least `minFile`; returns how many were taken.
std::uint64_t TakeBytes(std::vector<LogFile>& logs, std::vector<std::size_t> donors, std::uint64_t want,
                        std::uint64_t minFile) {
    std::sort(donors.begin(), donors.end(), [&](std::size_t a, std::size_t b) { return logs[a].size > logs[b].size; });
    std::uint64_t taken = 0;
    for (const std::size_t i : donors) {
        if (taken == want) break;
        if (logs[i].size <= minFile) continue;
        const std::uint64_t take = std::min(want - taken, logs[i].size - minFile);
        logs[i].size -= take;
        taken += take;
    }
    return taken;
}

// Moves bytes between files, keeping the total, so that the kept logs leave
// at least kBudgetMargin of the budget free and the first file left out is
// larger than that margin (it stays out with the module's log added).
void LeaveMarginAtBudget(std::vector<LogFile>& logs, std::uint64_t minFile) {
    const auto order = NewestFirst(logs);
    std::uint64_t total = 0;
    const std::size_t kept = KeptCount(logs, order, total);
    if (kept == order.size() || kept == 0) return;
    const std::size_t firstOut = order[kept];
    std::vector<std::size_t> keptFiles(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(kept));
    std::vector<std::size_t> others(order.begin() + static_cast<std::ptrdiff_t>(kept) + 1, order.end());
    const std::size_t oldest = order.back();

    if (kLogBudget - total < kBudgetMargin) {
        const std::uint64_t moved = TakeBytes(logs, keptFiles, kBudgetMargin - (kLogBudget - total), minFile);
        logs[oldest].size += moved;
    }
    const std::uint64_t wanted = kBudgetMargin + 64 * kKiB;
    if (logs[firstOut].size < wanted) {
        logs[firstOut].size += TakeBytes(logs, others, wanted - logs[firstOut].size, minFile);
    }
}

std::vector<LogFile> PlanLogs(const DeviceShape& shape, std::int64_t now) {
    Rng rng(shape.seed);
    std::vector<LogFile> logs(static_cast<std::size_t>(shape.logFiles));
    if (logs.empty()) return logs;

    unsigned weights = 0;
    for (const auto& folder : kFolders) weights += folder.weight;
    std::map<std::string, unsigned> counters;
    for (auto& log : logs) {
        unsigned pick = static_cast<unsigned>(rng.Below(weights));
        const Folder* folder = &kFolders[0];
        for (const auto& candidate : kFolders) {
            if (pick < candidate.weight) {
                folder = &candidate;
                break;
            }
            pick -= candidate.weight;
        }
        const std::string key = std::string(folder->rel) + "/" + folder->stem;
        const unsigned n = ++counters[key];
        log.rel = std::string(folder->rel) + (*folder->rel ? "/" : "") + folder->stem + "." + std::to_string(n) + ".log";
        log.seed = rng.Next();
    }
    // Archives of earlier logs, one directly in Log and one deeper, in either
    // letter case; recent, so that they would be kept if they were not removed.
    if (logs.size() >= 2) {
        logs[0].rel = "ZEPAgent.previous.zip";
        logs[1].rel = "Plugins/VPN/Archive/VpnClient.logs.ZIP";
        logs[0].archive = logs[1].archive = true;
    }

    // Sizes: spread over two orders of magnitude, as rotated and small
    // plugin logs are, then scaled to the total.
    std::vector<double> weight(logs.size());
    double sum = 0;
    for (auto& w : weight) sum += (w = std::exp(rng.Unit() * std::log(256.0)));
    std::uint64_t assigned = 0;
    for (std::size_t i = 0; i < logs.size(); ++i) {
        const double share = weight[i] / sum * static_cast<double>(shape.logBytes);
        logs[i].size = std::max<std::uint64_t>(shape.minLogFile, static_cast<std::uint64_t>(share));
        assigned += logs[i].size;
    }
    // The rounding goes to the largest file.
    auto& largest = *std::max_element(logs.begin(), logs.end(),
                                      [](const LogFile& a, const LogFile& b) { return a.size < b.size; });
    if (assigned < shape.logBytes) {
        largest.size += shape.logBytes - assigned;
    } else if (assigned - shape.logBytes < largest.size - shape.minLogFile) {
        largest.size -= assigned - shape.logBytes;
    }

    // Last writes over the past 30 days, none in the last two minutes and no
    // two alike (the nanoseconds differ).
    for (std::size_t i = 0; i < logs.size(); ++i) {
        const auto age = static_cast<std::int64_t>(120 + rng.Below(static_cast<std::uint64_t>(kThirtyDays - 120)));
        logs[i].mtime.tv_sec = static_cast<time_t>(now - age);
        logs[i].mtime.tv_nsec = static_cast<long>(i * 1000 + rng.Below(1000));
    }
    for (std::size_t i = 0; i < logs.size() && i < 2; ++i) {
        logs[i].mtime.tv_sec = static_cast<time_t>(now - 600 - static_cast<std::int64_t>(i) * 60);
    }
    LeaveMarginAtBudget(logs, shape.minLogFile);
    return logs;
}

// ---- log contents -----------------------------------------------------------

struct TextStats {
    std::uint64_t lines = 0;
    std::uint64_t addressLines = 0;
};

void AppendAddress(Rng& rng, std::string& raw, std::string& scrubbed) {
    switch (rng.Below(4)) {
        case 0:
            raw += "10.";
            AppendUint(raw, rng.Octet(0, 255));
            break;
        case 1:
            raw += "192.168";
            break;
        case 2:
            raw += "172.";
            AppendUint(raw, rng.Octet(16, 31));
            break;
        default:
            AppendUint(raw, rng.Octet(20, 223));
            raw += '.';
            AppendUint(raw, rng.Octet(0, 255));
            break;
    }
    raw += '.';
    AppendUint(raw, rng.Octet(0, 255));
    raw += '.';
    AppendUint(raw, rng.Octet(1, 254));
    scrubbed += "[REDACTED_IP]";
}

// One line's message. `raw` is what the agent wrote, `scrubbed` the same
// with every quoted address redacted; returns whether one was quoted.
bool AppendMessage(Rng& rng, std::string& raw, std::string& scrubbed, std::string& level) {
    const auto both = [&](std::string_view text) {
        raw += text;
        scrubbed += text;
    };
    const auto number = [&](std::uint64_t limit) {
        const std::uint64_t value = rng.Below(limit);
        AppendUint(raw, value);
        AppendUint(scrubbed, value);
    };
    const auto address = [&] { AppendAddress(rng, raw, scrubbed); };

    const std::uint64_t kind = rng.Below(1000);
    if (kind < 2) {  // the agent's version, with the address it talked to left as written
        level = "[i]";
        switch (rng.Below(3)) {
            case 0: both("ZEP service starting, version 4.12.3.0 (build 4.12.3.0-release)"); return false;
            case 1: both("Update check: installed version 4.12.3.0, server {\"host\":\""); break;
            default: both("Plugin host Version 2.3.0.117 loaded from {\"repo\":\""); break;
        }
        address();
        both("\"}");
        return true;
    }
    if (kind < 300) {
        level = rng.Below(6) == 0 ? "[e]" : "[d]";
        switch (rng.Below(6)) {
            case 0:
                both("Network interfaces: {\"adapter\":\"Ethernet0\",\"address\":\"");
                address();
                both("\",\"gateway\":\"");
                address();
                both("\"}");
                break;
            case 1:
                both("DNS servers: [\"");
                address();
                both("\",\"");
                address();
                both("\"]");
                break;
            case 2:
                both("Proxy auto-configuration failed: {\"proxy\":\"");
                address();
                both("\",\"error\":12167}");
                break;
            case 3:
                both("Broker endpoint resolved: {\"host\":\"mqtt.zep.quorin.example\",\"ip\":\"");
                address();
                both("\"}");
                break;
            case 4:
                both("Download source: {\"cdn\":\"");
                address();
                both("\",\"port\":443}");
                break;
            default:
                both("Peer \"");
                address();
                both("\" answered in ");
                number(900);
                both(" ms");
                break;
        }
        return true;
    }
    level = "[i]";
    switch (rng.Below(14)) {
        case 0:
            both("Telemetry sync completed, ");
            number(500);
            both(" records, sync point ");
            number(90000);
            break;
        case 1:
            both("Next telemetry sync in ");
            number(120);
            both(" minutes");
            break;
        case 2:
            level = "[d]";
            both("Policy evaluation finished in ");
            number(4000);
            both(" ms, ");
            number(80);
            both(" rules applied");
            break;
        case 3:
            level = "[d]";
            both("MQTT keep-alive acknowledged (rtt=");
            number(700);
            both(" ms)");
            break;
        case 4:  // an address outside quotes stays as written
            level = "[d]";
            both("Connected to relay 10.");
            number(256);
            both(".");
            number(256);
            both(".");
            number(256);
            both(":443 over TLS 1.2");
            break;
        case 5:
            level = "[d]";
            both("Heartbeat sent, queue depth ");
            number(40);
            break;
        case 6:
            both("Inventory scan: ");
            number(400);
            both(" applications, ");
            number(12);
            both(" updates pending");
            break;
        case 7:
            both("Certificate check passed, expires in ");
            number(365);
            both(" days");
            break;
        case 8: {
            level = "[e]";
            both("Setting TelemetryIntervalMinutes could not be read: error 0x");
            const std::uint64_t code = 0x80070000ULL + rng.Below(0x100);
            AppendHex(raw, code, 8);
            AppendHex(scrubbed, code, 8);
            break;
        }
        case 9: {
            both("Job ");
            const std::uint64_t job = rng.Next() & 0xFFFFFFFFULL;
            AppendHex(raw, job, 8);
            AppendHex(scrubbed, job, 8);
            both(" finished with status ");
            number(3);
            break;
        }
        case 10: both("Plugin Compliance state changed: Idle -> Running"); break;
        case 11:
            level = "[w]";
            both("Retrying upload of ");
            number(2000);
            both(" events in ");
            number(60);
            both(" seconds");
            break;
        case 12:  // quoted values that are no address
            level = "[d]";
            both("Settings snapshot: {\"mode\":\"managed\",\"interval\":\"");
            number(240);
            both("\",\"proxy\":\"none\",\"build\":\"4.12\"}");
            break;
        default:  // quoted, but with a port: not an address alone
            level = "[d]";
            both("Route check \"10.");
            number(256);
            both(".");
            number(256);
            both(".");
            number(256);
            both(":8443\" answered in ");
            number(300);
            both(" ms");
            break;
    }
    return false;
}

// The file's bytes as the agent wrote them, or (`scrubbed`) with the quoted
// addresses redacted on every line that does not mention "version". Both come
// from the same random draws, so one is the other's expected scrub.
std::string LogText(const LogFile& log, bool scrubbed, TextStats* stats = nullptr) {
    Rng rng(log.seed);
    std::string out;
    out.reserve(static_cast<std::size_t>(log.size) + static_cast<std::size_t>(log.size) / 8);
    if (log.archive) {
        out = "PK\x03\x04";
        while (out.size() < log.size) {
            const std::uint64_t word = rng.Next();
            for (int b = 0; b < 8 && out.size() < log.size; ++b) out += static_cast<char>((word >> (b * 8)) & 0xFF);
        }
        return out;
    }

    const std::uint64_t estimatedLines = log.size / 110 + 1;
    std::int64_t seconds = static_cast<std::int64_t>(log.mtime.tv_sec) - static_cast<std::int64_t>(estimatedLines * 5);
    std::uint64_t threads[4];
    for (auto& thread : threads) thread = 1000 + rng.Below(9000);

    std::uint64_t rawSize = 0;
    std::string raw;
    std::string clean;
    std::string level;
    bool first = true;
    constexpr std::uint64_t kLongestLine = 256;
    while (rawSize + kLongestLine <= log.size) {
        raw.clear();
        clean.clear();
        seconds += static_cast<std::int64_t>(rng.Below(10));
        AppendUtc(raw, seconds, static_cast<unsigned>(rng.Below(1000)));
        const std::uint64_t thread = threads[rng.Below(4)];
        bool quoted = false;
        if (first) {
            level = "[i]";
            raw += " [i] [";
            AppendUint(raw, thread, 5);
            raw += "] ";
            clean = raw;
            raw += "Log opened by ZEP service version 4.12.3.0";
            clean += "Log opened by ZEP service version 4.12.3.0";
            first = false;
        } else {
            std::string message;
            std::string messageClean;
            quoted = AppendMessage(rng, message, messageClean, level);
            raw += ' ';
            raw += level;
            raw += " [";
            AppendUint(raw, thread, 5);
            raw += "] ";
            clean = raw;
            raw += message;
            clean += messageClean;
        }
        raw += '\n';
        clean += '\n';
        const bool redacted = quoted && !MentionsVersion(raw);
        out += (scrubbed && redacted) ? clean : raw;
        rawSize += raw.size();
        if (stats) {
            ++stats->lines;
            if (quoted) ++stats->addressLines;
        }
    }
    // The last line fills the file to its exact size.
    if (rawSize < log.size) {
        const std::size_t left = static_cast<std::size_t>(log.size - rawSize);
        std::string last;
        AppendUtc(last, seconds + 1, 0);
        last += " [d] [";
        AppendUint(last, threads[0], 5);
        last += "] Buffered records flushed ";
        if (last.size() + 1 > left) last.clear();
        last.append(left - 1 - last.size(), '.');
        last += '\n';
        out += last;
        if (stats) ++stats->lines;
    }
    return out;
}

// ---- writing the device -----------------------------------------------------

bool WriteFile(const fs::path& file, std::string_view bytes, const timespec* mtime, std::string& error) {
    std::error_code code;
    fs::create_directories(file.parent_path(), code);
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        error = file.string() + ": " + std::strerror(errno);
        return false;
    }
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t written = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (written < 0) {
            if (errno == EINTR) continue;
            error = file.string() + ": " + std::strerror(errno);
            ::close(fd);
            return false;
        }
        done += static_cast<std::size_t>(written);
    }
    if (mtime) {
        const timespec times[2] = {*mtime, *mtime};
        ::futimens(fd, times);
    }
    ::close(fd);
    return true;
}

std::string DeviceJson() {
    return std::string(R"({
  "deviceId": "0B7D3E21-6A4C-4F58-9E12-7C5A3D9B1F60",
  "logicalDeviceId": ")") + kLogicalDeviceId + R"(",
  "agentId": "a51c7e02-3d9f-4b86-8e14-6f2b0c9d7a35",
  "serviceVersion": "4.12.3.0",
  "registered": true,
  "provisioned": true,
  "commercialIntent": true,
  "online": true,
  "loggedInUser": "S-1-5-21-3623811015-3361044348-30300820-1013",
  "certificate": { "present": true, "thumbprint": "4A7F1C9E2B6D8035E1A94C7B02F6D3E85A19C0B7",
                   "notAfter": "2099-01-01T00:00:00Z" },
  "notificationAgent": { "present": true, "mqttEnabled": true, "mqttState": 2,
                         "disconnectExpected": false, "retriesExceeded": false }
}
)";
}

constexpr std::string_view kRegistry =
    "Windows Registry Editor Version 5.00\r\n"
    "\r\n"
    "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP]\r\n"
    "\"InstallDir\"=\"C:\\\\Program Files\\\\Quorin\\\\ZEP\\\\\"\r\n"
    "\"Environment\"=\"production\"\r\n"
    "\"LogLevel\"=dword:00000002\r\n"
    "\r\n"
    "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorin\\ZEP\\DeviceSupport]\r\n"
    "\"TimeoutInSeconds\"=dword:0000003c\r\n"
    "\"certPinningError\"=dword:00000000\r\n"
    "\r\n";

// A database file: SQLite's header, then pages half records, half free space.
std::string Database(std::uint64_t bytes, Rng& rng) {
    std::string db("SQLite format 3", 16);
    std::string record;
    while (db.size() < bytes) {
        const std::size_t pageEnd = std::min<std::size_t>(db.size() + 4096, static_cast<std::size_t>(bytes));
        const std::size_t recordsEnd = db.size() + (pageEnd - db.size()) / 2;
        while (db.size() < recordsEnd) {
            record = "syncpoint|";
            AppendUint(record, rng.Below(1000000));
            record += "|telemetry|";
            AppendHex(record, rng.Next(), 16);
            record += '|';
            AppendUint(record, 1700000000 + rng.Below(30000000));
            db.append(record, 0, std::min(record.size(), recordsEnd - db.size()));
        }
        db.append(pageEnd - db.size(), '\0');
    }
    return db;
}

bool WriteOtherData(const fs::path& data, std::uint64_t count, Rng& rng, std::string& error) {
    static constexpr const char* kPlugins[] = {"VPN", "Inventory", "Compliance", "RemoteAssist", "Patching"};
    std::uint64_t written = 0;
    for (const char* plugin : kPlugins) {
        for (const char* name : {"plugin.json", "state.json"}) {
            if (written == count) return true;
            std::string json = std::string("{\n  \"plugin\": \"") + plugin + "\",\n  \"enabled\": true,\n  \"revision\": ";
            AppendUint(json, rng.Below(500));
            json += "\n}\n";
            if (!WriteFile(data / "Plugins" / plugin / name, json, nullptr, error)) return false;
            ++written;
        }
    }
    for (unsigned i = 0; written < count && i < 20; ++i, ++written) {
        std::string json = "{\n  \"setting\": ";
        AppendUint(json, i);
        json += ",\n  \"value\": \"";
        AppendHex(json, rng.Next(), 16);
        json += "\"\n}\n";
        if (!WriteFile(data / "Config" / ("setting" + std::to_string(i) + ".json"), json, nullptr, error)) {
            return false;
        }
    }
    std::string blob;
    for (; written < count; ++written) {
        std::string bucket;
        AppendHex(bucket, rng.Below(256), 2);
        std::string name;
        AppendHex(name, rng.Next(), 16);
        blob.clear();
        const std::uint64_t size = 256 + rng.Below(32 * kKiB);
        while (blob.size() < size) {
            const std::uint64_t word = rng.Next();
            // Half text, half noise: what a cache of documents and images holds.
            if (word & 1) {
                blob += "cached-response;etag=";
                AppendHex(blob, word, 16);
                blob += '\n';
            } else {
                for (int b = 0; b < 8; ++b) blob += static_cast<char>((word >> (b * 8)) & 0xFF);
            }
        }
        blob.resize(static_cast<std::size_t>(size));
        if (!WriteFile(data / "cache" / bucket / (name + ".bin"), blob, nullptr, error)) return false;
    }
    return true;
}

bool GenerateDevice(const fs::path& dir, const DeviceShape& shape, std::int64_t now, std::vector<LogFile>& logs,
                    std::string& error) {
    std::error_code code;
    if (fs::exists(dir, code) && !fs::is_empty(dir, code)) {
        error = dir.string() + " is not empty";
        return false;
    }
    logs = PlanLogs(shape, now);
    const fs::path data = dir / "programdata";
    fs::create_directories(dir / "temp", code);
    if (!WriteFile(dir / "device.json", DeviceJson(), nullptr, error) ||
        !WriteFile(dir / "registry.reg", kRegistry, nullptr, error)) {
        return false;
    }

    TextStats stats;
    std::uint64_t bytes = 0;
    for (const auto& log : logs) {
        const std::string text = LogText(log, false, &stats);
        if (!WriteFile(data / "Log" / log.rel, text, &log.mtime, error)) return false;
        bytes += text.size();
    }
    Rng rng(shape.seed ^ 0x5EEDDA7AULL);
    if (!WriteFile(data / "DB" / "SyncPoint.sqlite3", Database(shape.dbBytes, rng), nullptr, error)) return false;
    const std::uint64_t others = shape.dataFiles > logs.size() + 1 ? shape.dataFiles - logs.size() - 1 : 0;
    if (!WriteOtherData(data, others, rng, error)) return false;

    std::uint64_t keptBytes = 0;
    const auto order = NewestFirst(logs);
    const std::size_t kept = KeptCount(logs, order, keptBytes);
    std::cout << "Device " << dir.string() << " (seed " << shape.seed << ")\n"
              << "  logs        " << logs.size() << " files, " << Mib(bytes) << " MiB, " << stats.lines
              << " lines, " << (stats.lines ? 100 * stats.addressLines / stats.lines : 0)
              << "% with a quoted address\n"
              << "  newest      " << kept << " logs, " << Mib(keptBytes) << " MiB within the 50 MiB budget\n"
              << "  database    " << Mib(shape.dbBytes) << " MiB\n"
              << "  data root   " << logs.size() + 1 + others << " files\n";
    return true;
}

// ---- reading archives -------------------------------------------------------

struct ZipEntry {
    std::string name;
    std::uint64_t size = 0;
    std::uint32_t crc = 0;
};

struct ZipSummary {
    std::uint64_t zipBytes = 0;
    std::uint64_t entries = 0;
    std::uint64_t logBytes = 0;
    std::vector<ZipEntry> logs;  // files below ZEP/Log/, named relative to it
    std::set<std::string> names;
};

struct ZipCloser {
    void operator()(zip_t* archive) const { zip_discard(archive); }
};

std::unique_ptr<zip_t, ZipCloser> OpenZip(const fs::path& file, std::string& error) {
    int code = 0;
    zip_t* archive = zip_open(file.c_str(), ZIP_RDONLY, &code);
    if (archive == nullptr) {
        zip_error_t details;
        zip_error_init_with_code(&details, code);
        error = file.string() + ": " + zip_error_strerror(&details);
        zip_error_fini(&details);
    }
    return std::unique_ptr<zip_t, ZipCloser>(archive);
}

bool ReadZip(const fs::path& file, ZipSummary& summary, std::string& error) {
    auto archive = OpenZip(file, error);
    if (!archive) return false;
    std::error_code code;
    summary.zipBytes = fs::file_size(file, code);
    const zip_int64_t count = zip_get_num_entries(archive.get(), 0);
    const std::string_view prefix(kLogPrefix);
    for (zip_int64_t i = 0; i < count; ++i) {
        zip_stat_t st;
        zip_stat_init(&st);
        if (zip_stat_index(archive.get(), static_cast<zip_uint64_t>(i), 0, &st) != 0 || st.name == nullptr) continue;
        const std::string name = st.name;
        summary.names.insert(name);
        ++summary.entries;
        if (name.empty() || name.back() == '/' || name.compare(0, prefix.size(), prefix) != 0) continue;
        summary.logs.push_back(ZipEntry{name.substr(prefix.size()), st.size, st.crc});
        summary.logBytes += st.size;
    }
    std::sort(summary.logs.begin(), summary.logs.end(),
              [](const ZipEntry& a, const ZipEntry& b) { return a.name < b.name; });
    return true;
}

bool ReadEntry(const fs::path& file, const std::string& name, std::string& bytes, std::string& error) {
    auto archive = OpenZip(file, error);
    if (!archive) return false;
    zip_stat_t st;
    zip_stat_init(&st);
    if (zip_stat(archive.get(), name.c_str(), 0, &st) != 0) {
        error = name + ": not in " + file.string();
        return false;
    }
    zip_file_t* entry = zip_fopen(archive.get(), name.c_str(), 0);
    if (entry == nullptr) {
        error = name + ": " + zip_strerror(archive.get());
        return false;
    }
    bytes.resize(static_cast<std::size_t>(st.size));
    const zip_int64_t got = zip_fread(entry, bytes.data(), st.size);
    zip_fclose(entry);
    if (got < 0 || static_cast<zip_uint64_t>(got) != st.size) {
        error = name + ": short read";
        return false;
    }
    return true;
}

bool IsModuleLog(const std::string& name) { return name.rfind(kModuleLogName, 0) == 0; }

// ---- the scan ---------------------------------------------------------------

struct ScanOutcome {
    double seconds = 0;
    fs::path zip;  // empty when none was written
};

ScanOutcome RunManualScan(const fs::path& dir) {
    auto hub = std::make_shared<zep::platform::InProcessHub>();
    zep::platform::InstallEnv(zep::platform::MakeDeviceFolderEnv(zep::text::DecodeFileName(dir.native()), hub));
    DiagnosticsManager manager;
    manager.Init(nullptr);

    const auto start = std::chrono::steady_clock::now();
    manager.StartDiagnosticsScan(DiagnosticsManager::kManualScanRequest, std::nullopt);
    manager.WaitForScanToFinish();
    ScanOutcome outcome;
    outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    std::error_code code;
    fs::file_time_type newest{};
    for (fs::directory_iterator it(dir / "programdata" / "diagnostics" / "latest", code), end; !code && it != end;
         it.increment(code)) {
        if (it->path().extension() != ".zip" || !it->is_regular_file(code)) continue;
        const auto written = it->last_write_time(code);
        if (outcome.zip.empty() || written > newest) {
            outcome.zip = it->path();
            newest = written;
        }
    }
    return outcome;
}

// ---- commands ---------------------------------------------------------------

using Args = std::vector<std::string>;

bool ParseCount(const std::string& text, std::uint64_t& value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 15) return false;
    value = std::stoull(text);
    return true;
}

int Usage() {
    std::cerr << "usage: zep_staging_bench generate DIR [--seed N] [--log-mib N] [--log-files N] [--db-mib N]\n"
                 "                                      [--data-files N] [--min-log-kib N]\n"
                 "       zep_staging_bench run DIR [--report FILE]\n"
                 "       zep_staging_bench zipinfo ZIP [--log-list FILE]\n"
                 "       zep_staging_bench extract ZIP ENTRY OUT\n"
                 "       zep_staging_bench check [PARENT]\n";
    return 2;
}

int Generate(const Args& args) {
    if (args.empty()) return Usage();
    DeviceShape shape;
    for (std::size_t i = 1; i < args.size(); i += 2) {
        std::uint64_t value = 0;
        if (i + 1 >= args.size() || !ParseCount(args[i + 1], value)) return Usage();
        if (args[i] == "--seed") {
            shape.seed = value;
        } else if (args[i] == "--log-mib") {
            shape.logBytes = value * kMiB;
        } else if (args[i] == "--log-files") {
            shape.logFiles = value;
        } else if (args[i] == "--db-mib") {
            shape.dbBytes = value * kMiB;
        } else if (args[i] == "--data-files") {
            shape.dataFiles = value;
        } else if (args[i] == "--min-log-kib") {
            shape.minLogFile = value * kKiB;
        } else {
            return Usage();
        }
    }
    if (shape.logFiles < 2 || shape.minLogFile == 0 || shape.logBytes < shape.logFiles * shape.minLogFile) {
        std::cerr << "zep_staging_bench: too little log data for that many files\n";
        return 2;
    }
    std::vector<LogFile> logs;
    std::string error;
    const auto now = static_cast<std::int64_t>(std::time(nullptr));
    if (!GenerateDevice(args[0], shape, now, logs, error)) {
        std::cerr << "zep_staging_bench: " << error << '\n';
        return 1;
    }
    return 0;
}

long PeakResidentKib() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

int Run(const Args& args) {
    if (args.empty() || (args.size() != 1 && args.size() != 3) || (args.size() == 3 && args[1] != "--report")) {
        return Usage();
    }
    const fs::path dir = fs::absolute(args[0]).lexically_normal();
    if (!fs::is_regular_file(dir / "device.json")) {
        std::cerr << "zep_staging_bench: " << dir.string() << " holds no generated device\n";
        return 2;
    }
    const ScanOutcome scan = RunManualScan(dir);
    const long peakKib = PeakResidentKib();
    if (scan.zip.empty()) {
        std::cerr << "zep_staging_bench: the scan wrote no archive (" << scan.seconds << " s)\n";
        return 1;
    }
    ZipSummary zip;
    std::string error;
    if (!ReadZip(scan.zip, zip, error)) {
        std::cerr << "zep_staging_bench: " << error << '\n';
        return 1;
    }
    const double logMib = static_cast<double>(zip.logBytes) / static_cast<double>(kMiB);
    char line[256];
    std::snprintf(line, sizeof line,
                  "manual scan     %.2f s\n"
                  "logs kept       %.1f MiB in %zu files, %.1f MiB/s\n"
                  "archive         %.1f MiB, %llu entries\n"
                  "peak resident   %.1f MiB\n",
                  scan.seconds, logMib, zip.logs.size(), scan.seconds > 0 ? logMib / scan.seconds : 0.0,
                  static_cast<double>(zip.zipBytes) / static_cast<double>(kMiB),
                  static_cast<unsigned long long>(zip.entries), static_cast<double>(peakKib) / 1024.0);
    std::cout << "archive         " << scan.zip.string() << '\n' << line;
    if (args.size() == 3) {
        std::ofstream report(args[2]);
        report << "wall_s=" << scan.seconds << "\nlog_bytes=" << zip.logBytes << "\nlog_files=" << zip.logs.size()
               << "\nzip_bytes=" << zip.zipBytes << "\npeak_rss_kib=" << peakKib << "\nzip=" << scan.zip.string()
               << '\n';
        if (!report) {
            std::cerr << "zep_staging_bench: cannot write " << args[2] << '\n';
            return 1;
        }
    }
    return 0;
}

int ZipInfo(const Args& args) {
    if (args.empty() || (args.size() != 1 && args.size() != 3) || (args.size() == 3 && args[1] != "--log-list")) {
        return Usage();
    }
    ZipSummary zip;
    std::string error;
    if (!ReadZip(args[0], zip, error)) {
        std::cerr << "zep_staging_bench: " << error << '\n';
        return 1;
    }
    std::cout << "log_bytes=" << zip.logBytes << "\nlog_files=" << zip.logs.size() << "\nzip_bytes=" << zip.zipBytes
              << "\nentries=" << zip.entries << '\n';
    if (args.size() == 3) {
        std::ofstream list(args[2]);
        char crc[12];
        for (const auto& entry : zip.logs) {
            std::snprintf(crc, sizeof crc, "%08x", static_cast<unsigned>(entry.crc));
            list << entry.name << '\t' << entry.size << '\t' << crc << '\n';
        }
        if (!list) {
            std::cerr << "zep_staging_bench: cannot write " << args[2] << '\n';
            return 1;
        }
    }
    return 0;
}

int Extract(const Args& args) {
    if (args.size() != 3) return Usage();
    std::string bytes;
    std::string error;
    if (!ReadEntry(args[0], args[1], bytes, error) || !WriteFile(args[2], bytes, nullptr, error)) {
        std::cerr << "zep_staging_bench: " << error << '\n';
        return 1;
    }
    return 0;
}

// A device just over the log budget, scanned; the archive is held against
// what the generator knows: which logs are the newest within the budget and
// what each must read like after the scrub. The device is made in a new
// folder below PARENT, and left there only when something is wrong.
int Check(const Args& args) {
    if (args.size() > 1) return Usage();
    DeviceShape shape;
    shape.seed = 7;
    shape.logBytes = 60 * kMiB;
    shape.logFiles = 90;
    shape.dbBytes = 2 * kMiB;
    shape.dataFiles = 200;
    std::string pattern = (fs::absolute(args.empty() ? fs::temp_directory_path() : fs::path(args[0])) /
                           "zep-staging-check-XXXXXX").lexically_normal().string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        std::cerr << "zep_staging_bench: cannot create " << pattern << ": " << std::strerror(errno) << '\n';
        return 1;
    }
    const fs::path dir = pattern;
    std::vector<LogFile> logs;
    std::string error;
    if (!GenerateDevice(dir, shape, static_cast<std::int64_t>(std::time(nullptr)), logs, error)) {
        std::cerr << "zep_staging_bench: " << error << '\n';
        return 1;
    }
    const ScanOutcome scan = RunManualScan(dir);
    int failures = 0;
    const auto expect = [&](bool ok, const std::string& what) {
        if (!ok) {
            ++failures;
            std::cout << "FAIL " << what << '\n';
        }
        return ok;
    };
    ZipSummary zip;
    if (!expect(!scan.zip.empty(), "the scan wrote an archive") || !expect(ReadZip(scan.zip, zip, error), error)) {
        return 1;
    }

    std::map<std::string, const LogFile*> expected;
    const auto order = NewestFirst(logs);
    std::uint64_t total = 0;
    const std::size_t kept = KeptCount(logs, order, total);
    expect(kept > 0 && kept < order.size(), "the device's logs exceed the budget");
    for (std::size_t k = 0; k < kept; ++k) expected[logs[order[k]].rel] = &logs[order[k]];

    bool moduleLog = false;
    for (const auto& entry : zip.logs) {
        if (IsModuleLog(entry.name)) {
            moduleLog = true;
            continue;
        }
        const auto found = expected.find(entry.name);
        if (!expect(found != expected.end(), "Log/" + entry.name + " is one of the newest logs")) continue;
        const bool direct = entry.name.find('/') == std::string::npos;
        std::string bytes;
        if (expect(ReadEntry(scan.zip, kLogPrefix + entry.name, bytes, error), error)) {
            expect(bytes == LogText(*found->second, direct),
                   "Log/" + entry.name + (direct ? " is scrubbed exactly" : " is copied unchanged"));
        }
        expected.erase(found);
    }
    for (const auto& missing : expected) expect(false, "Log/" + missing.first + " is in the archive");
    expect(moduleLog, "the module's own log is in the archive");

    for (const char* name : {"ZEP/context/zep_programdata_files.txt", "ZEP/context/SyncPoint_sqlite3.dat",
                             "ZEP/context/zepVersion.txt", "ZEP/component-result.json", "scan-result.json"}) {
        expect(zip.names.count(name) != 0, std::string(name) + " is in the archive");
    }
    std::string listing;
    if (ReadEntry(scan.zip, "ZEP/context/zep_programdata_files.txt", listing, error)) {
        expect(static_cast<std::uint64_t>(std::count(listing.begin(), listing.end(), '\n')) >= shape.dataFiles,
               "the listing names every generated file");
    }
    std::string database;
    if (ReadEntry(scan.zip, "ZEP/context/SyncPoint_sqlite3.dat", database, error)) {
        expect(database.size() == shape.dbBytes, "the database is copied whole");
    }
    std::error_code code;
    const std::string stagingName = scan.zip.stem().string();
    expect(!fs::exists(scan.zip.parent_path() / stagingName, code), "the staging folder is gone");
    expect(!fs::exists(dir / "temp" / "Quorin" / "Zep" / stagingName.substr(std::strlen(kLogicalDeviceId) + 1), code),
           "the scan's temp folder is gone");

    std::cout << (failures == 0 ? "PASS" : "FAILED") << ": " << zip.logs.size() << " logs in the archive, "
              << Mib(zip.logBytes) << " MiB, scan " << scan.seconds << " s\n";
    if (failures != 0) {
        std::cout << "The device is left in " << dir.string() << '\n';
        return 1;
    }
    fs::remove_all(dir, code);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return Usage();
    const std::string command = argv[1];
    const Args args(argv + 2, argv + argc);
    try {
        if (command == "generate") return Generate(args);
        if (command == "run") return Run(args);
        if (command == "zipinfo") return ZipInfo(args);
        if (command == "extract") return Extract(args);
        if (command == "check") return Check(args);
    } catch (const std::exception& ex) {
        std::cerr << "zep_staging_bench: " << ex.what() << '\n';
        return 1;
    }
    return Usage();
}
