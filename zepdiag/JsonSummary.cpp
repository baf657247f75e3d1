#include "JsonSummary.h"

#include <cstdint>

#include "platform/util/JsonText.h"
#include "platform/util/Paths.h"

namespace zepdiag {
namespace {

namespace fs = std::filesystem;

Json::Value PathOrNull(const std::optional<fs::path>& path) {
    std::error_code code;
    return path && fs::exists(*path, code) ? Json::Value(path->string()) : Json::Value();
}

Json::Value DocumentOrNull(const std::optional<Json::Value>& document) { return document ? *document : Json::Value(); }

// "42" as 42; anything else stays text, so that nothing is lost.
Json::Value NumberOrText(const std::string& text) {
    if (!text.empty() && text.size() < 10 && text.find_first_not_of("0123456789") == std::string::npos) {
        return Json::Value(std::stoi(text));
    }
    return Json::Value(text);
}

Json::Value Size(std::uintmax_t bytes) { return Json::Value(static_cast<Json::UInt64>(bytes)); }

Json::Value ZipJson(const ZipListing& listing) {
    Json::Value zip(Json::objectValue);
    zip["path"] = zep::path::NarrowPath(listing.path);
    zip["size"] = Size(listing.size);
    zip["entries"] = Json::Value(Json::arrayValue);
    for (const auto& entry : listing.entries) zip["entries"].append(entry);
    if (!listing.error.empty()) zip["error"] = listing.error;
    return zip;
}

Json::Value ZipOrNull(const std::optional<fs::path>& zip) { return zip ? ZipJson(ReadZipListing(*zip)) : Json::Value(); }

std::string TypeName(UploadType type) {
    switch (type) {
        case UploadType::ScanZip: return "scanZip";
        case UploadType::ScanResult: return "scanResult";
        case UploadType::PluginZip: return "pluginZip";
        case UploadType::Other: break;
    }
    return "file";
}

Json::Value UploadJson(const OutboxUpload& upload) {
    Json::Value value(Json::objectValue);
    value["folder"] = zep::path::NarrowPath(upload.folder);
    value["file"] = upload.file.empty() ? Json::Value() : Json::Value(upload.file);
    value["size"] = Size(upload.size);
    value["type"] = TypeName(TypeOf(upload));
    value["metadataFile"] = upload.metadata ? Json::Value(upload.file + ".metadata.json") : Json::Value();
    value["pluginId"] = upload.pluginId.empty() ? Json::Value() : Json::Value(upload.pluginId);
    return value;
}

Json::Value FailedUploadJson(const std::string& line) {
    Json::Value value(Json::objectValue);
    const std::optional<FailedUpload> failed = ParseFailedUpload(line);
    if (!failed) {
        value["line"] = line;
        value["unreadable"] = true;
        return value;
    }
    value["time"] = failed->time;
    value["file"] = failed->file;
    value["code"] = NumberOrText(failed->code);
    return value;
}

Json::Value EventJson(const std::string& line) {
    if (std::optional<Json::Value> event = zep::json::ParseObject(line)) return *event;
    Json::Value value(Json::objectValue);
    value["line"] = line;
    value["unreadable"] = true;
    return value;
}

template <typename Item, typename Render>
Json::Value ArrayOf(const std::vector<Item>& items, Render render) {
    Json::Value array(Json::arrayValue);
    for (const auto& item : items) array.append(render(item));
    return array;
}

Json::Value PluginInstanceJson(const PluginInstance& instance, const std::string& pluginId) {
    Json::Value value(Json::objectValue);
    value["elevation"] = instance.elevation;
    value["folder"] =
        instance.folder.empty() ? Json::Value() : Json::Value(zep::path::NarrowPath(instance.folder));
    const FileSnapshot history = instance.folder.empty() ? FileSnapshot{} : SnapshotFile(PluginHistoryPath(instance.folder));
    // As in the text: without a new history line the instance was not asked.
    const bool asked = WrittenSince(instance.history, history);
    value["asked"] = asked;
    value["scanResult"] = asked ? DocumentOrNull(ReadJsonFile(PluginScanResultPath(instance.folder))) : Json::Value();
    value["component"] = asked ? DocumentOrNull(ReadJsonFile(instance.folder / "component-result.json")) : Json::Value();
    value["zip"] = asked ? ZipOrNull(FindPluginZip(instance.folder, pluginId)) : Json::Value();
    value["historyLine"] = HistoryLineJson(asked ? LastLineOf(history) : std::nullopt);
    return value;
}

}  // namespace

Json::Value ScanJson(const fs::path& deviceDir, const std::string& trigger, const std::optional<fs::path>& resultFile) {
    Json::Value value(Json::objectValue);
    const std::optional<Json::Value> result = resultFile ? ReadJsonFile(*resultFile) : std::nullopt;
    value["deviceFolder"] = zep::path::NarrowPath(deviceDir);
    value["trigger"] = result && (*result)["trigger"].isString() ? (*result)["trigger"] : Json::Value(trigger);
    value["scanResult"] = DocumentOrNull(result);
    value["resultFile"] = PathOrNull(resultFile);
    value["zip"] = result && (*result)["id"].isString()
                       ? ZipOrNull(FindScanZip(deviceDir, (*result)["id"].asString()))
                       : Json::Value();
    value["moduleLog"] = PathOrNull(ModuleLogPath(deviceDir));
    return value;
}

Json::Value ActivityJson(const RunActivity& activity) {
    Json::Value value(Json::objectValue);
    value["uploads"] = ArrayOf(activity.uploads, UploadJson);
    value["failedUploads"] = ArrayOf(activity.failedUploads, FailedUploadJson);
    value["historyLine"] = HistoryLineJson(activity.historyLine);
    value["events"] = ArrayOf(activity.events, EventJson);
    return value;
}

Json::Value HistoryLineJson(const std::optional<std::string>& line) {
    if (!line) return Json::Value();
    Json::Value value(Json::objectValue);
    value["line"] = *line;
    const std::vector<std::string> fields = HistoryFields(*line);
    if (fields.empty()) {
        value["unreadable"] = true;
        return value;
    }
    value["time"] = fields[0];
    value["trigger"] = fields[1];
    value["uploadStatus"] = NumberOrText(fields[2]);
    value["artifactStatus"] = NumberOrText(fields[3]);
    value["failedTests"] = NumberOrText(fields[4]);
    value["signature"] = IsNoSignature(fields[5]) ? Json::Value() : Json::Value(fields[5]);
    return value;
}

Json::Value HistoryJson(const fs::path& deviceDir, const std::vector<std::string>& lines) {
    Json::Value value(Json::objectValue);
    value["historyFile"] = zep::path::NarrowPath(ScanHistoryPath(deviceDir));
    value["entries"] = ArrayOf(lines, [](const std::string& line) { return HistoryLineJson(line); });
    return value;
}

Json::Value PluginTargetJson(const PluginTarget& target, const RunActivity& uploads) {
    Json::Value value(Json::objectValue);
    value["target"] = target.target;
    value["pluginId"] = target.pluginId.empty() ? Json::Value() : Json::Value(target.pluginId);
    value["instances"] = ArrayOf(target.instances, [&](const PluginInstance& instance) {
        return PluginInstanceJson(instance, target.pluginId);
    });
    value["uploads"] = ArrayOf(uploads.uploads, UploadJson);
    value["failedUploads"] = ArrayOf(uploads.failedUploads, FailedUploadJson);
    return value;
}

Json::Value PluginHistoryChangeJson(const fs::path& diagFolder, const FileSnapshot& before) {
    const FileSnapshot now = SnapshotFile(PluginHistoryPath(diagFolder));
    if (!WrittenSince(before, now)) return Json::Value();
    Json::Value value(Json::objectValue);
    value["folder"] = zep::path::NarrowPath(diagFolder);
    value["historyBefore"] = HistoryLineJson(LastLineOf(before));
    value["historyAfter"] = HistoryLineJson(LastLineOf(now));
    return value;
}

void MergeInto(Json::Value& into, const Json::Value& from) {
    for (const auto& name : from.getMemberNames()) into[name] = from[name];
}

std::string JsonText(const Json::Value& document) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, document) + "\n";
}

}  // namespace zepdiag
