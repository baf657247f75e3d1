// The one place that decides how the module's paths are spelt.
//
// Path texts in the module are written the Windows way, with backslashes, so
// that they read like the agent's own. NativePath turns such a literal into the
// running system's form: unchanged on Windows, '\' -> '/' elsewhere. It is for
// literals the module writes, never for names that come from outside.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "DiagnosticScanner/Export.h"

namespace zep::path {

#ifdef _WIN32
inline constexpr wchar_t kSeparator = L'\\';
#else
inline constexpr wchar_t kSeparator = L'/';
#endif

// A path literal in the running system's separators.
std::wstring NativePath(std::wstring_view windowsLiteral);

// The absolute form of `path` in the long-path syntax: "\\?\" + absolute
// path on Windows, the plain absolute path elsewhere. Nothing is resolved or
// normalised, so a trailing "*" component survives.
std::wstring ExtendedAbsolute(const std::wstring& path);

// Wide path <-> std::filesystem::path without loss. On POSIX a file name that
// is not valid UTF-8 survives the round trip: each undecodable byte is carried
// as a lone surrogate U+DC80..U+DCFF (the "surrogateescape" convention).
DIAGSCANNER_API std::filesystem::path ToFs(const std::wstring& path);
DIAGSCANNER_API std::wstring FromFs(const std::filesystem::path& path);

// A path as narrow text for C libraries (libzip) and for output: its own
// bytes on POSIX, UTF-8 on Windows (whose narrow functions would take the
// ANSI code page and lose what it cannot spell).
DIAGSCANNER_API std::string NarrowPath(const std::filesystem::path& path);
// The inverse of NarrowPath: a command-line argument or a libzip name.
DIAGSCANNER_API std::filesystem::path FromNarrow(const std::string& narrow);

}  // namespace zep::path
