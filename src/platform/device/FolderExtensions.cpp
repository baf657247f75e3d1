#include "platform/device/FolderExtensions.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <json/json.h>

#include "platform/agent/Log.h"
#include "platform/env/Beneath.h"
#include "platform/env/Env.h"
#include "platform/util/JsonText.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"

namespace zep::platform {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kDefaultTimeout{120};
// A plug-in's answer is one short JSON line; whatever it writes before that is
// progress. Only the last MiB is kept.
constexpr std::size_t kMaxOutputBytes = 1024 * 1024;
// A manifest is a few lines; anything this large is not one.
constexpr std::uint64_t kMaxManifestBytes = 64 * 1024;

// Strict: trailing garbage makes a damaged document, and deep nesting (which
// JsonCpp would throw on) is refused as malformed.
zep::json::ParseOptions StrictObject() {
    zep::json::ParseOptions options;
    options.failIfExtra = true;
    options.stackLimit = 64;
    return options;
}

// Through the seam's reader: never a link, a FIFO or more than the limit.
std::optional<std::string> ReadManifestText(const fs::path& folder) {
    const auto open = CurrentEnv()->files->OpenFolder(path::FromFs(folder));
    std::string text;
    if (!open || !ReadFileIn(*open, L"plugin.json", kMaxManifestBytes, text)) return std::nullopt;
    return text;
}

using Plugin = PluginManifest;

bool IsJsonBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::optional<ElevationType> ElevationNamed(const std::string& name) {
    const std::wstring lower = text::Lower(text::FromUtf8(name));
    if (lower == L"elevated") return Elevated;
    if (lower == L"user") return User;
    return std::nullopt;
}

std::optional<Plugin> ReadPlugin(const fs::path& folder) {
    const std::optional<std::string> text = ReadManifestText(folder);
    if (!text) return std::nullopt;
    return ParsePluginManifest(*text, folder);
}

// A target is a folder name and nothing else: it must not reach outside
// plugins/.
bool IsPluginFolderName(const std::wstring& target) {
    if (target.empty() || target == L"." || target.find(L"..") != std::wstring::npos) return false;
    return std::none_of(target.begin(), target.end(),
                        [](wchar_t c) { return c == L'/' || c == L'\\' || c == L'\0'; });
}

// The plug-in folders, sorted by name so that every lookup sees them in the
// same order; links are not plug-ins.
std::vector<fs::path> PluginFolders(const fs::path& pluginsDir) {
    std::vector<fs::path> folders;
    const auto open = CurrentEnv()->files->OpenFolder(path::FromFs(pluginsDir));
    std::vector<EntryInfo> entries;
    if (!open || !open->List(entries)) return folders;
    for (const auto& entry : entries) {
        if (entry.kind == EntryKind::Folder) folders.push_back(pluginsDir / path::ToFs(entry.name));
    }
    std::sort(folders.begin(), folders.end());
    return folders;
}

std::wstring ElevationArgument(ElevationType elevation) {
    switch (elevation) {
        case Elevated: return L"elevated";
        case User: return L"user";
        case None: break;
    }
    return L"none";
}

class FolderExtensions : public ExtensionEnv {
public:
    FolderExtensions(fs::path pluginsDir, std::function<std::chrono::seconds()> timeout)
        : pluginsDir_(std::move(pluginsDir)), timeout_(std::move(timeout)) {}

    bool TryResolveGetDiagnosticsElevations(const std::wstring& target, std::wstring& pluginId,
                                            std::vector<ElevationType>& elevations) override {
        try {
            const std::optional<fs::path> folder = FolderOf(target);
            if (!folder) return false;
            const std::optional<Plugin> plugin = ReadPlugin(*folder);
            if (!plugin || plugin->elevations.empty()) return false;
            pluginId = plugin->id;
            elevations = plugin->elevations;
            return true;
        } catch (...) {
            return false;
        }
    }

    DiagnosticsOperationResult SendDiagnosticCommandToTargets(const std::wstring& pluginId,
                                                              const std::wstring& diagFolder,
                                                              ElevationType elevation) override {
        DiagnosticsOperationResult answer;
        try {
            const std::optional<Plugin> plugin = PluginWithId(pluginId);
            if (!plugin) return answer;

            ProcessRequest request;
            request.argv = {path::FromFs(plugin->program), L"get-diagnostics", diagFolder, ElevationArgument(elevation)};
            request.workingDirectory = path::FromFs(plugin->folder);
            request.timeout = Timeout();
            request.captureOutput = true;
            request.maxOutputBytes = kMaxOutputBytes;
            const ProcessResult result = CurrentEnv()->processes->Spawn(request);
            if (result.outputTruncated) {
                g_log.e(L"%s: plug-in %s wrote more than %d bytes to its standard output; only the last %d were read",
                        "FolderExtensions::SendDiagnosticCommandToTargets", pluginId, kMaxOutputBytes,
                        kMaxOutputBytes);
            }

            if (!result.started) return answer;
            if (result.timedOut) {
                answer.timeout = true;
                return answer;
            }
            answer.delivered = true;
            answer.isSuccess = result.exitCode == 0;
            answer.deleteFilesOnUpload = PluginAnswerDeletesFiles(result.output, result.outputTruncated);
        } catch (...) {
            // Out of memory for the output: the command counts as undelivered.
            return DiagnosticsOperationResult{};
        }
        return answer;
    }

private:
    // The folder a target names: its own spelling, or else the first whose
    // name matches it in another letter case.
    std::optional<fs::path> FolderOf(const std::wstring& target) const {
        if (!IsPluginFolderName(target)) return std::nullopt;
        const std::wstring lower = text::Lower(target);
        std::optional<fs::path> found;
        for (const auto& folder : PluginFolders(pluginsDir_)) {
            const std::wstring name = path::FromFs(folder.filename());
            if (name == lower) return folder;
            if (!found && text::EqualsIgnoreCase(name, lower)) found = folder;
        }
        return found;
    }

    std::optional<Plugin> PluginWithId(const std::wstring& pluginId) const {
        if (pluginId.empty()) return std::nullopt;
        for (const auto& folder : PluginFolders(pluginsDir_)) {
            std::optional<Plugin> plugin = ReadPlugin(folder);
            if (plugin && text::EqualsIgnoreCase(plugin->id, pluginId)) return plugin;
        }
        return std::nullopt;
    }

    std::chrono::milliseconds Timeout() const {
        const std::chrono::seconds configured = timeout_ ? timeout_() : kDefaultTimeout;
        // Zero would mean no limit at all to the process layer.
        return configured.count() > 0 ? configured : kDefaultTimeout;
    }

    const fs::path pluginsDir_;
    const std::function<std::chrono::seconds()> timeout_;
};

}  // namespace

// Linear in the output: one reader for every line, and only lines that open
// an object are parsed.
bool PluginAnswerDeletesFiles(std::string_view output, bool cut) {
    if (cut) {
        const std::size_t newline = output.find('\n');
        output = newline == std::string_view::npos ? std::string_view() : output.substr(newline + 1);
    }
    zep::json::Parser parser(StrictObject());
    std::optional<Json::Value> answer = parser.ParseObject(output);
    for (std::size_t end = output.size(); !answer && end > 0;) {
        const std::size_t newline = end >= 2 ? output.rfind('\n', end - 2) : std::string_view::npos;
        const std::size_t begin = newline == std::string_view::npos ? 0 : newline + 1;
        const std::string_view line = output.substr(begin, end - begin);
        std::size_t first = 0;
        while (first < line.size() && IsJsonBlank(line[first])) ++first;
        if (first < line.size() && line[first] == '{') answer = parser.ParseObject(line);
        end = begin;
    }
    if (!answer) return false;
    const Json::Value& value = (*answer)["deleteFilesOnUpload"];
    return value.isBool() && value.asBool();
}

std::optional<PluginManifest> ParsePluginManifest(std::string_view text, const fs::path& folder) {
    const std::optional<Json::Value> manifest = zep::json::ParseObject(text, StrictObject());
    if (!manifest) return std::nullopt;
    const Json::Value& id = (*manifest)["id"];
    const Json::Value& program = (*manifest)["program"];
    if (!id.isString() || id.asString().empty() || !program.isString() || program.asString().empty()) {
        return std::nullopt;
    }

    PluginManifest plugin;
    plugin.folder = folder;
    plugin.id = text::FromUtf8(id.asString());
    plugin.program = fs::path(program.asString());
    if (plugin.program.is_relative()) plugin.program = folder / plugin.program;

    const Json::Value& running = (*manifest)["running"];
    const Json::Value& elevations = (*manifest)["elevations"];
    if ((running.isBool() && !running.asBool()) || !elevations.isArray()) return plugin;
    for (const auto& entry : elevations) {
        const std::optional<ElevationType> elevation =
            entry.isString() ? ElevationNamed(entry.asString()) : std::nullopt;
        // Asking one instance twice would only overwrite its own folder.
        if (elevation && std::find(plugin.elevations.begin(), plugin.elevations.end(), *elevation) ==
                             plugin.elevations.end()) {
            plugin.elevations.push_back(*elevation);
        }
    }
    return plugin;
}

std::shared_ptr<ExtensionEnv> MakeFolderExtensions(fs::path pluginsDir, std::function<std::chrono::seconds()> timeout) {
    return std::make_shared<FolderExtensions>(std::move(pluginsDir), std::move(timeout));
}

}  // namespace zep::platform
