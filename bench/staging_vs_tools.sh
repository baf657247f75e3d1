#!/usr/bin/env bash
# The staging and zip of a generated device (200 MiB of logs in 1,000 files,
# a 20 MiB database, 2,000 files under the data root): the module's manual
# scan against the same work done by standard tools, each on its own copy of
# the same data, in the same run.
#
#   ./bench/staging_vs_tools.sh [PARENT]
#
# Works in a new folder below PARENT (default ${TMPDIR:-/tmp}; about 1 GB),
# removed at the end unless KEEP=1. JOBS=N limits the build's parallel jobs.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
bench=$root/build/release/bench/zep_staging_bench
log_budget=52428800  # the module's 50 MiB of newest logs

# ---- what the run needs -------------------------------------------------------
missing=()
command -v zip >/dev/null || missing+=(zip)
[ -x /usr/bin/time ] || missing+=(time)
command -v perl >/dev/null || missing+=(perl)
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

echo "Building zep_staging_bench (release preset)"
(cd "$root" && cmake --preset release >/dev/null &&
  cmake --build --preset release --target zep_staging_bench ${JOBS:+-j "$JOBS"} >/dev/null)

parent=${1:-${TMPDIR:-/tmp}}
mkdir -p "$parent"
work=$(mktemp -d "$parent/zep-staging-bench.XXXXXX")
cleanup() { if [ "${KEEP:-0}" = 1 ]; then echo "Kept $work"; else rm -rf "$work"; fi; }
trap cleanup EXIT

# ---- the device, once; a copy per contender -----------------------------------
"$bench" generate "$work/device"
cp -a "$work/device" "$work/module"
cp -a "$work/device" "$work/tools"
sync  # the copies' write-back must not run during a contender

# ---- the same work by standard tools --------------------------------------------
# Mirrors the module: the Log folder copied, archives deleted, the newest logs
# kept up to the budget, the files directly in Log scrubbed, the data root
# listed, the database, version and registry added, the folder zipped, the
# staging deleted.
cat > "$work/tools.sh" <<'TOOLS'
#!/usr/bin/env bash
set -euo pipefail
device=$1 staging=$2 archive=$3 steps=$4 budget=$5
data=$device/programdata
log=$staging/ZEP/Log
context=$staging/ZEP/context
: > "$steps"
step() {
  local name=$1 start
  shift
  start=$(date +%s.%N)
  "$@"
  awk -v name="$name" -v a="$start" -v b="$(date +%s.%N)" 'BEGIN { printf "%-10s %6.2f s\n", name, b - a }' >> "$steps"
}
copy() { mkdir -p "$context" && cp -a "$data/Log" "$log"; }
archives() { find "$log" -type f -iname '*.zip' -delete; }
limit() {
  find "$log" -type f -printf '%T@ %s %p\n' | sort -rn |
    awk -v limit="$budget" '{ total += $2 } total > limit { sub(/^[^ ]+ [^ ]+ /, ""); print }' |
    xargs -r -d '\n' rm -f --
}
scrub() {
  find "$log" -maxdepth 1 -type f -exec perl -i -pe \
    'unless (/version/i) { s/(?<=")(\d{1,3}\.\d{1,3}\.\d{1,3}\.\d{1,3})(?=")/[REDACTED_IP]/g }' {} +
}
add_context() {
  find "$data" -type f > "$context/zep_programdata_files.txt"
  cp "$data/DB/SyncPoint.sqlite3" "$context/SyncPoint_sqlite3.dat"
  printf '4.12.3.0' > "$context/zepVersion.txt"
  cp "$device/registry.reg" "$context/zep.reg"
}
pack() { (cd "$staging" && zip -r -q "$archive" .); }
step copy copy
step archives archives
step limit limit
step scrub scrub
step context add_context
step zip pack
step cleanup rm -rf "$staging"
TOOLS

# Other work on the machine shows in every number below.
echo
echo "Load average before the contenders: $(cut -d' ' -f1-3 /proc/loadavg) ($(nproc) CPUs)"
echo
echo "Module: one manual scan"
if ! /usr/bin/time -v -o "$work/module.time" "$bench" run "$work/module" --report "$work/module.report"; then
  echo "The module's run failed; its log: $work/module/programdata/Log/ZEPDiagnostics.log" >&2
  KEEP=1
  exit 1
fi
module_zip=$(sed -n 's/^zip=//p' "$work/module.report")

echo
echo "Standard tools: cp -a, find, sort | awk, perl -i, zip -r"
/usr/bin/time -v -o "$work/tools.time" \
  bash "$work/tools.sh" "$work/tools" "$work/tools/staging" "$work/tools.zip" "$work/tools.steps" "$log_budget"
sed 's/^/  /' "$work/tools.steps"

# ---- the table ------------------------------------------------------------------
"$bench" zipinfo "$module_zip" --log-list "$work/module.list" > "$work/module.zipinfo"
"$bench" zipinfo "$work/tools.zip" --log-list "$work/tools.list" > "$work/tools.zipinfo"

value() { sed -n "s/^$2=//p" "$1"; }
wall_of() {
  awk -F': ' '/Elapsed \(wall clock\)/ { n = split($2, p, ":"); s = 0; for (i = 1; i <= n; i++) s = s * 60 + p[i]; print s }' "$1"
}
rss_of() { awk -F': ' '/Maximum resident set size/ { print $2 }' "$1"; }
row() {  # name time-file zipinfo-file
  awk -v name="$1" -v wall="$(wall_of "$2")" -v rss="$(rss_of "$2")" \
    -v logs="$(value "$3" log_bytes)" -v zip="$(value "$3" zip_bytes)" 'BEGIN {
      mib = 1048576
      printf "%-34s %8.2f %10.1f %8.1f %10.1f %8.1f\n", name, wall, logs / mib, (wall > 0 ? logs / mib / wall : 0), rss / 1024, zip / mib
    }'
}
echo
printf '%-34s %8s %10s %8s %10s %8s\n' contender "wall s" "logs MiB" "MiB/s" "RSS MiB" "zip MiB"
row "module (manual scan)" "$work/module.time" "$work/module.zipinfo"
row "tools (cp find sort awk perl zip)" "$work/tools.time" "$work/tools.zipinfo"
echo
echo "wall s: elapsed time of the process (the module's: the whole manual scan, process start included;"
awk -v s="$(value "$work/module.report" wall_s)" 'BEGIN { printf "        the scan alone took %.2f s).\n", s }'
echo "MiB/s: MiB of logs kept in the archive (the entries below ZEP/Log/) per wall second."
echo "RSS MiB: peak resident memory of the largest single process (/usr/bin/time -v)."
echo "Load average after the contenders: $(cut -d' ' -f1-3 /proc/loadavg)"

# ---- the two archives hold the same logs ----------------------------------------
# The module's own log (ZEPDiagnostics.log) is written during its scan and is
# only in its archive.
echo
grep -v '^ZEPDiagnostics\.log' "$work/module.list" > "$work/module.compared" || true
files=$(wc -l < "$work/tools.list")
if cmp -s "$work/module.compared" "$work/tools.list"; then
  echo "Same logs: both archives hold the same $files log files, with equal sizes and CRC-32"
  echo "(the module's archive also holds its own log)."
  same=0
else
  echo "DIFFERENT logs in the two archives (module <, tools >):"
  diff "$work/module.compared" "$work/tools.list" | head -20 || true
  same=1
fi
sample=$(awk -F'\t' 'index($1, "/") == 0 { print $1; exit }' "$work/tools.list")
if [ -n "$sample" ]; then
  "$bench" extract "$module_zip" "ZEP/Log/$sample" "$work/sample.module"
  "$bench" extract "$work/tools.zip" "ZEP/Log/$sample" "$work/sample.tools"
  redacted=$(grep -o 'REDACTED_IP' "$work/sample.tools" | wc -l)
  if diff -q "$work/sample.module" "$work/sample.tools" >/dev/null; then
    echo "Same scrub: Log/$sample is identical in both archives ($redacted addresses redacted)."
  else
    echo "DIFFERENT scrub of Log/$sample:"
    diff "$work/sample.module" "$work/sample.tools" | head -10 || true
    same=1
  fi
fi
exit $same
