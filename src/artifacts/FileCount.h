#pragma once

#include <cstdint>
#include <string>

namespace zep::artifacts {

// The number of files below `folder`, recursively; 0 when it does not exist.
// A walk error ends the walk with the count so far.
std::uint64_t CountFilesInTree(const std::wstring& folder);

}  // namespace zep::artifacts
