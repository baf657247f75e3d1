// Which request ids may name a scan. The scan name becomes a folder that is
// later deleted recursively, so it must be one harmless path component; any
// id that the running system accepts as one file name is kept, so that the
// cloud can match the upload to its request.
#pragma once

#include <string>

namespace zep::manager {

// The file-name rules of a system.
enum class NameRules {
    // Not empty, not "." or "..", no "/", no control character (C0, DEL, C1),
    // no lone surrogate, at most 255 bytes as UTF-8.
    Posix,
    // Not empty, no control character or lone surrogate, none of < > : " / \ | ? *,
    // not ending in a dot or blank, not a device name (CON, NUL, COM1, LPT¹,
    // CONIN$, ... with or without an extension), at most 255 UTF-16 units.
    Windows,
};

#ifdef _WIN32
inline constexpr NameRules kRunningSystemNameRules = NameRules::Windows;
#else
inline constexpr NameRules kRunningSystemNameRules = NameRules::Posix;
#endif

bool IsOneFileName(const std::wstring& name, NameRules rules);

// True when `name` can name one file or folder on the running system.
inline bool IsSafeScanName(const std::wstring& name) { return IsOneFileName(name, kRunningSystemNameRules); }

}  // namespace zep::manager
