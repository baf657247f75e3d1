// Text conversions of the module (exported for its hosts too). All texts are
// wide; JSON and the log file are UTF-8. None of these functions throws on
// malformed input: invalid sequences become U+FFFD (decoding) or are encoded as
// U+FFFD (lone surrogates).
#pragma once

#include <string>
#include <string_view>

#include "DiagnosticScanner/Export.h"

namespace zep::text {

DIAGSCANNER_API std::string ToUtf8(std::wstring_view wide);
DIAGSCANNER_API std::wstring FromUtf8(std::string_view utf8);

// ASCII-and-beyond case mapping through the C library's wide classification.
DIAGSCANNER_API std::wstring Lower(std::wstring_view text);
DIAGSCANNER_API std::wstring Upper(std::wstring_view text);
DIAGSCANNER_API bool EqualsIgnoreCase(std::wstring_view a, std::wstring_view b);

// Lone-surrogate escaping of raw bytes (see Paths.h).
DIAGSCANNER_API std::wstring DecodeFileName(std::string_view bytes);
DIAGSCANNER_API std::string EncodeFileName(std::wstring_view name);

}  // namespace zep::text
