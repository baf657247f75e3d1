#include "Summary.h"

#include <algorithm>
#include <iomanip>
#include <iterator>
#include <memory>
#include <sstream>
#include <system_error>

#include <zip.h>

#include "platform/device/DeviceFolder.h"
#include "platform/util/JsonText.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "results/HistoryFile.h"

namespace zepdiag {
namespace {

namespace fs = std::filesystem;

constexpr const char* kNotProduced = "not produced";
constexpr std::size_t kValueColumn = 19;  // fits "Problem signature: "
constexpr std::size_t kListedEntries = 60;

// "label:" padded so that every value starts in the same column, whatever
// the indentation.
std::string Field(const std::string& label, const std::string& value, std::size_t indent = 0) {
    const std::size_t used = indent + label.size() + 1;
    const std::size_t pad = used < kValueColumn ? kValueColumn - used : 1;
    return std::string(indent, ' ') + label + ':' + std::string(pad, ' ') + value + '\n';
}

std::string TextOf(const Json::Value& object, const char* key) {
    if (!object.isObject()) return kNotProduced;
    const Json::Value& value = object[key];
    if (value.isNull()) return kNotProduced;
    if (value.isString() || value.isBool() || value.isNumeric()) return value.asString();
    return "(not a text)";
}

std::string Seconds(const Json::Value& object, const char* key) {
    const std::string text = TextOf(object, key);
    return text == kNotProduced ? text : text + " s";
}

struct Row {
    std::string name, expected, actual, verdict;
};

// The module's own verdict; anything else is shown as it is, so that a
// malformed result stands out instead of passing silently.
std::string Verdict(const Json::Value& test) {
    const std::string result = TextOf(test, "result");
    if (result == "pass") return "PASS";
    if (result == "fail") return "FAIL";
    return result;
}

std::string TableLines(const std::vector<Row>& rows, std::size_t indent) {
    const Row header{"TEST", "EXPECTED", "ACTUAL", "RESULT"};
    std::size_t w[3] = {header.name.size(), header.expected.size(), header.actual.size()};
    for (const auto& row : rows) {
        w[0] = std::max(w[0], row.name.size());
        w[1] = std::max(w[1], row.expected.size());
        w[2] = std::max(w[2], row.actual.size());
    }
    std::string text;
    auto line = [&](const Row& row) {
        text += std::string(indent, ' ') + row.name + std::string(w[0] - row.name.size() + 2, ' ') + row.expected +
                std::string(w[1] - row.expected.size() + 2, ' ') + row.actual +
                std::string(w[2] - row.actual.size() + 2, ' ') + row.verdict + '\n';
    };
    line(header);
    for (const auto& row : rows) line(row);
    return text;
}

fs::path LatestFolder(const fs::path& deviceDir) { return deviceDir / "programdata" / "diagnostics" / "latest"; }

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string ZipErrorText(int code) {
    zip_error_t error;
    zip_error_init_with_code(&error, code);
    std::string text = zip_error_strerror(&error);
    zip_error_fini(&error);
    return text;
}

std::string ExistingOrNotProduced(const std::optional<fs::path>& path) {
    std::error_code code;
    return path && fs::exists(*path, code) ? path->string() : std::string(kNotProduced);
}

// Lines without their line feed (and a carriage return before it); a final
// line feed adds no empty line, blank lines are dropped.
std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) lines.push_back(std::move(line));
    }
    return lines;
}

// Cut at every comma, empty fields included ("a,,b," has four).
std::vector<std::string> SplitCommas(const std::string& line) {
    std::vector<std::string> fields;
    std::size_t begin = 0;
    for (;;) {
        const std::size_t comma = line.find(',', begin);
        fields.push_back(line.substr(begin, comma == std::string::npos ? std::string::npos : comma - begin));
        if (comma == std::string::npos) return fields;
        begin = comma + 1;
    }
}

bool IsOutboxFolderName(const std::string& name) {
    return !name.empty() && name.find_first_not_of("0123456789") == std::string::npos;
}

std::string UploadKind(const OutboxUpload& upload) {
    switch (TypeOf(upload)) {
        case UploadType::PluginZip: return "the zip of plug-in " + upload.pluginId;
        case UploadType::ScanResult: return "the scan result only";
        case UploadType::ScanZip: return "the scan's zip";
        case UploadType::Other: break;
    }
    return "a file";
}

// A plug-in's upload metadata embeds its own scan result, which holds its
// one component; the agent's holds all of its scan's.
std::string PluginOfUpload(const fs::path& metadataFile, const std::string& file) {
    const std::optional<Json::Value> metadata = ReadJsonFile(metadataFile);
    if (!metadata || !(*metadata)["context"].isObject()) return "";
    const Json::Value& components = (*metadata)["context"]["components"];
    if (!components.isArray() || components.size() != 1 || !components[0].isObject() ||
        !components[0]["componentId"].isString()) {
        return "";
    }
    const std::string id = components[0]["componentId"].asString();
    return !id.empty() && EndsWith(file, "_" + id + ".zip") ? id : "";
}

// The newest regular file in `folder` whose name ends with `suffix`.
std::optional<fs::path> NewestEndingWith(const fs::path& folder, const std::string& suffix) {
    std::optional<fs::path> found;
    fs::file_time_type foundTime{};
    std::error_code code;
    for (fs::directory_iterator it(folder, code), end; !code && it != end; it.increment(code)) {
        std::error_code fileCode;
        if (!EndsWith(zep::path::NarrowPath(it->path().filename()), suffix) || !it->is_regular_file(fileCode)) {
            continue;
        }
        const auto modified = it->last_write_time(fileCode);
        if (!found || modified > foundTime) {
            found = it->path();
            foundTime = modified;
        }
    }
    return found;
}

// "cmd_param" of a getDiagnostics payload, or null.
Json::Value CommandParameters(const std::string& payload) {
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    try {
        if (!reader->parse(payload.data(), payload.data() + payload.size(), &root, &errors)) return Json::Value();
    } catch (...) {
        return Json::Value();
    }
    const Json::Value* level = &root;
    for (const char* key : {"zep-message", "action", "cmd_param"}) {
        if (!level->isObject()) return Json::Value();
        level = &(*level)[key];
    }
    return level->isObject() ? *level : Json::Value();
}

// The request's targets as the module reads them; none when it has no list
// (the module then scans "zep" only).
std::optional<std::set<std::string>> RequestTargets(const std::string& payload) {
    const Json::Value parameters = CommandParameters(payload);
    if (!parameters.isObject() || !parameters["target"].isArray()) return std::nullopt;
    std::set<std::string> targets;
    for (const auto& target : parameters["target"]) {
        if (!target.isString()) continue;
        targets.insert(zep::text::ToUtf8(zep::text::Lower(zep::text::FromUtf8(target.asString()))));
    }
    return targets;
}

// A value that may span lines, continued in the value column.
std::string Continued(const std::string& text) {
    std::string out;
    for (const char c : text) {
        out += c;
        if (c == '\n') out += std::string(kValueColumn, ' ');
    }
    return out;
}

std::string ShortSignature(const std::string& signature) {
    constexpr std::size_t kShown = 16;
    if (IsNoSignature(signature)) return "none";
    return signature.size() > kShown ? signature.substr(0, kShown) + "\u2026" : signature;
}

// What zepdiag reads of a device is read as the module reads it: bounded,
// never through a link, never a FIFO.
constexpr std::uint64_t kMaxDocumentBytes = 16u * 1024 * 1024;
constexpr std::uint64_t kMaxSnapshotBytes = 64u * 1024 * 1024;

std::wstring WideOf(const fs::path& path) { return zep::path::FromFs(path); }

}  // namespace

std::optional<Json::Value> ReadJsonFile(const fs::path& path) {
    std::string text;
    if (!zep::platform::ReadDeviceFile(WideOf(path), kMaxDocumentBytes, text)) return std::nullopt;
    return zep::json::ParseObject(text);
}

std::optional<std::string> LastLineOf(const FileSnapshot& file) {
    std::vector<std::string> lines = file.exists ? SplitLines(file.content) : std::vector<std::string>{};
    if (lines.empty()) return std::nullopt;
    return std::move(lines.back());
}

bool IsNoSignature(const std::string& signature) { return signature.empty() || signature == "\"\""; }

UploadType TypeOf(const OutboxUpload& upload) {
    if (!upload.pluginId.empty()) return UploadType::PluginZip;
    if (upload.file == "scan-result.json") return UploadType::ScanResult;
    if (EndsWith(upload.file, ".zip")) return UploadType::ScanZip;
    return UploadType::Other;
}

std::optional<FailedUpload> ParseFailedUpload(const std::string& line) {
    const std::size_t first = line.find(',');
    const std::size_t last = line.rfind(',');
    if (first == std::string::npos || first == last) return std::nullopt;
    return FailedUpload{line.substr(0, first), line.substr(first + 1, last - first - 1), line.substr(last + 1)};
}

fs::path ScanResultPath(const fs::path& deviceDir) { return LatestFolder(deviceDir) / "scan-result.json"; }

FileSnapshot SnapshotFile(const fs::path& path) {
    FileSnapshot snapshot;
    std::error_code code;
    if (!fs::is_regular_file(path, code)) return snapshot;
    snapshot.modified = fs::last_write_time(path, code);
    if (code || !zep::platform::ReadDeviceFile(WideOf(path), kMaxSnapshotBytes, snapshot.content)) return snapshot;
    snapshot.exists = true;
    return snapshot;
}

FileSnapshot SnapshotHistory(const fs::path& path) {
    FileSnapshot snapshot;
    std::error_code code;
    if (!fs::is_regular_file(path, code)) return snapshot;
    snapshot.modified = fs::last_write_time(path, code);
    if (code || !zep::platform::ReadDeviceFileTail(WideOf(path), zep::results::kHistoryReadBytes, snapshot.content)) {
        return snapshot;
    }
    snapshot.exists = true;
    return snapshot;
}

bool WrittenSince(const FileSnapshot& before, const FileSnapshot& now) {
    if (!now.exists) return false;
    // The time alone can miss a rewrite within the file system's clock
    // granularity; the content alone misses nothing a reader would notice.
    return !before.exists || now.modified != before.modified || now.content != before.content;
}

std::vector<std::string> LinesAddedSince(const FileSnapshot& before, const FileSnapshot& now) {
    if (!now.exists) return {};
    const bool appended = before.exists && now.content.compare(0, before.content.size(), before.content) == 0;
    return SplitLines(appended ? now.content.substr(before.content.size()) : now.content);
}

ResultSnapshot SnapshotScanResult(const fs::path& deviceDir) { return SnapshotFile(ScanResultPath(deviceDir)); }

std::optional<fs::path> ScanResultWrittenSince(const fs::path& deviceDir, const ResultSnapshot& before) {
    if (!WrittenSince(before, SnapshotScanResult(deviceDir))) return std::nullopt;
    return ScanResultPath(deviceDir);
}

std::optional<fs::path> FindScanZip(const fs::path& deviceDir, const std::string& scanId) {
    if (scanId.empty()) return std::nullopt;
    // The module sanitises the name; the latest folder holds one scan's zip.
    if (auto zip = NewestEndingWith(LatestFolder(deviceDir), "_" + scanId + ".zip")) return zip;
    return NewestEndingWith(LatestFolder(deviceDir), ".zip");
}

ZipListing ReadZipListing(const fs::path& zipPath) {
    ZipListing listing;
    listing.path = zipPath;
    std::error_code code;
    listing.size = fs::file_size(zipPath, code);
    if (code) listing.size = 0;

    int openError = 0;
    zip_t* archive = zip_open(zep::path::NarrowPath(zipPath).c_str(), ZIP_RDONLY, &openError);
    if (archive == nullptr) {
        listing.error = ZipErrorText(openError);
        return listing;
    }
    const zip_int64_t count = zip_get_num_entries(archive, 0);
    for (zip_int64_t i = 0; i < count; ++i) {
        const char* name = zip_get_name(archive, static_cast<zip_uint64_t>(i), ZIP_FL_ENC_GUESS);
        listing.entries.emplace_back(name != nullptr ? name : "(unnamed)");
    }
    zip_discard(archive);  // read only: nothing to write back
    return listing;
}

std::string HumanSize(std::uintmax_t bytes) {
    if (bytes < 1024) return std::to_string(bytes) + " B";
    static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
    double value = static_cast<double>(bytes) / 1024.0;
    std::size_t unit = 0;
    // 1023.95 and up would print as "1024.0" of the smaller unit.
    while (value >= 1023.95 && unit + 1 < std::size(kUnits)) {
        value /= 1024.0;
        ++unit;
    }
    std::ostringstream text;
    text << std::fixed << std::setprecision(1) << value << ' ' << kUnits[unit];
    return text.str();
}

std::string FormatTestTable(const Json::Value& component) {
    const Json::Value& tests = component.isObject() ? component["tests"] : Json::Value::nullSingleton();
    if (!tests.isArray()) return Field("Tests", kNotProduced, 2);

    std::vector<Row> rows;
    std::size_t failed = 0;
    for (const auto& test : tests) {
        if (!test.isObject()) continue;
        rows.push_back(Row{TextOf(test, "friendlyName"), TextOf(test, "expected"), TextOf(test, "actual"),
                           Verdict(test)});
        if (rows.back().verdict == "FAIL") ++failed;
    }
    if (rows.empty()) return Field("Tests", "none (this component has no tests)", 2);
    return Field("Tests", std::to_string(failed) + " of " + std::to_string(rows.size()) + " failed", 2) +
           TableLines(rows, 4);
}

std::string FormatComponent(const Json::Value& component) {
    return Field("Component", TextOf(component, "friendlyName") + " (" + TextOf(component, "componentId") + ")") +
           Field("Result type", TextOf(component, "resultType"), 2) +
           Field("Execution time", Seconds(component, "executionTimeSeconds"), 2) + FormatTestTable(component);
}

std::string FormatScanResult(const Json::Value& scanResult) {
    std::string signature = TextOf(scanResult, "problemSignature");
    if (signature.empty()) signature = "none";
    std::string text = Field("Trigger", TextOf(scanResult, "trigger")) + Field("Scan id", TextOf(scanResult, "id")) +
                       Field("Device id", TextOf(scanResult, "deviceId")) +
                       Field("Completed at", TextOf(scanResult, "deviceTimeCompletedAt")) +
                       Field("Execution time", Seconds(scanResult, "executionTimeSeconds")) +
                       Field("Failed tests", TextOf(scanResult, "failTestCount")) +
                       Field("Problem signature", signature);

    const Json::Value& components = scanResult.isObject() ? scanResult["components"] : Json::Value::nullSingleton();
    if (!components.isArray()) return text + Field("Components", kNotProduced);
    if (components.empty()) return text + Field("Components", "none");
    for (const auto& component : components) text += '\n' + FormatComponent(component);
    return text;
}

std::string FormatZipListing(const ZipListing& listing) {
    const auto& entries = listing.entries;
    std::string text = Field("Zip", zep::path::NarrowPath(listing.path)) +
                       Field("Zip size", std::to_string(listing.size) + " bytes (" + HumanSize(listing.size) + ")");
    if (!listing.error.empty()) return text + Field("Zip entries", "unreadable (" + listing.error + ")");
    text += Field("Zip entries", std::to_string(entries.size()));
    const std::size_t shown = std::min(entries.size(), kListedEntries);
    for (std::size_t i = 0; i < shown; ++i) text += "  " + entries[i] + '\n';
    if (entries.size() > shown) text += "  ... " + std::to_string(entries.size() - shown) + " more\n";
    return text;
}

fs::path ModuleLogPath(const fs::path& deviceDir) { return deviceDir / "programdata" / "Log" / "ZEPDiagnostics.log"; }

void PrintScanSummary(std::ostream& out, const fs::path& deviceDir, const std::string& trigger,
                      const std::optional<fs::path>& resultFile) {
    out << Field("Device folder", zep::path::NarrowPath(deviceDir));

    const std::optional<Json::Value> result = resultFile ? ReadJsonFile(*resultFile) : std::nullopt;
    if (result) {
        out << FormatScanResult(*result);
    } else {
        out << Field("Trigger", trigger) << Field("Scan result", resultFile ? "unreadable" : kNotProduced);
    }

    out << '\n';
    const std::optional<fs::path> zipPath =
        result && (*result)["id"].isString() ? FindScanZip(deviceDir, (*result)["id"].asString()) : std::nullopt;
    out << (zipPath ? FormatZipListing(ReadZipListing(*zipPath)) : Field("Zip", kNotProduced));

    out << Field("Result file", ExistingOrNotProduced(resultFile))
        << Field("Module log", ExistingOrNotProduced(ModuleLogPath(deviceDir)));
}


fs::path ScanHistoryPath(const fs::path& deviceDir) {
    return deviceDir / "programdata" / "diagnostics" / "scan-history.log";
}
fs::path OutboxPath(const fs::path& deviceDir) { return deviceDir / "outbox"; }
fs::path EventsLogPath(const fs::path& deviceDir) { return deviceDir / "events.log"; }

ActivitySnapshot SnapshotActivity(const fs::path& deviceDir) {
    ActivitySnapshot snapshot;
    std::error_code code;
    for (fs::directory_iterator it(OutboxPath(deviceDir), code), end; !code && it != end; it.increment(code)) {
        snapshot.outboxEntries.insert(zep::path::NarrowPath(it->path().filename()));
    }
    snapshot.failedLog = SnapshotFile(OutboxPath(deviceDir) / "failed.log");
    snapshot.history = SnapshotHistory(ScanHistoryPath(deviceDir));
    snapshot.events = SnapshotFile(EventsLogPath(deviceDir));
    return snapshot;
}

OutboxUpload ReadOutboxFolder(const fs::path& folder) {
    OutboxUpload upload;
    upload.folder = folder;
    // upload.json names the file; without it, the one file that is neither
    // the record nor a metadata document.
    if (const std::optional<Json::Value> record = ReadJsonFile(folder / "upload.json");
        record && (*record)["file"].isString()) {
        upload.file = (*record)["file"].asString();
    } else {
        std::error_code code;
        for (fs::directory_iterator it(folder, code), end; !code && it != end; it.increment(code)) {
            const std::string name = zep::path::NarrowPath(it->path().filename());
            if (name != "upload.json" && !EndsWith(name, ".metadata.json")) upload.file = name;
        }
    }
    if (upload.file.empty()) return upload;
    std::error_code code;
    upload.size = fs::file_size(folder / upload.file, code);
    if (code) upload.size = 0;
    upload.metadata = fs::is_regular_file(folder / (upload.file + ".metadata.json"), code);
    if (upload.metadata) upload.pluginId = PluginOfUpload(folder / (upload.file + ".metadata.json"), upload.file);
    return upload;
}

RunActivity ActivitySince(const fs::path& deviceDir, const ActivitySnapshot& before) {
    RunActivity activity;
    std::vector<std::string> added;
    std::error_code code;
    for (fs::directory_iterator it(OutboxPath(deviceDir), code), end; !code && it != end; it.increment(code)) {
        const std::string name = zep::path::NarrowPath(it->path().filename());
        std::error_code kind;
        if (IsOutboxFolderName(name) && it->is_directory(kind) && before.outboxEntries.count(name) == 0) {
            added.push_back(name);
        }
    }
    // In upload order: by number, whatever the width.
    std::sort(added.begin(), added.end(), [](const std::string& a, const std::string& b) {
        return a.size() != b.size() ? a.size() < b.size() : a < b;
    });
    for (const auto& name : added) activity.uploads.push_back(ReadOutboxFolder(OutboxPath(deviceDir) / name));

    activity.failedUploads = LinesAddedSince(before.failedLog, SnapshotFile(OutboxPath(deviceDir) / "failed.log"));
    const FileSnapshot history = SnapshotHistory(ScanHistoryPath(deviceDir));
    if (WrittenSince(before.history, history)) {
        const std::vector<std::string> lines = SplitLines(history.content);
        if (!lines.empty()) activity.historyLine = lines.back();
    }
    activity.events = LinesAddedSince(before.events, SnapshotFile(EventsLogPath(deviceDir)));
    return activity;
}

std::vector<std::string> ReadScanHistory(const fs::path& deviceDir) {
    // Only the tail the module itself reads: a history grown huge prints no more.
    std::vector<std::string> lines;
    zep::results::ReadHistoryLines(zep::path::FromFs(ScanHistoryPath(deviceDir)), lines);
    return lines;
}

std::optional<std::string> LastHistoryLine(const fs::path& deviceDir) {
    std::vector<std::string> lines = ReadScanHistory(deviceDir);
    if (lines.empty()) return std::nullopt;
    return std::move(lines.back());
}

std::vector<std::string> HistoryFields(const std::string& line) {
    std::vector<std::string> fields = SplitCommas(line);
    if (fields.size() != 6) return {};
    return fields;
}

std::string UploadStatusText(const std::string& status) {
    if (status == "0") return "0 uploaded";
    if (status == "1") return "1 not uploaded (error)";
    if (status == "2") return "2 offline, upload deferred";
    return status + " (unknown)";
}

std::string FormatUploads(const fs::path& deviceDir, const RunActivity& activity) {
    std::string text;
    for (const auto& upload : activity.uploads) {
        if (upload.file.empty()) {
            text += Field("Upload", "an empty outbox folder") +
                    Field("Outbox folder", zep::path::NarrowPath(upload.folder), 2);
            continue;
        }
        text += Field("Upload", UploadKind(upload) + ", " + upload.file + " (" + std::to_string(upload.size) +
                                    " bytes, " + HumanSize(upload.size) + ")") +
                Field("Outbox folder", zep::path::NarrowPath(upload.folder), 2) +
                Field("Metadata", upload.metadata ? upload.file + ".metadata.json" : std::string("none"), 2);
    }
    for (const auto& line : activity.failedUploads) {
        const std::optional<FailedUpload> failed = ParseFailedUpload(line);
        if (!failed) {
            text += Field("Upload", "failed: " + line);
            continue;
        }
        text += Field("Upload", "failed with " + failed->code + ", " + failed->file + " at " + failed->time) +
                Field("Recorded in", zep::path::NarrowPath(OutboxPath(deviceDir) / "failed.log"), 2);
    }
    return text.empty() ? Field("Upload", "nothing uploaded") : text;
}

std::string FormatHistoryLine(const std::string& label, const std::optional<std::string>& line,
                              const std::string& absent) {
    if (!line) return Field(label, absent);
    std::string text = Field(label, *line);
    const std::vector<std::string> fields = HistoryFields(*line);
    if (fields.empty()) return text + Field("Fields", "unreadable (not six comma-separated fields)", 2);
    return text + Field("Time", fields[0], 2) + Field("Trigger", fields[1], 2) +
           Field("Upload status", UploadStatusText(fields[2]), 2) + Field("Artifacts", fields[3], 2) +
           Field("Failed tests", fields[4], 2) + Field("Signature", IsNoSignature(fields[5]) ? "none" : fields[5], 2);
}

std::string FormatEvents(const RunActivity& activity) {
    if (activity.events.empty()) return Field("Events", "none");
    std::string text;
    for (const auto& line : activity.events) {
        const std::optional<Json::Value> event = zep::json::ParseObject(line);
        if (!event) {
            text += Field("Event", Continued(line));
            continue;
        }
        text += Field("Event", TextOf(*event, "eventId") + " at " + TextOf(*event, "time")) +
                Field("Text", Continued(TextOf(*event, "text")), 2);
    }
    return text;
}

std::string FormatActivity(const fs::path& deviceDir, const RunActivity& activity) {
    return FormatUploads(deviceDir, activity) + '\n' +
           FormatHistoryLine("History line", activity.historyLine, "not written") + '\n' + FormatEvents(activity);
}

std::string FormatHistoryTable(const std::vector<std::string>& lines) {
    if (lines.empty()) return "no history yet\n";
    std::vector<std::vector<std::string>> rows{{"TIME", "TRIGGER", "UPLOAD", "ARTIFACTS", "FAILED", "SIGNATURE"}};
    for (const auto& line : lines) {
        std::vector<std::string> fields = HistoryFields(line);
        if (fields.empty()) {
            rows.push_back({"(unreadable) " + line});
            continue;
        }
        fields[2] = UploadStatusText(fields[2]);
        fields[5] = ShortSignature(fields[5]);
        rows.push_back(std::move(fields));
    }
    // Columns as wide as their widest cell; an unreadable line spans them all.
    // The signature is last, so its "…" (one column, three bytes) never
    // shifts another column.
    std::size_t widths[5] = {};
    for (const auto& row : rows) {
        if (row.size() != 6) continue;
        for (std::size_t i = 0; i < 5; ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    std::string text;
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            text += row[i];
            if (i + 1 < row.size()) text += std::string(widths[i] - row[i].size() + 2, ' ');
        }
        text += '\n';
    }
    return text;
}

// ---- plug-ins ---------------------------------------------------------------------

namespace {

std::string YesNo(const Json::Value& object, const char* key) {
    const Json::Value& value = object.isObject() ? object[key] : Json::Value::nullSingleton();
    if (value.isBool()) return value.asBool() ? "yes" : "no";
    return TextOf(object, key);
}

std::string ByteCount(const Json::Value& object, const char* key) {
    const Json::Value& value = object.isObject() ? object[key] : Json::Value::nullSingleton();
    if (!value.isUInt64()) return TextOf(object, key);
    const auto bytes = static_cast<std::uintmax_t>(value.asUInt64());
    return std::to_string(bytes) + " bytes (" + HumanSize(bytes) + ")";
}

std::string PluginResultLines(const fs::path& diagFolder) {
    const fs::path resultFile = PluginScanResultPath(diagFolder);
    const std::optional<Json::Value> result = ReadJsonFile(resultFile);
    if (!result) return Field("Result file", kNotProduced);
    return Field("Result file", zep::path::NarrowPath(resultFile)) + FormatPluginScanResult(*result);
}

std::string PluginComponentLines(const fs::path& diagFolder) {
    const std::optional<Json::Value> component = ReadJsonFile(diagFolder / "component-result.json");
    return component ? FormatComponent(*component) : Field("Component", kNotProduced);
}

std::string PluginZipLines(const fs::path& diagFolder, const std::string& pluginId) {
    const std::optional<fs::path> zip = FindPluginZip(diagFolder, pluginId);
    // No zip: none was made (a failed request), or it went once uploaded.
    return zip ? FormatZipListing(ReadZipListing(*zip)) : Field("Zip", "none in latest/");
}

}  // namespace

std::vector<std::string> PluginTargets(const std::string& payload) {
    const std::optional<std::set<std::string>> targets = RequestTargets(payload);
    std::vector<std::string> plugins;
    if (!targets) return plugins;
    for (const auto& target : *targets) {
        if (target != "zep") plugins.push_back(target);
    }
    return plugins;
}

bool NamesAgent(const std::string& payload) {
    const std::optional<std::set<std::string>> targets = RequestTargets(payload);
    return !targets || targets->count("zep") != 0;
}

fs::path PluginHistoryPath(const fs::path& diagFolder) { return diagFolder / "scan-history.log"; }
fs::path PluginScanResultPath(const fs::path& diagFolder) { return diagFolder / "latest" / "scan-result.json"; }

std::optional<fs::path> FindPluginZip(const fs::path& diagFolder, const std::string& pluginId) {
    if (pluginId.empty()) return std::nullopt;
    return NewestEndingWith(diagFolder / "latest", "_" + pluginId + ".zip");
}

RunActivity TakePluginActivity(RunActivity& activity, const std::string& pluginId) {
    RunActivity taken;
    const auto isPlugin = [&](const OutboxUpload& upload) { return upload.pluginId == pluginId; };
    std::copy_if(activity.uploads.begin(), activity.uploads.end(), std::back_inserter(taken.uploads), isPlugin);
    activity.uploads.erase(std::remove_if(activity.uploads.begin(), activity.uploads.end(), isPlugin),
                           activity.uploads.end());

    // failed.log lines are time,file,code: the file tells.
    const std::string zipEnd = "_" + pluginId + ".zip,";
    const auto failedPlugin = [&](const std::string& line) {
        const std::size_t last = line.rfind(',');
        return last != std::string::npos && EndsWith(line.substr(0, last + 1), zipEnd);
    };
    std::copy_if(activity.failedUploads.begin(), activity.failedUploads.end(),
                 std::back_inserter(taken.failedUploads), failedPlugin);
    activity.failedUploads.erase(
        std::remove_if(activity.failedUploads.begin(), activity.failedUploads.end(), failedPlugin),
        activity.failedUploads.end());
    return taken;
}

std::string FormatPluginScanResult(const Json::Value& scanResult) {
    return Field("Trigger", TextOf(scanResult, "trigger"), 2) + Field("Scan id", TextOf(scanResult, "id"), 2) +
           Field("Device id", TextOf(scanResult, "deviceId"), 2) +
           Field("Completed at", TextOf(scanResult, "deviceTimeCompletedAt"), 2) +
           Field("Failed tests", TextOf(scanResult, "failTestCount"), 2) +
           Field("Problematic", YesNo(scanResult, "isProblematic"), 2) +
           Field("Artifact size", ByteCount(scanResult, "artifactSize"), 2);
}

std::string FormatPluginInstance(const PluginInstance& instance, const std::string& pluginId) {
    std::string text = Field("Instance", instance.elevation);
    if (instance.folder.empty()) return text + Field("Folder", "none (the module resolved none, see its log)");
    text += Field("Folder", zep::path::NarrowPath(instance.folder));
    const FileSnapshot history = SnapshotHistory(PluginHistoryPath(instance.folder));
    // Every request the module makes ends with a history line, whatever the
    // plug-in answered; without one, what is in the folder is older.
    if (!WrittenSince(instance.history, history)) {
        return text + Field("History line", "not written (the instance was not asked, see the module log)");
    }
    return text + PluginResultLines(instance.folder) + '\n' + PluginComponentLines(instance.folder) + '\n' +
           PluginZipLines(instance.folder, pluginId) + '\n' +
           FormatHistoryLine("History line", LastLineOf(history), "not written");
}

std::string FormatPluginTarget(const fs::path& deviceDir, const PluginTarget& target, const RunActivity& uploads) {
    if (target.pluginId.empty()) {
        return Field("Plug-in", target.target) +
               Field("Instances", Continued("none asked: no plugins/" + target.target +
                                            " with a valid plugin.json\nand a running instance on this device"));
    }
    std::string elevations;
    for (const auto& instance : target.instances) elevations += (elevations.empty() ? "" : ", ") + instance.elevation;
    std::string text = Field("Plug-in", target.target + " (" + target.pluginId + ")") + Field("Instances", elevations);
    for (const auto& instance : target.instances) text += '\n' + FormatPluginInstance(instance, target.pluginId);
    return text + '\n' + FormatUploads(deviceDir, uploads);
}

std::string FormatPluginHistoryChange(const fs::path& diagFolder, const FileSnapshot& before) {
    const FileSnapshot now = SnapshotHistory(PluginHistoryPath(diagFolder));
    if (!WrittenSince(before, now)) return "";
    return Field("Plug-in folder", zep::path::NarrowPath(diagFolder)) +
           FormatHistoryLine("History before", LastLineOf(before), "none") +
           FormatHistoryLine("History after", LastLineOf(now), "none");
}

}  // namespace zepdiag
