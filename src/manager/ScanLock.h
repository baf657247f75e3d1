// Scans of one device kept apart across processes. The manager's mutex holds
// only within its process; two processes loading the module (the agent's
// service and a tool, two hosts of one device folder) would otherwise write
// the same latest/ folder, scan result and history at once.
#pragma once

#include <memory>

#include "platform/env/FileSystemEnv.h"

namespace zep::manager {

// Takes the device's scan lock (the file "diagnostics\.scan.lock" below the
// agent's data root), waiting while another process holds it; released when
// the result is destroyed. Null, with a log line, when it cannot be taken:
// the scan then goes on as it would have without it.
std::unique_ptr<platform::FileLock> LockDeviceScans();

}  // namespace zep::manager
