// Finding what a scan left in a device folder (its scan result and zip) and
// printing it for people.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <json/json.h>

namespace zepdiag {

// programdata/diagnostics/latest/scan-result.json as it was at one moment. A
// scan rewrites the file; comparing two snapshots tells whether one ran.
struct ResultSnapshot {
    bool exists = false;
    std::filesystem::file_time_type modified{};
    std::string content;
};

std::filesystem::path ScanResultPath(const std::filesystem::path& deviceDir);
ResultSnapshot SnapshotScanResult(const std::filesystem::path& deviceDir);

// The scan result when it exists and differs from `before` (in time or
// content): the one a scan since `before` wrote. Empty otherwise.
std::optional<std::filesystem::path> ScanResultWrittenSince(const std::filesystem::path& deviceDir,
                                                            const ResultSnapshot& before);

// The zip of scan `scanId` in programdata/diagnostics/latest/
// (<logical device id>_<scan id>.zip). Empty when there is none.
std::optional<std::filesystem::path> FindScanZip(const std::filesystem::path& deviceDir, const std::string& scanId);

// A zip's size and entry names. `error` is set (and `entries` empty) when the
// archive cannot be read.
struct ZipListing {
    std::filesystem::path path;
    std::uintmax_t size = 0;
    std::vector<std::string> entries;
    std::string error;
};
ZipListing ReadZipListing(const std::filesystem::path& zip);

// Pure formatting, one block of lines each, labels aligned with the rest of
// the summary. Missing fields read "not produced".
std::string HumanSize(std::uintmax_t bytes);                  // "512 B", "1.5 KiB", "3.2 MiB"
std::string FormatTestTable(const Json::Value& component);    // the component's "Tests:" line and table
std::string FormatComponent(const Json::Value& component);    // name, result type, time, tests
std::string FormatScanResult(const Json::Value& scanResult);  // trigger .. signature, then the components
std::string FormatZipListing(const ZipListing& zip);          // path, size, entries (at most 60 named)

// Everything above for one run: `resultFile` is this run's scan result, if
// any; `trigger` is what was asked for, shown when there is no result.
void PrintScanSummary(std::ostream& out, const std::filesystem::path& deviceDir, const std::string& trigger,
                      const std::optional<std::filesystem::path>& resultFile);

// The module's log in the device folder.
std::filesystem::path ModuleLogPath(const std::filesystem::path& deviceDir);

}  // namespace zepdiag
