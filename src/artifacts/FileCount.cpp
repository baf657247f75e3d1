#include "artifacts/FileCount.h"

#include <vector>

#include "platform/agent/CommonBase.h"

namespace zep::artifacts {

std::uint64_t CountFilesInTree(const std::wstring& folder) {
    std::vector<std::wstring> files;
    return static_cast<std::uint64_t>(FileSystem::GetFileListForFolder(folder, L"", files));
}

}  // namespace zep::artifacts
