// The service's own log: one line per event on standard error, where systemd's
// journal (or the terminal) takes it. The module keeps its own log in the
// device folder; this one tells what the roads to the cloud did.
#pragma once

#include <string_view>

namespace zepdiag::serve {

// Writes "<UTC time> <message>" as one line with one write, so that lines of
// concurrent threads never interleave. Never throws.
void LogLine(std::string_view message);

}  // namespace zepdiag::serve
