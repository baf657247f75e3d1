// The extension module of a device folder. A plug-in is a folder
// DIR/plugins/<name>/ with a plugin.json:
//
//   {"id": "com.quorin.demoplugin", "elevations": ["elevated", "user"], "program": "run.sh"}
//
// "elevations" lists its running instances in the order to ask them (empty,
// or "running": false, means none is running); "program" is relative to the
// plug-in's folder or absolute. The get-diagnostics command runs
//   <program> get-diagnostics <diagnostics folder> <elevated|user|none>
// as an argument vector; exit status 0 is a success, and a JSON object on
// standard output may carry {"deleteFilesOnUpload": true}.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/env/ExtensionEnv.h"

namespace zep::platform {

// What a plugin.json says, once it has passed the checks every use needs.
struct PluginManifest {
    std::filesystem::path folder;
    std::wstring id;
    std::filesystem::path program;          // absolute
    std::vector<ElevationType> elevations;  // running instances, in order, each once
};

// The manifest of the plug-in folder `folder` from the text of its
// plugin.json; nullopt when it is not one.
std::optional<PluginManifest> ParsePluginManifest(std::string_view text, const std::filesystem::path& folder);

// Whether a plug-in's standard output asks for its files to be deleted once
// uploaded: the whole output as one JSON object, or else the last of its lines
// that is one (progress lines may come before it). When the output was `cut`
// to its end, its first line is a fragment and is not read.
bool PluginAnswerDeletesFiles(std::string_view output, bool cut);

// `timeout` is asked before each command, so that a change of the device's
// settings applies to the next one; zero or less means the built-in 120 s.
std::shared_ptr<ExtensionEnv> MakeFolderExtensions(std::filesystem::path pluginsDir,
                                                   std::function<std::chrono::seconds()> timeout);

}  // namespace zep::platform
