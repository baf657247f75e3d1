// DIR/registry.reg: the registry of a device folder on systems without one,
// in the registry editor's format (UTF-8, or UTF-16LE with a byte-order
// mark), re-read when it changes. The logged-in user's folders live in
// DIR/users/<user>/, so the registry knows where that user's Local AppData is
// unless registry.reg says otherwise.
#pragma once

#include <memory>
#include <string>

#include "platform/device/DeviceState.h"
#include "platform/env/RegistryEnv.h"

namespace zep::platform {

// A registry file of a few thousand values is large; this is a generous cap.
inline constexpr std::uint64_t kMaxRegistryFileBytes = 16u * 1024 * 1024;

std::shared_ptr<RegistryEnv> MakeFolderRegistry(std::shared_ptr<Folder> deviceFolder, std::wstring usersDir,
                                                std::shared_ptr<DeviceFile> device);

}  // namespace zep::platform
