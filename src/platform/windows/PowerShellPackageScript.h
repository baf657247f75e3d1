// Package diagnostics scripts on Windows: the package's install.ps1 run by
// Windows PowerShell with the agent's own command line.
#pragma once

#include "platform/collect/NativeCollection.h"

namespace zep::platform {

// "install.ps1", run with the get-diagnostics command line of the agent's
// PowerShell collection (unchanged, never re-quoted).
collect::PackageScriptWay PowerShellPackageScript();

}  // namespace zep::platform
