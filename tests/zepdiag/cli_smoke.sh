#!/usr/bin/env bash
# zepdiag as a user runs it, linked against the shared library: proves that
# what a host needs is exported.
set -euo pipefail
zepdiag="$1"
device="$(mktemp -d)/device"
trap 'rm -rf "$(dirname "$device")"' EXIT
latest="$device/programdata/diagnostics/latest"

"$zepdiag" init --device "$device" | grep -q "Created a demo device"
out="$("$zepdiag" scan --device "$device")"
grep -q "^Trigger: *Manual$" <<<"$out"
grep -q "xrs_api_cert_pinning" <<<"$out"
grep -q "^Component: *Quorin VPN Client (com.quorin.vpnclient)$" <<<"$out"
grep -Eq "^Problem signature: +[0-9a-fA-F]{64}$" <<<"$out"
grep -q "^Zip: *$latest/LD-4F2A9C_.*\.zip$" <<<"$out"
grep -q "^  ZEP/context/zep.reg$" <<<"$out"
grep -q "^Result file: *$latest/scan-result.json$" <<<"$out"
# One upload in the outbox, one history line, one critical event.
test "$(find "$device/outbox" -mindepth 1 -maxdepth 1 -type d | wc -l)" -eq 1
ls "$device"/outbox/0001/LD-4F2A9C_*.zip "$device"/outbox/0001/LD-4F2A9C_*.zip.metadata.json >/dev/null
grep -q "^Upload: *the scan's zip, LD-4F2A9C_.*\.zip (" <<<"$out"
test "$(wc -l <"$device/programdata/diagnostics/scan-history.log")" -eq 1
grep -Eq '^[^,]+,Manual,0,' "$device/programdata/diagnostics/scan-history.log"
grep -q "^  Upload status: *0 uploaded$" <<<"$out"
test "$(wc -l <"$device/events.log")" -eq 1
grep -Eq '"eventId"[[:space:]]*:[[:space:]]*1018' "$device/events.log"
grep -q "^Event: *1018 at " <<<"$out"

out="$("$zepdiag" notify --device "$device" \
  --payload '{"zep-message":{"action":{"cmd_param":{"requestId":"Smoke-1","target":["zep"]}}}}')"
grep -q "^Trigger: *Mqtt$" <<<"$out"
grep -q "^Scan id: *smoke-1$" <<<"$out"
grep -Eq '"id"[[:space:]]*:[[:space:]]*"smoke-1"' "$latest/scan-result.json"
ls "$latest"/*_smoke-1.zip >/dev/null
# The scan's temporary folder is gone once it is packed.
test ! -e "$device/temp/Quorin/Zep/smoke-1"

# A target that names a plug-in runs it: its own folder, zip, history line and upload.
out="$("$zepdiag" notify --device "$device" \
  --payload '{"zep-message":{"action":{"cmd_param":{"requestId":"Smoke-2","target":["demo-plugin"]}}}}')"
grep -q "^Plug-in: *demo-plugin (com.quorin.demoplugin)$" <<<"$out"
plugin="$device/programdata/plugin-data/com.quorin.demoplugin/diagnostics"
grep -Eq '^[^,]+,Mqtt,0,' "$plugin/scan-history.log"
ls "$plugin"/latest/*_com.quorin.demoplugin.zip "$device"/outbox/*/*_com.quorin.demoplugin.zip.metadata.json >/dev/null

"$zepdiag" online --device "$device" >/dev/null
"$zepdiag" history --device "$device" | grep -Eq "^[^ ]+ +Manual +0 uploaded "
grep -q "Starting Zep Diagnostics" "$device/programdata/Log/ZEPDiagnostics.log"
if "$zepdiag" frobnicate >/dev/null 2>&1; then exit 1; fi
echo "zepdiag smoke: ok"
