// The platform of a device folder: the agent's state, policies, folders and
// logs all live in one directory, so that a device can be set up, changed by
// scripts and scanned for real without the agent's service.
//
//   DIR/device.json      identity and state (re-read when it changes)
//   DIR/registry.reg     registry values, in the registry editor's format
//   DIR/programdata/     the agent's application-data root (Log/, DB/, ...)
//   DIR/temp/            the system's temporary folder
//   DIR/users/<user>/    the logged-in user's profile
//   DIR/plugins/, DIR/outbox/, DIR/events.log, DIR/update-policy.json, ...
//
// It is built on the running system's own Env (files, processes, clocks),
// replacing the agent's parts; the folder's files are read through the seam,
// each with a size limit.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "DiagnosticScanner/Export.h"
#include "platform/env/Env.h"

namespace zep::platform {

struct DeviceFolderOptions {
    // registry.reg stands in for the registry. Off, the system's own
    // registry is used (on Windows, where the host imports registry.reg).
#ifdef _WIN32
    bool registryFromFile = false;
#else
    bool registryFromFile = true;
#endif
};

// The Env of the device folder `deviceDir` (created when missing), with
// `hub` as its notification hub.
DIAGSCANNER_API Env MakeDeviceFolderEnv(const std::wstring& deviceDir, std::shared_ptr<HubEnv> hub,
                                        const DeviceFolderOptions& options = {});

// Reads a regular file of a device folder for a host, the way the module
// reads its documents: never through a link as its last component, never a
// FIFO or a device (and never waiting for one), at most `limit` bytes.
DIAGSCANNER_API bool ReadDeviceFile(const std::wstring& path, std::uint64_t limit, std::string& contents);
// The same for the end of a file: at most `maxBytes`, from a line start on.
DIAGSCANNER_API bool ReadDeviceFileTail(const std::wstring& path, std::uint64_t maxBytes, std::string& contents);

// Imports DIR/registry.reg into the system's registry with the registry
// editor ("regedit.exe /s"), for platforms whose registry is the system's
// own (registryFromFile off). Every key and value of the file is read back
// afterwards. True when there is nothing to import or everything arrived;
// otherwise false, with what went wrong in `problem`.
DIAGSCANNER_API bool ImportRegistryFile(const Env& env, const std::wstring& deviceDir, std::string& problem);

}  // namespace zep::platform
