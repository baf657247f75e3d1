#include "artifacts/FileCount.h"

#include "platform/env/Env.h"

namespace zep::artifacts {

std::uint64_t CountFilesInTree(const std::wstring& folder) {
    const auto env = platform::CurrentEnv();
    if (!env->files->DirectoryExists(folder)) return 0;
    return env->files->ListFiles(folder, true).size();
}

}  // namespace zep::artifacts
