// The one retry of a plug-in upload that the storage service refused with 429.
#pragma once

#include <string>

#include "platform/agent/FileStorageAgent.h"

class DiagnosticsManager;

namespace zep::plugins {

// Uploads the zip; after a 429 waits a random while (up to five minutes, so
// that devices refused together do not return together) and uploads exactly
// once more. The second answer stands. `label` opens the log line.
FileStorageAgent::StoragError UploadWithOneRetry(DiagnosticsManager& manager, const std::wstring& zipPath,
                                                 const char* label);

}  // namespace zep::plugins
