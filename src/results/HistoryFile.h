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

// The lines of a history's text, at most the last kHistoryLines.
std::vector<std::string> HistoryTailLines(const std::string& text);

// The last lines of the history file at `path`, from at most
// kHistoryReadBytes at its end, starting at a whole line. False when the file
// cannot be read. Exported for hosts that show the history.
DIAGSCANNER_API bool ReadHistoryLines(const std::wstring& path, std::vector<std::string>& lines);

}  // namespace zep::results
