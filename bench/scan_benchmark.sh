#!/usr/bin/env bash
# A manual scan of generated devices against its deflate floor and against the
# same staging and packing done by standard tools, in one run.
#
#   ./bench/scan_benchmark.sh [PARENT]
#
# Devices (seeded; see zep_staging_bench generate):
#   base   200 MiB of logs in 1,000 files, a 20 MiB database, 2,000 files in the data root
#   1g     the same with 1 GiB of logs
#   20k    about 50 MiB of logs kept out of 24,000 small files
# Contenders on the base device, each on its own copy:
#   scan   the module's manual scan (zep_staging_bench run)
#   floor  pigz -6 -p 2 over exactly what the scan packs (its archive unpacked, through tar);
#          also over what the 20k scan packs, for the cost of many small files
#   tools  cp -a, find -delete, sort | awk, perl -i, zip -r -6, as the scan's steps
# It prints the times, the ratios the module is held to and the scans' peak
# resident memory, and checks that the scan's and the tools' archives hold the
# same logs with the same scrub.
#
# Each contender runs RUNS times (default 3; the scans of the devices take
# turns) with its files read into memory just before, and the table shows the
# medians: on a shared machine a single sample can be several times slower.
#
# Works in a new folder below PARENT (default ${TMPDIR:-/tmp}; about 2.5 GB),
# removed at the end unless KEEP=1. VARIANTS="base" skips the 1g and 20k
# devices. SCANNER=FILE runs the scans with another build of zep_staging_bench
# (an earlier commit's, for a before/after table). JOBS=N limits the build's
# parallel jobs.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
bench=$root/build/release/bench/zep_staging_bench
scanner=${SCANNER:-$bench}
variants=${VARIANTS:-base 1g 20k}
runs=${RUNS:-3}
log_budget=52428800  # the module's 50 MiB of newest logs

# ---- what the run needs ------------------------------------------------------
missing=()
command -v zip >/dev/null || missing+=(zip)
command -v unzip >/dev/null || missing+=(unzip)
command -v pigz >/dev/null || missing+=(pigz)
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
work=$(mktemp -d "$parent/zep-scan-bench.XXXXXX")
cleanup() { if [ "${KEEP:-0}" = 1 ]; then echo "Kept $work"; else rm -rf "$work"; fi; }
trap cleanup EXIT

now() { date +%s.%N; }
seconds() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
value() { sed -n "s/^$2=//p" "$1"; }
median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
# Reads a tree's files, so that a contender finds them in memory (the page
# cache of this kind of machine is reclaimed behind our back), and writes
# back what earlier runs left, so that no run pays for another's writes.
warm() {
  find "$1" -type f -exec cat {} + >/dev/null
  sync
}
# The median over the runs of a scan's report value, or the largest RSS.
scan_value() { for run in $(seq "$runs"); do value "$work/$1.$run.report" "$2"; done | median; }
rss_of() {
  for run in $(seq "$runs"); do awk -F': ' '/Maximum resident set size/ { print $2 }' "$work/$1.$run.time"; done |
    sort -n | tail -1
}

# ---- the devices -------------------------------------------------------------
echo "Generating the devices: $variants"
for variant in $variants; do
  case $variant in
    base) "$bench" generate "$work/$variant" >/dev/null ;;
    1g) "$bench" generate "$work/$variant" --log-mib 1024 >/dev/null ;;
    20k) "$bench" generate "$work/$variant" --log-mib 60 --log-files 24000 --min-log-kib 1 >/dev/null ;;
    *) echo "unknown variant $variant" >&2; exit 2 ;;
  esac
done
cp -a "$work/base" "$work/tools"
sync  # write-back must not run during a contender

# ---- the same work by standard tools -----------------------------------------
# Mirrors the module: the Log folder copied, archives deleted, the newest logs
# kept up to the budget, the files directly in Log scrubbed, the data root
# listed, the database, version and registry added, the folder zipped, the
# staging deleted.
cat > "$work/tools.sh" <<'TOOLS'
#!/usr/bin/env bash
set -euo pipefail
device=$1 staging=$2 archive=$3 budget=$4
data=$device/programdata
log=$staging/ZEP/Log
context=$staging/ZEP/context
mkdir -p "$context"
cp -a "$data/Log" "$log"
find "$log" -type f -iname '*.zip' -delete
find "$log" -type f -printf '%T@ %s %p\n' | sort -rn |
  awk -v limit="$budget" '{ total += $2 } total > limit { sub(/^[^ ]+ [^ ]+ /, ""); print }' |
  xargs -r -d '\n' rm -f --
find "$log" -maxdepth 1 -type f -exec perl -i -pe \
  'unless (/version/i) { s/(?<=")(\d{1,3}\.\d{1,3}\.\d{1,3}\.\d{1,3})(?=")/[REDACTED_IP]/g }' {} +
find "$data" -type f > "$context/zep_programdata_files.txt"
cp "$data/DB/SyncPoint.sqlite3" "$context/SyncPoint_sqlite3.dat"
printf '4.12.3.0' > "$context/zepVersion.txt"
cp "$device/registry.reg" "$context/zep.reg"
(cd "$staging" && zip -r -q -6 "$archive" .)
rm -rf "$staging"
TOOLS

echo "Load average before the contenders: $(cut -d' ' -f1-3 /proc/loadavg) ($(nproc) CPUs)"

# ---- the scans -----------------------------------------------------------------
for run in $(seq "$runs"); do
  for variant in $variants; do
    echo "Scanning $variant ($run of $runs)"
    warm "$work/$variant"
    if ! /usr/bin/time -v -o "$work/$variant.$run.time" "$scanner" run "$work/$variant" \
        --report "$work/$variant.$run.report" >/dev/null; then
      echo "The scan of $variant failed; its log: $work/$variant/programdata/Log/ZEPDiagnostics.log" >&2
      KEEP=1
      exit 1
    fi
  done
done
scan_zip=$(value "$work/base.$runs.report" zip)

# ---- the floor: deflating exactly what the scan packs ---------------------------
# floor_of NAME REPORT: the median time of tar | pigz over what that scan packed.
floor_of() {
  mkdir "$work/unpacked-$1"
  unzip -q "$(value "$2" zip)" -d "$work/unpacked-$1"
  for run in $(seq "$runs"); do
    warm "$work/unpacked-$1"
    start=$(now)
    tar -cf - -C "$work/unpacked-$1" . | pigz -6 -p 2 > /dev/null
    seconds "$start" "$(now)"
    echo
  done > "$work/floor-$1.times"
}
echo "Deflating the same bytes: tar | pigz -6 -p 2"
floor_of base "$work/base.$runs.report"
floor_s=$(median < "$work/floor-base.times")
packed_bytes=$(du -sb --apparent-size "$work/unpacked-base" | cut -f1)
# The same floor over the 20k scan's bytes: what reading as many small files
# costs deflate's standard tool, to set the scan's own ratio against.
floor_20k_s=""
case " $variants " in
  *" 20k "*)
    floor_of 20k "$work/20k.$runs.report"
    floor_20k_s=$(median < "$work/floor-20k.times")
    ;;
esac

echo "Standard tools: cp -a, find, sort | awk, perl -i, zip -r -6"
for run in $(seq "$runs"); do
  rm -f "$work/tools.zip"
  warm "$work/tools"
  start=$(now)
  bash "$work/tools.sh" "$work/tools" "$work/tools/staging" "$work/tools.zip" "$log_budget"
  seconds "$start" "$(now)"
  echo
done > "$work/tools.times"
tools_s=$(median < "$work/tools.times")
echo "Load average after the contenders: $(cut -d' ' -f1-3 /proc/loadavg)"

# ---- the table -----------------------------------------------------------------
scan_s=$(scan_value base wall_s)
echo
printf '%-40s %9s %9s %9s %9s\n' "" "s" "MiB in" "zip MiB" "RSS MiB"
for variant in $variants; do
  awk -v name="scan $variant" -v s="$(scan_value "$variant" wall_s)" \
    -v zip="$(value "$work/$variant.$runs.report" zip_bytes)" -v rss="$(rss_of "$variant")" \
    -v files="$(value "$work/$variant.$runs.report" log_files)" 'BEGIN {
      printf "%-40s %9.2f %9s %9.1f %9.1f\n", name " (" files " logs)", s, "", zip / 1048576, rss / 1024 }'
done
awk -v s="$floor_s" -v bytes="$packed_bytes" 'BEGIN {
  printf "%-40s %9.2f %9.1f\n", "floor (tar | pigz -6 -p 2)", s, bytes / 1048576 }'
if [ -n "$floor_20k_s" ]; then
  awk -v s="$floor_20k_s" -v bytes="$(du -sb --apparent-size "$work/unpacked-20k" | cut -f1)" 'BEGIN {
    printf "%-40s %9.2f %9.1f\n", "floor of the 20k scan'"'"'s bytes", s, bytes / 1048576 }'
fi
awk -v s="$tools_s" -v zip="$(stat -c %s "$work/tools.zip")" 'BEGIN {
  printf "%-40s %9.2f %9s %9.1f\n", "tools (cp find awk perl zip -6)", s, "", zip / 1048576 }'
echo
awk -v scan="$scan_s" -v floor="$floor_s" -v tools="$tools_s" 'BEGIN {
  printf "scan / floor          %5.2fx   (target <= 1.2)\n", scan / floor
  printf "tools / scan          %5.2fx   (target >= 3)\n", tools / scan }'
for variant in $variants; do
  case $variant in
    20k) target="<= 1.3" ;;
    1g) target="<= 1.1" ;;
    *) continue ;;
  esac
  awk -v name="$variant" -v s="$(scan_value "$variant" wall_s)" -v base="$scan_s" -v target="$target" 'BEGIN {
    printf "scan %-4s / scan base %5.2fx   (target %s)\n", name, s / base, target }'
done
if [ -n "$floor_20k_s" ]; then
  awk -v a="$floor_20k_s" -v b="$floor_s" 'BEGIN {
    printf "floor 20k / floor     %5.2fx   (the same ratio for deflating what the two scans pack)\n", a / b }'
fi
max_rss=0
for variant in $variants; do
  rss=$(rss_of "$variant")
  [ "$rss" -gt "$max_rss" ] && max_rss=$rss
done
awk -v rss="$max_rss" 'BEGIN { printf "peak RSS of a scan    %5.1f MiB (target <= 64)\n", rss / 1024 }'
echo "s: medians of $runs runs; the scan alone (process start and the archive's check excluded), the floor and the tools end to end."
echo "Each run's seconds: scans $(for v in $variants; do printf '%s ' "$v:$(for r in $(seq "$runs"); do value "$work/$v.$r.report" wall_s; done | tr '\n' ',' | sed 's/,$//')"; done)floor $(tr '\n' ',' < "$work/floor-base.times" | sed 's/,$//')${floor_20k_s:+ floor-20k $(tr '\n' ',' < "$work/floor-20k.times" | sed 's/,$//')} tools $(tr '\n' ',' < "$work/tools.times" | sed 's/,$//')"

# ---- the scan's and the tools' archives hold the same logs ------------------------
# The module's own log (ZEPDiagnostics.log) is written during its scan and is
# only in its archive.
"$bench" zipinfo "$scan_zip" --log-list "$work/scan.list" >/dev/null
"$bench" zipinfo "$work/tools.zip" --log-list "$work/tools.list" >/dev/null
grep -v '^ZEPDiagnostics\.log' "$work/scan.list" > "$work/scan.compared" || true
same=0
if cmp -s "$work/scan.compared" "$work/tools.list"; then
  echo "Same logs: both archives hold the same $(wc -l < "$work/tools.list") log files (sizes and CRC-32)."
else
  echo "DIFFERENT logs in the two archives (scan <, tools >):"
  diff "$work/scan.compared" "$work/tools.list" | head -20 || true
  same=1
fi
exit $same
