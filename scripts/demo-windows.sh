#!/usr/bin/env bash
# The Windows build's demo: zepdiag.exe and DiagnosticScanner.dll scan a demo
# device under Wine, the Windows way.
#
#   scripts/demo-windows.sh [DIR]     (default: ./zep-device-windows)
#
# DIR is made a demo device when it is missing or empty, and its registry.reg
# is imported into the Wine prefix's registry (zepdiag.exe init). The module
# then collects and packs with PowerShell. Wine's own powershell.exe does
# nothing, so the tests' stand-in takes its place: it records each command
# line the module launches (printed after the summary) and exits 0, but packs
# nothing, so the scan reports no archive and keeps what it staged. A second
# scan then packs with the module's own one-pass packer (--native), as on
# Linux, and lists its archive.
set -euo pipefail
cd "$(dirname "$0")/.."
device="$(realpath -m "${1:-./zep-device-windows}")"
./scripts/bootstrap-windows.sh
cmake --preset windows >/dev/null
cmake --build --preset windows -j "${ZEP_JOBS:-$(nproc)}" --target zepdiag PowerShellStandIn >/dev/null

bin=build/windows/bin
prefix=build/windows/wineprefix
run() { ./scripts/wine-run.sh --prefix "$prefix" "$@"; }
run --start-server
trap 'run --stop-server' EXIT

# The stand-in where the module looks for PowerShell, preferred to Wine's own.
system32="$prefix/drive_c/windows/system32"
mkdir -p "$system32/WindowsPowerShell/v1.0"
cp "$bin/PowerShellStandIn.exe" "$system32/WindowsPowerShell/v1.0/powershell.exe"
export WINEDLLOVERRIDES=powershell.exe=n
record="$(realpath build/windows)/demo-powershell-commands.txt"
: >"$record"
export ZEP_POWERSHELL_RECORD="Z:${record//\//\\}"
windows_device="Z:${device//\//\\}"

run "$bin/zepdiag.exe" init --device "$windows_device"
echo
run "$bin/zepdiag.exe" scan --device "$windows_device"
echo
echo "PowerShell command lines the module launched (recorded by the stand-in):"
sed 's/^/  /' "$record"
echo
echo "The same device scanned again with the module's own packer (--native):"
: >"$record"
run "$bin/zepdiag.exe" scan --native --device "$windows_device"

