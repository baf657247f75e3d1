#!/usr/bin/env bash
# Runs every libFuzzer harness of fuzz/ for a bounded time under
# AddressSanitizer and UndefinedBehaviorSanitizer, each starting from its seed
# corpus in fuzz/corpus/<harness>/ (which stays as it is). Fails on any crash,
# leak, time-out or memory blow-up; the input that caused it is kept in
# build/fuzz/findings/.
#
#   scripts/fuzz.sh [seconds per harness, default 20] [harness ...]
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/bootstrap.sh

seconds="${1:-20}"
shift || true
harnesses=("$@")
if [ ${#harnesses[@]} -eq 0 ]; then
    for source in fuzz/*_fuzz.cpp; do
        name="$(basename "$source" _fuzz.cpp)"
        harnesses+=("$name")
    done
fi

echo "== fuzz: build"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)" --target "${harnesses[@]/#/fuzz_}"

findings="build/fuzz/findings"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
mkdir -p "$findings"
passed=0
failed=0
for name in "${harnesses[@]}"; do
    dictionary="fuzz/$name.dict"
    [ -f "$dictionary" ] || dictionary="fuzz/json.dict"
    mkdir -p "$work/$name"
    log="$work/$name.log"
    echo "== fuzz: $name for ${seconds} s"
    if ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
        "build/fuzz/fuzz/fuzz_$name" "$work/$name" "fuzz/corpus/$name" -dict="$dictionary" \
        -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -malloc_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$findings/$name-" >"$log" 2>&1; then
        passed=$((passed + 1))
        executions="$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")"
        coverage="$(grep -E '^#[0-9]+' "$log" | tail -1 | grep -oE 'cov: [0-9]+ ft: [0-9]+' || true)"
        echo "fuzz: $name: ${executions:-?} executions, ${coverage:-no coverage line}"
    else
        failed=$((failed + 1))
        tail -n 60 "$log"
        echo "fuzz: $name FAILED (the input is in $findings/)"
    fi
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
