#!/usr/bin/env bash
# Every header of the exported interface compiles on its own, with nothing but
# include/ on the include path: a host needs no other header of the module.
# Usage: public_headers.sh <C++ compiler> <include folder>
set -euo pipefail
compiler="$1"
include="$2"
status=0
for header in "$include"/DiagnosticScanner/*.h; do
    name="DiagnosticScanner/$(basename "$header")"
    if ! printf '#include "%s"\n' "$name" |
        "$compiler" -std=c++17 -fsyntax-only -Wall -Wextra -Werror -I "$include" -x c++ -; then
        echo "public_headers: $name does not compile on its own" >&2
        status=1
    fi
done
[ "$status" -eq 0 ] && echo "public_headers: every header compiles on its own"
exit "$status"
