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

#include "platform/env/ExtensionEnv.h"

namespace zep::platform {

// `timeout` is asked before each command, so that a change of the device's
// settings applies to the next one; zero or less means the built-in 120 s.
std::shared_ptr<ExtensionEnv> MakeFolderExtensions(std::filesystem::path pluginsDir,
                                                   std::function<std::chrono::seconds()> timeout);

}  // namespace zep::platform
