// The demo device folder that `zepdiag init` writes, and how zepdiag tells a
// device folder from any other folder.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>

namespace zepdiag {

enum class FolderKind {
    Missing,        // nothing there yet
    Empty,          // an empty directory
    Device,         // holds device.json or programdata/
    Other,          // a non-empty directory of something else
    NotADirectory,  // a file (or something else) is in the way
};

// The lock file of a zepdiag run in its device folder.
inline constexpr const char* kRunLockName = ".zepdiag.lock";

FolderKind InspectDeviceFolder(const std::filesystem::path& dir);

// Writes a registered, connected demo device into `dir` (missing or empty):
// device.json, registry.reg, an application-data tree with agent logs and a
// sync database, an update policy, one package with its script and one
// plug-in (plugins/demo-plugin/) running elevated. `now` dates the logs and
// the certificate. False, with `error` set, when something cannot be written.
bool CreateDemoDevice(const std::filesystem::path& dir, std::chrono::system_clock::time_point now,
                      std::string& error);

}  // namespace zepdiag
