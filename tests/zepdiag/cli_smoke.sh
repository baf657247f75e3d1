#!/usr/bin/env bash
# zepdiag as a user runs it, linked against the shared library: proves that
# what a host needs is exported.
set -euo pipefail
zepdiag="$1"
device="$(mktemp -d)/device"
trap 'rm -rf "$(dirname "$device")"' EXIT

"$zepdiag" init --device "$device" | grep -q "Created a demo device"
out="$("$zepdiag" scan --device "$device")"
grep -q "Trigger: *Manual" <<<"$out"
grep -q "xrs_api_cert_pinning" <<<"$out"
out="$("$zepdiag" notify --device "$device" \
  --payload '{"zep-message":{"action":{"cmd_param":{"requestId":"Smoke-1","target":["zep"]}}}}')"
grep -q "Trigger: *Mqtt" <<<"$out"
test -f "$device/temp/Quorin/Zep/smoke-1/ZEP/component-result.json"
"$zepdiag" online --device "$device" >/dev/null
grep -q "Starting Zep Diagnostics" "$device/programdata/Log/ZEPDiagnostics.log"
if "$zepdiag" frobnicate >/dev/null 2>&1; then exit 1; fi
echo "zepdiag smoke: ok"
