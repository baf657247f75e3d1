// The facts the text summary prints, as JSON for `--json`: the same
// snapshots and findings (Summary.h), rendered as data for scripts. Paths are
// strings, sizes and codes numbers where they are numbers, and what is
// missing is null.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "Summary.h"

namespace zepdiag {

// deviceFolder, trigger, scanResult (the document as the module wrote it),
// resultFile, zip {path, size, entries, error}, moduleLog.
Json::Value ScanJson(const std::filesystem::path& deviceDir, const std::string& trigger,
                     const std::optional<std::filesystem::path>& resultFile);

// uploads [{folder, file, size, type, metadataFile, pluginId}],
// failedUploads [{time, file, code}], historyLine, events.
Json::Value ActivityJson(const RunActivity& activity);

// A history line and its six fields {line, time, trigger, uploadStatus,
// artifactStatus, failedTests, signature}; {line, unreadable: true} for
// another shape; null without a line.
Json::Value HistoryLineJson(const std::optional<std::string>& line);

// historyFile, entries (oldest first).
Json::Value HistoryJson(const std::filesystem::path& deviceDir, const std::vector<std::string>& lines);

// target, pluginId, instances [{elevation, folder, asked, scanResult,
// component, zip, historyLine}], and the plug-in's uploads.
Json::Value PluginTargetJson(const PluginTarget& target, const RunActivity& uploads);

// {folder, historyBefore, historyAfter}; null when the history did not change.
Json::Value PluginHistoryChangeJson(const std::filesystem::path& diagFolder, const FileSnapshot& before);

// Copies `from`'s members into `into`.
void MergeInto(Json::Value& into, const Json::Value& from);

// The document as printed: indented, UTF-8, one final line feed.
std::string JsonText(const Json::Value& document);

}  // namespace zepdiag
