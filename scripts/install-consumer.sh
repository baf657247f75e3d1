#!/usr/bin/env bash
# Installs the module from a build tree (default: build/package, which
# scripts/package.sh makes) into a scratch DESTDIR, then builds and runs the
# consumer in tests/install-consumer/ against that tree alone: once through
# the CMake package, once through pkg-config.
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build/package}"
stage="$(mktemp -d)"
trap 'rm -rf "$stage"' EXIT

DESTDIR="$stage/root" cmake --install "$build" >/dev/null
prefix="$stage/root$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build/CMakeCache.txt")"
library_dir="$(dirname "$(find "$prefix" -name 'libDiagnosticScanner.so' -print -quit)")"

echo "== install consumer: find_package(DiagnosticScanner)"
cmake -S tests/install-consumer -B "$stage/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$stage/consumer" >/dev/null
LD_LIBRARY_PATH="$library_dir" "$stage/consumer/consumer"

echo "== install consumer: pkg-config DiagnosticScanner"
flags="$(PKG_CONFIG_SYSROOT_DIR="$stage/root" PKG_CONFIG_LIBDIR="$library_dir/pkgconfig" \
  pkg-config --cflags --libs DiagnosticScanner)"
# shellcheck disable=SC2086 # the flags are words
g++ -std=c++17 tests/install-consumer/main.cpp $flags -o "$stage/consumer-pc"
LD_LIBRARY_PATH="$library_dir" "$stage/consumer-pc"
