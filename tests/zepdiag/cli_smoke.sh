#!/usr/bin/env bash
# zepdiag as a user runs it, linked against the shared library: proves that
# what a host needs is exported.
set -euo pipefail
zepdiag="$1"
device="$(mktemp -d)/device"
trap 'rm -rf "$(dirname "$device")"' EXIT

out="$("$zepdiag" scan --device "$device")"
grep -q "^Component: *Quorin VPN Client (com.quorin.vpnclient)$" <<<"$out"
grep -q "^Zip: *$device/programdata/diagnostics/latest/LD-4F2A9C_.*\.zip$" <<<"$out"
ls "$device"/outbox/0001/LD-4F2A9C_*.zip.metadata.json >/dev/null
grep -Eq '"eventId"[[:space:]]*:[[:space:]]*1018' "$device/events.log"

out="$("$zepdiag" notify --device "$device" \
  --payload '{"zep-message":{"action":{"cmd_param":{"requestId":"Smoke-1","target":["demo-plugin"]}}}}')"
grep -q "^Plug-in: *demo-plugin (com.quorin.demoplugin)$" <<<"$out"
ls "$device"/outbox/*/*_com.quorin.demoplugin.zip.metadata.json >/dev/null

"$zepdiag" online --device "$device" | grep -q "online notification was delivered"
echo "zepdiag smoke: ok"
