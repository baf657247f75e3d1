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

// The name of a scan's staging folder and, with ".zip", of its archive: the
// logical device id, "_" and the scan name, sanitised here once so that
// staging, packing and upload all use the same name. Separators inside the
// ids become "_" like every other character a file name cannot hold: the name
// never leaves the diagnostics folder and is never empty. Past 200 bytes (as
// UTF-8) it is cut, leaving room for the extension and the temporary suffix
// of an archive being written.
std::wstring ZipFolderName(const std::wstring& logicalDeviceId, const std::wstring& scanName);

// Every ' doubled, as a PowerShell single-quoted string needs.
std::wstring EscapeSingleQuotes(const std::wstring& text);

}  // namespace zep::artifacts
