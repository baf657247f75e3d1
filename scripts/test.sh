#!/usr/bin/env bash
# The whole test suite: a debug build and an AddressSanitizer +
# UndefinedBehaviorSanitizer build of everything, the integration tests
# (label `integration`: zepdiag serve against a real mosquitto and a real HTTPS
# server) included, and a ThreadSanitizer build of the concurrency tests and
# of the service with its integration tests.
# Warnings are errors in all of them. The fast set alone: ctest --preset fast.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/bootstrap.sh

jobs="$(nproc)"
for preset in debug asan; do
  echo "== $preset: build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  echo "== $preset: test"
  ctest --preset "$preset" -j "$jobs"
done

echo "== tsan: build (the tests that run threads, and the service)"
cmake --preset tsan >/dev/null
cmake --build --preset tsan -j "$jobs" --target concurrency_tests manager_tests platform_tests \
  zepdiag serve_integration_tests
echo "== tsan: test"
ctest --preset tsan -j "$jobs"
