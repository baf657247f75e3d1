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

// A path as one line of a file listing, UTF-8, naming exactly that file. On
// POSIX, where names are bytes, "\xNN" stands for the byte NN: a byte that is
// not part of valid UTF-8, and a control character, which would break the
// line; a backslash of the name itself is written "\\", so no name can pass
// for an escape. On Windows, where the backslash separates folders and names
// are UTF-16, an unpaired surrogate is written "<U+XXXX>" ('<' cannot occur
// in a Windows name).
DIAGSCANNER_API std::string ListingText(std::wstring_view path);

// Lone-surrogate escaping of raw bytes (see Paths.h).
DIAGSCANNER_API std::wstring DecodeFileName(std::string_view bytes);
DIAGSCANNER_API std::string EncodeFileName(std::wstring_view name);

}  // namespace zep::text
