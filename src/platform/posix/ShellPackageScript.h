// Package diagnostics scripts on POSIX systems: install.sh run by /bin/sh.
#pragma once

#include "platform/collect/NativeCollection.h"

namespace zep::platform {

// "install.sh", run as /bin/sh <script> -command get-diagnostics -outDir <folder>
// (an argument vector, no shell line), stopped at the child-process ceiling.
collect::PackageScriptWay ShellPackageScript();

}  // namespace zep::platform
