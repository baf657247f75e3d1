// The policies of a device folder: DIR/update-policy.json
// ({"packages": [{"id": ..., "name": ...}]}) with the deploy agent's
// repository DIR/packages/<id>, and DIR/platform-policy.json. Read on every
// query: each is asked once per scan.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/env/FileSystemEnv.h"
#include "platform/env/PolicyEnv.h"

namespace zep::platform {

inline constexpr std::uint64_t kMaxUpdatePolicyBytes = 1024 * 1024;

// The packages an update policy text lists, in its order; entries without a
// string "id" are skipped, a missing "name" is the id.
UpdatePolicy ParseUpdatePolicy(std::string_view text);

std::shared_ptr<PolicyEnv> MakeFolderPolicy(std::shared_ptr<Folder> deviceFolder);

}  // namespace zep::platform
