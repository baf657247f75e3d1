#!/usr/bin/env bash
# Runs a Windows program under Wine in a prefix of the build folder; the
# CMAKE_CROSSCOMPILING_EMULATOR of cmake/mingw-w64-x86_64.cmake.
#
#   wine-run.sh [--prefix DIR] PROGRAM [ARGS...]   exit status: the program's
#   wine-run.sh [--prefix DIR] --start-server      a wineserver that stays (if none runs)
#   wine-run.sh [--prefix DIR] --stop-server       ends it (and the prefix's programs)
#
# DIR defaults to $ZEP_WINE_PREFIX; the prefix is made on first use.
# WINEDLLOVERRIDES passes through (e.g. powershell.exe=n).
#
# Wine starts its wineserver from the first program, and the server (with
# Wine's own background programs) inherits that program's stdout, stderr and
# any other descriptor: ctest then waits for the server to exit, about 3 s a
# test, once for many minutes. Every run therefore makes sure a server is up
# first, started here with nothing of ours open, in a session of its own; it
# leaves 30 s after the last program.
set -euo pipefail

wine_dir=/usr/lib/wine
idle_seconds=30  # how long a server started by a run outlives the last program

prefix="${ZEP_WINE_PREFIX:-}"
if [ "${1:-}" = --prefix ]; then
  [ $# -ge 2 ] || { echo "wine-run.sh: --prefix needs a folder" >&2; exit 2; }
  prefix="$2"; shift 2
fi
if [ -z "$prefix" ] || [ $# -eq 0 ]; then
  echo "usage: wine-run.sh [--prefix DIR] PROGRAM [ARGS...] | --start-server | --stop-server" >&2
  echo "       (DIR defaults to \$ZEP_WINE_PREFIX)" >&2
  exit 2
fi
[ -x "$wine_dir/wine64" ] || { echo "wine-run.sh: no $wine_dir/wine64 (scripts/bootstrap-windows.sh installs it)" >&2; exit 2; }

WINEPREFIX="$(realpath -m "$prefix")"
export WINEPREFIX WINEDEBUG=-all WINEARCH=win64
# Console programs only: no window, whatever display the caller has.
unset DISPLAY WAYLAND_DISPLAY

# Runs a command with stdio on /dev/null, no other descriptor of ours (ctest
# hands its children a log file and a pipe) and a session of its own.
detached() {
  (
    for fd in /proc/$BASHPID/fd/*; do
      fd="${fd##*/}"
      [ "$fd" -gt 2 ] && eval "exec $fd>&-"
    done 2>/dev/null
    exec setsid --wait "$@" </dev/null >/dev/null 2>&1
  )
}

# Starts the prefix's server (it forks into the background once it listens;
# status 2: one runs already) and then the first program, which brings up
# Wine's own background programs (services.exe, winedevice.exe, ...): they
# too live as long as the server and must not hold anyone's descriptors.
start_server() {  # persistence: "" = until --stop-server, or idle seconds
  mkdir -p "$WINEPREFIX"
  if detached "$wine_dir/wineserver" "-p$1"; then
    detached "$wine_dir/wine64" cmd.exe /c exit 0 || true
  fi
}

case "$1" in
  --start-server) start_server ""; exit 0 ;;
  --stop-server)
    [ -d "$WINEPREFIX" ] || exit 0
    "$wine_dir/wineserver" -k </dev/null >/dev/null 2>&1 || true
    "$wine_dir/wineserver" -w </dev/null >/dev/null 2>&1 || true
    exit 0 ;;
esac

# First use: make the prefix once, even when ctest starts several programs at
# a time. Wine Mono and Gecko are not installed (nothing here needs .NET or
# HTML, and their installers would ask for a download), nor menu entries
# written into the user's home.
if [ ! -e "$WINEPREFIX/.zep-ready" ]; then
  mkdir -p "$(dirname "$WINEPREFIX")"
  exec 9>"$WINEPREFIX.lock"
  flock 9
  if [ ! -e "$WINEPREFIX/.zep-ready" ]; then
    detached "$wine_dir/wineserver" "-p$idle_seconds" || true
    WINEDLLOVERRIDES="mscoree,mshtml,winemenubuilder.exe=" detached "$wine_dir/wine64" wineboot --init
    # Wine links the user's Desktop, Documents, ... to the host's home: make
    # them folders of the prefix, so that nothing under test writes there.
    for link in "$WINEPREFIX"/drive_c/users/*/*; do
      if [ -L "$link" ]; then rm "$link" && mkdir "$link"; fi
    done
    touch "$WINEPREFIX/.zep-ready"
  fi
  exec 9>&-
fi

start_server "$idle_seconds"
exec "$wine_dir/wine64" "$@"
