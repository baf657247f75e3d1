// The Linux platform of a device folder: the agent's state, registry, folders
// and logs all live in one directory, so that a device can be set up, changed
// by scripts and scanned for real without the agent's service.
//
//   DIR/device.json      identity and state (re-read when it changes)
//   DIR/registry.reg     registry values, in the registry editor's format
//   DIR/programdata/     the agent's application-data root (Log/, DB/, ...)
//   DIR/temp/            the system's temporary folder
#pragma once

#include <memory>
#include <string>

#include "DiagnosticScanner/Export.h"
#include "platform/env/Env.h"

namespace zep::platform {

// The Env of the device folder `deviceDir`, with `hub` as its notification
// hub. Files, processes, clocks and randomness are the system's own.
DIAGSCANNER_API Env MakeDeviceFolderEnv(const std::wstring& deviceDir, std::shared_ptr<HubEnv> hub);

}  // namespace zep::platform
