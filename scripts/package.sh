#!/usr/bin/env bash
# Builds the Debian package (release build installed under /usr, preset
# `package`) and checks its file list against packaging/expected-files.txt.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/bootstrap.sh

cmake --preset package >/dev/null
cmake --build --preset package -j "$(nproc)"
rm -f build/package/zepdiag_*.deb
cpack --preset package >/dev/null
deb="$(ls build/package/zepdiag_*.deb)"

# Paths, and where a link points; the library's folder is the machine's.
listed="$(dpkg-deb -c "$deb" | awk '{ path = $6; if ($7 == "->") path = path " -> " $8; print path }' | sort)"
expected="$(sed "s|@MULTIARCH@|$(dpkg-architecture -qDEB_HOST_MULTIARCH)|" packaging/expected-files.txt | sort)"
if ! diff -u <(echo "$expected") <(echo "$listed"); then
  echo "package: the file list of $deb differs from packaging/expected-files.txt" >&2
  exit 1
fi
# The unit as systemd reads it, with ExecStart pointing into the package.
if command -v systemd-analyze >/dev/null; then
  stage="$(mktemp -d)"
  trap 'rm -rf "$stage"' EXIT
  dpkg-deb -x "$deb" "$stage/root"
  sed "s|/usr/bin/zepdiag|$stage/root/usr/bin/zepdiag|" "$stage/root/usr/lib/systemd/system/zepdiag.service" \
    > "$stage/zepdiag.service"
  complaints="$(systemd-analyze verify "$stage/zepdiag.service" 2>&1)"
  if [ -n "$complaints" ]; then
    echo "package: systemd finds fault with zepdiag.service:" >&2
    echo "$complaints" >&2
    exit 1
  fi
fi
echo "package: $deb"
dpkg-deb -c "$deb"
