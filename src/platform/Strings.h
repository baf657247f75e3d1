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

// Unicode simple case mapping (one character to one character), the same
// whatever the process's global locale.
DIAGSCANNER_API std::wstring Lower(std::wstring_view text);
DIAGSCANNER_API std::wstring Upper(std::wstring_view text);
DIAGSCANNER_API bool EqualsIgnoreCase(std::wstring_view a, std::wstring_view b);

// `text` with every control character written as \xNN (\uNNNN past U+00FF):
// C0, DEL, C1 and the Unicode line and paragraph separators, so that a text
// from outside cannot start a line of its own where it is shown.
DIAGSCANNER_API std::wstring EscapeControlCharacters(std::wstring_view text);

// Lone-surrogate escaping of raw bytes (see Paths.h).
DIAGSCANNER_API std::wstring DecodeFileName(std::string_view bytes);
DIAGSCANNER_API std::string EncodeFileName(std::wstring_view name);

}  // namespace zep::text
