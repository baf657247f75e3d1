// The small string rules of zip creation: a folder argument without trailing
// separators, a zip name that cannot leave its folder, and text made safe
// inside a PowerShell single-quoted string.
#pragma once

#include <string>

namespace zep::artifacts {

// Removes every trailing "\" and "/"; the rest may be empty.
std::wstring TrimTrailingSeparators(const std::wstring& path);

// Trims blanks and tabs, keeps what follows the last "\" or "/", replaces
// control characters and " * / : < > ? \ | by "_", then (unless empty)
// removes trailing blanks and dots.
std::wstring SanitizeZipFileName(const std::wstring& name);

// Every ' doubled, as a PowerShell single-quoted string needs.
std::wstring EscapeSingleQuotes(const std::wstring& text);

}  // namespace zep::artifacts
