// The platform policy of a device folder: DIR/platform-policy.json, with the
// record's fields under their own names, lists as arrays of strings, e.g.
// {"api_baseuri": "https://...", "jws_pubkey": ["-----BEGIN PUBLIC KEY-----\n..."]}.
#pragma once

#include <filesystem>

#include "DiagnosticScanner/PlatformPolicy.h"

namespace zep::platform {

// Read on every call; a missing or malformed file gives an empty record.
PlatformPolicy LoadPlatformPolicy(const std::filesystem::path& file);

}  // namespace zep::platform
