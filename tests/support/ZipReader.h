// Reads the archives a scan leaves, for assertions.
#pragma once

#include <filesystem>
#include <optional>
#include <set>
#include <string>

namespace zep::testing {

// The entry names of a zip; empty when it cannot be opened.
std::set<std::string> ZipEntries(const std::filesystem::path& zip);
// One entry's content; nullopt when the zip or the entry is missing.
std::optional<std::string> ZipRead(const std::filesystem::path& zip, const std::string& entry);

}  // namespace zep::testing
