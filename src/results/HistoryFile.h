// Reading a scan history file, the agent's or a plug-in's. Only what the ring
// can hold is read, so that a history grown large by someone else costs no
// more than one the module wrote.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "DiagnosticScanner/Export.h"

namespace zep::results {

inline constexpr std::size_t kHistoryLines = 100;
// The ring's lines are about 110 bytes each: a proper history fits this cap
// several times over.
inline constexpr std::size_t kHistoryReadBytes = 64 * 1024;

// The lines of a history's tail text, at most the last kHistoryLines; when
// the text was `cut` from a longer file its first line is a fragment and is
// dropped.
std::vector<std::string> HistoryTailLines(const std::string& text, bool cut);

// The last lines of the history file at `path`, from at most
// kHistoryReadBytes at its end (see HistoryTailLines). False when the file
// cannot be read. Exported for hosts that show the history.
DIAGSCANNER_API bool ReadHistoryLines(const std::wstring& path, std::vector<std::string>& lines);

}  // namespace zep::results
