// Finding what a scan left in a device folder (its scan result and zip) and
// printing it for people.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include <json/json.h>

namespace zepdiag {

// A file as it was at one moment. A scan rewrites its result and appends to
// the history and logs; comparing two snapshots tells what a run changed.
struct FileSnapshot {
    bool exists = false;
    std::filesystem::file_time_type modified{};
    std::string content;
};
using ResultSnapshot = FileSnapshot;

FileSnapshot SnapshotFile(const std::filesystem::path& path);
// A history file's snapshot: only its tail, what the module itself reads.
FileSnapshot SnapshotHistory(const std::filesystem::path& path);
// True when the file exists now and differs from `before` in time or content.
bool WrittenSince(const FileSnapshot& before, const FileSnapshot& now);
// The lines added to an append-only file since `before`; all of its lines
// when it was replaced (its old content is no longer at its start).
std::vector<std::string> LinesAddedSince(const FileSnapshot& before, const FileSnapshot& now);

// A JSON document's object; empty when the file cannot be read or parsed.
std::optional<Json::Value> ReadJsonFile(const std::filesystem::path& path);
// The file's last non-empty line, when it has one.
std::optional<std::string> LastLineOf(const FileSnapshot& file);

// programdata/diagnostics/latest/scan-result.json.
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

// ---- uploads, scan history and critical events -----------------------------------

std::filesystem::path ScanHistoryPath(const std::filesystem::path& deviceDir);  // programdata/diagnostics/scan-history.log
std::filesystem::path OutboxPath(const std::filesystem::path& deviceDir);       // outbox/ (the storage agent's copies)
std::filesystem::path EventsLogPath(const std::filesystem::path& deviceDir);    // events.log

// Everything a run may add beside the scan result.
struct ActivitySnapshot {
    std::set<std::string> outboxEntries;
    FileSnapshot failedLog;  // outbox/failed.log
    FileSnapshot history;
    FileSnapshot events;
};
ActivitySnapshot SnapshotActivity(const std::filesystem::path& deviceDir);

// One numbered outbox folder: what the storage agent received.
struct OutboxUpload {
    std::filesystem::path folder;
    std::string file;  // the uploaded file's name ("" when the folder holds none)
    std::uintmax_t size = 0;
    bool metadata = false;  // <file>.metadata.json lies beside it
    // The plug-in whose zip it is: its metadata describes that one component
    // and the file is named <device id>_<plug-in id>.zip. Empty otherwise.
    std::string pluginId;
};
OutboxUpload ReadOutboxFolder(const std::filesystem::path& folder);

// What an upload was, told by its names.
enum class UploadType { ScanZip, ScanResult, PluginZip, Other };
UploadType TypeOf(const OutboxUpload& upload);

// A line of outbox/failed.log, "time,file,code" (the file name may hold
// commas); empty when the line has another shape.
struct FailedUpload {
    std::string time, file, code;
};
std::optional<FailedUpload> ParseFailedUpload(const std::string& line);

// What a run added since `before`. The history line is the file's last line
// when the run changed the file.
struct RunActivity {
    std::vector<OutboxUpload> uploads;
    std::vector<std::string> failedUploads;  // lines of outbox/failed.log: time,file,code
    std::optional<std::string> historyLine;
    std::vector<std::string> events;  // lines of events.log
};
RunActivity ActivitySince(const std::filesystem::path& deviceDir, const ActivitySnapshot& before);

// The history file's lines, oldest first; empty when there is no file.
std::vector<std::string> ReadScanHistory(const std::filesystem::path& deviceDir);
std::optional<std::string> LastHistoryLine(const std::filesystem::path& deviceDir);

// A history line's six fields (time, trigger, upload status, artifact status,
// failed tests, signature); empty when the line has another shape.
std::vector<std::string> HistoryFields(const std::string& line);
// Plug-in lines carry "" for the signature they do not have.
bool IsNoSignature(const std::string& signature);
// "0 uploaded", "1 not uploaded (error)", "2 offline, upload deferred".
std::string UploadStatusText(const std::string& status);

std::string FormatUploads(const std::filesystem::path& deviceDir, const RunActivity& activity);
// The line and its fields explained; `absent` stands in for no line.
std::string FormatHistoryLine(const std::string& label, const std::optional<std::string>& line,
                              const std::string& absent);
std::string FormatEvents(const RunActivity& activity);
// All three, for a scan's summary.
std::string FormatActivity(const std::filesystem::path& deviceDir, const RunActivity& activity);
// The whole history as a table, newest last, or "no history yet".
std::string FormatHistoryTable(const std::vector<std::string>& lines);

// ---- plug-ins ---------------------------------------------------------------------

// The targets of a getDiagnostics payload that the module hands to plug-ins:
// every target but "zep", lower-cased and each once, in the module's order.
// None when the payload names no target list.
std::vector<std::string> PluginTargets(const std::string& payload);
// Whether the payload asks for the agent's own scan ("zep", also by default).
bool NamesAgent(const std::string& payload);

// A plug-in diagnostics folder: scan-history.log, latest/scan-result.json and
// latest/<device id>_<plug-in id>.zip.
std::filesystem::path PluginHistoryPath(const std::filesystem::path& diagFolder);
std::filesystem::path PluginScanResultPath(const std::filesystem::path& diagFolder);
std::optional<std::filesystem::path> FindPluginZip(const std::filesystem::path& diagFolder,
                                                   const std::string& pluginId);

// One running instance of a plug-in a request names.
struct PluginInstance {
    std::string elevation;           // "elevated", "user", "none"
    std::filesystem::path folder;    // empty when the module has no folder for it
    FileSnapshot history;            // its scan-history.log before the run
};

// A plug-in target with the instances the module asks; no plug-in id when the
// target names no plug-in with a running instance here.
struct PluginTarget {
    std::string target;
    std::string pluginId;
    std::vector<PluginInstance> instances;
};

// Moves the uploads (and failed uploads) of plug-in `pluginId` out of
// `activity` into the result.
RunActivity TakePluginActivity(RunActivity& activity, const std::string& pluginId);

std::string FormatPluginScanResult(const Json::Value& scanResult);  // the facts, not the component
// One instance: its folder, and when this run wrote its history, the result,
// component, zip and history line.
std::string FormatPluginInstance(const PluginInstance& instance, const std::string& pluginId);
// A target: the plug-in, each instance, then the uploads of the run.
std::string FormatPluginTarget(const std::filesystem::path& deviceDir, const PluginTarget& target,
                               const RunActivity& uploads);
// The history of a plug-in folder before and after a run, when it changed.
std::string FormatPluginHistoryChange(const std::filesystem::path& diagFolder, const FileSnapshot& before);

}  // namespace zepdiag
