// Finding a scan's built-in component result in a device folder and printing
// it for people.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <ostream>
#include <string>

namespace zepdiag {

// The built-in component results under DIR/temp/Quorin/Zep/<scan>/ZEP/, with
// their modification times.
using ResultFiles = std::map<std::filesystem::path, std::filesystem::file_time_type>;
ResultFiles ListComponentResults(const std::filesystem::path& deviceDir);

// The newest of `after` that is not in `before` or changed since: the result
// that a scan between the two listings wrote. Empty when there is none.
std::optional<std::filesystem::path> NewestWrittenSince(const ResultFiles& before, const ResultFiles& after);

// The folder, the trigger and, when `resultFile` is given, the result's scan
// name, component, result type, time and test table; then where the result
// and the module's log are. What is missing is reported as "not produced".
void PrintScanSummary(std::ostream& out, const std::filesystem::path& deviceDir, const std::string& trigger,
                      const std::optional<std::filesystem::path>& resultFile);

// The module's log in the device folder.
std::filesystem::path ModuleLogPath(const std::filesystem::path& deviceDir);

}  // namespace zepdiag
