// Which request ids may name a scan. The scan name becomes a folder that is
// later deleted recursively, so it must be one harmless path component.
#pragma once

#include <string>

namespace zep::manager {

inline constexpr std::size_t kMaxScanNameLength = 128;

// True when `name` is a single, portable path component: not empty, not "." or
// "..", at most 128 characters, without separators, drive colons, control
// characters or characters Windows forbids in names (* ? " < > |), not ending
// in a dot or blank, and not a Windows device name (CON, NUL, COM1, ...).
bool IsSafeScanName(const std::wstring& name);

// `text` with control characters shown as \xNN, for log lines that must not
// be split or forged by what they quote.
std::wstring EscapeForLog(const std::wstring& text);

}  // namespace zep::manager
