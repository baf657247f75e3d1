// A new, empty folder below the system's temporary folder, for one test.
#pragma once

#include <filesystem>
#include <string>

namespace zep::testing {

// `prefix` followed by random characters; throws when none can be made.
std::filesystem::path MakeTempFolder(const std::string& prefix);

}  // namespace zep::testing
