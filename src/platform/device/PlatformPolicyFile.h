// The platform policy of a device folder: DIR/platform-policy.json, with the
// record's fields under their own names, lists as arrays of strings, e.g.
// {"api_baseuri": "https://...", "jws_pubkey": ["-----BEGIN PUBLIC KEY-----\n..."]}.
#pragma once

#include <cstdint>
#include <string_view>

#include "DiagnosticScanner/PlatformPolicy.h"

namespace zep::platform {

// A policy is a few kilobytes of addresses and keys.
inline constexpr std::uint64_t kMaxPlatformPolicyBytes = 1024 * 1024;

// The record a policy document describes; a malformed document gives an
// empty record, a field of the wrong type leaves only that field empty.
PlatformPolicy ParsePlatformPolicy(std::string_view text);

}  // namespace zep::platform
