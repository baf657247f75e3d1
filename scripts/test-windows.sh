#!/usr/bin/env bash
# The Windows build and its tests: installs what it needs
# (scripts/bootstrap-windows.sh), cross-builds DiagnosticScanner.dll,
# zepdiag.exe and the tests with mingw-w64, and runs every Windows test under
# Wine. The exit status is the tests'.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/bootstrap-windows.sh

jobs="${ZEP_JOBS:-$(nproc)}"
echo "== windows: build"
cmake --preset windows >/dev/null
cmake --build --preset windows -j "$jobs"

# One Wine server for the whole run, started away from ctest's pipes (see
# scripts/wine-run.sh), and stopped however the tests end.
prefix=build/windows/wineprefix
./scripts/wine-run.sh --prefix "$prefix" --start-server
trap './scripts/wine-run.sh --prefix "$prefix" --stop-server' EXIT
echo "== windows: test (under Wine)"
ctest --preset windows -j "$jobs"
