#!/usr/bin/env bash
# The main job: builds the module and zepdiag, and runs a manual diagnostics
# scan of a demo device (./zep-device, created on first use).
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/bootstrap.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target zepdiag >/dev/null
exec ./build/release/zepdiag/zepdiag scan --device "${1:-./zep-device}"
