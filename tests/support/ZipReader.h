// Reads the archives a scan leaves, for assertions.
#pragma once

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace zep::testing {

// The entry names of a zip; empty when it cannot be opened.
std::set<std::string> ZipEntries(const std::filesystem::path& zip);
// The entry names in the order of the archive's directory, repeats kept.
std::vector<std::string> ZipNames(const std::filesystem::path& zip);
// One entry's content; nullopt when the zip or the entry is missing.
std::optional<std::string> ZipRead(const std::filesystem::path& zip, const std::string& entry);

}  // namespace zep::testing
