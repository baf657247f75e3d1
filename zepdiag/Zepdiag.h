// zepdiag: runs the diagnostics module on a device folder (see --help).
#pragma once

#include <ostream>

// The whole program, writing to `out` and `err` instead of the standard
// streams. It may be called several times in one process: each call installs
// the platform of its own device folder before it uses the module.
int RunZepdiag(int argc, char** argv, std::ostream& out, std::ostream& err);
