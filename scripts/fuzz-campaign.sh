#!/usr/bin/env bash
# The long fuzzing campaign, run by hand (not in CI, which keeps scripts/fuzz-smoke.sh): every
# libFuzzer target of tests/fuzz gets AFD_FUZZ_RUNS executions (default 10^7), capped at
# AFD_FUZZ_BUDGET seconds per target (default 900). Each target first runs 20 s to measure its
# speed, then continues on the same corpus. The targets run one after another, one job each, at
# nice 10 (the build machine is shared). An input is given AFD_FUZZ_TIMEOUT seconds (default 60:
# on a loaded shared machine a fuzzer can be starved for many seconds); a timeout whose input runs
# through when tried again on its own is reported as not reproducible and does not fail the run.
#
#   scripts/fuzz-campaign.sh [target ...]      # default: all targets
#
# AFD_FUZZ_FAST=1 explores with targets built without sanitizers (in build-fuzz-fast: ten to
# twenty times the executions per second), then replays every input of the grown corpus through
# the sanitized build (build-fuzz, or AFD_FUZZ_SAN_BUILD): a memory or undefined-behaviour fault
# that the exploring build reached but did not notice shows in the replay.
#
# Corpora start from the seeds in tests/fuzz/corpus/<target>/ and grow in
# $AFD_FUZZ_BUILD/campaign/<target>/ (default build-fuzz); crashes land in
# $AFD_FUZZ_BUILD/campaign/artifacts/. A table of executions, speed and outcome ends the run; the
# exit status is 1 when any target found a crash, a sanitizer report, a leak or a timeout.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
bash "$ROOT/scripts/setup.sh" "$ROOT/scripts/packages-fuzz.txt"
FAST="${AFD_FUZZ_FAST:-0}"
SAN_BUILD="${AFD_FUZZ_SAN_BUILD:-$ROOT/build-fuzz}"
if [[ $FAST == 1 ]]; then
    BUILD="${AFD_FUZZ_BUILD:-$ROOT/build-fuzz-fast}"
else
    BUILD="${AFD_FUZZ_BUILD:-$SAN_BUILD}"
fi
RUNS="${AFD_FUZZ_RUNS:-10000000}"
BUDGET="${AFD_FUZZ_BUDGET:-900}"
TIMEOUT="${AFD_FUZZ_TIMEOUT:-60}"
PROBE=20
CC_BIN="${AFD_FUZZ_CC:-clang-14}"
CXX_BIN="${AFD_FUZZ_CXX:-clang++-14}"
ALL=(fuzz_stat_frame fuzz_exposure fuzz_isp_replies fuzz_command fuzz_data_files fuzz_pin_file
     fuzz_tuning fuzz_scenario)
targets=("$@")
[[ ${#targets[@]} -gt 0 ]] || targets=("${ALL[@]}")

generator=()
command -v ninja >/dev/null 2>&1 && generator=(-G Ninja)
configure() {  # build-dir sanitizers
    cmake -S "$ROOT/tests/fuzz" -B "$1" "${generator[@]}" \
        -DCMAKE_C_COMPILER="$CC_BIN" -DCMAKE_CXX_COMPILER="$CXX_BIN" \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DAFD_FUZZ_SANITIZERS="$2" >/dev/null
    nice -n 10 cmake --build "$1" -j2
}
if [[ $FAST == 1 ]]; then
    configure "$BUILD" OFF
    configure "$SAN_BUILD" ON
else
    configure "$BUILD" ON
fi

camp="$BUILD/campaign"
mkdir -p "$camp/artifacts"

# One libFuzzer run; prints "executions exit-status" and keeps the log.
fuzz() {  # target runs seconds log
    local t="$1" runs="$2" secs="$3" log="$4" rc=0
    (cd "$camp" && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
        nice -n 10 "$BUILD/$t" -runs="$runs" -max_total_time="$secs" -timeout="$TIMEOUT" \
        -rss_limit_mb=2048 -max_len=12000 -print_final_stats=1 \
        -artifact_prefix="$camp/artifacts/$t-" "$camp/$t" >"$log" 2>&1) || rc=$?
    local n
    n=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' | tail -1)
    echo "${n:-0} $rc"
}

status=0
rows=()
for t in "${targets[@]}"; do
    mkdir -p "$camp/$t"
    [[ -d "$ROOT/tests/fuzz/corpus/$t" ]] && cp -n "$ROOT/tests/fuzz/corpus/$t/"* "$camp/$t/" 2>/dev/null || true
    read -r n1 rc1 <<<"$(fuzz "$t" "$RUNS" "$PROBE" "$camp/$t.probe.log")"
    rate=$((n1 / PROBE))
    outcome=ok total=$n1 secs=$PROBE faillog="$camp/$t.probe.log"
    if [[ $rc1 != 0 ]]; then
        outcome="FOUND (see $camp/$t.probe.log)"
    elif ((n1 < RUNS)); then
        left=$((RUNS - n1))
        need=$((rate > 0 ? left / rate : BUDGET))
        echo "== $t: $rate exec/s, $left more executions need ~${need}s (budget $((BUDGET - PROBE))s)"
        start=$(date +%s)
        read -r n2 rc2 <<<"$(fuzz "$t" "$left" "$((BUDGET - PROBE))" "$camp/$t.log")"
        total=$((n1 + n2)) secs=$((PROBE + $(date +%s) - start))
        [[ $rc2 == 0 ]] || outcome="FOUND (see $camp/$t.log)" faillog="$camp/$t.log"
    fi
    # The sanitized replay of everything the exploring build kept.
    if [[ $FAST == 1 && $outcome == ok ]]; then
        replay="$camp/$t.replay.log"
        if ! (cd "$camp" && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
            nice -n 10 "$SAN_BUILD/$t" -runs=0 -timeout="$TIMEOUT" -rss_limit_mb=2048 \
            -max_len=12000 -artifact_prefix="$camp/artifacts/$t-replay-" "$camp/$t" \
            >"$replay" 2>&1); then
            outcome="FOUND in the sanitized replay (see $replay)" faillog="$replay"
        else
            outcome="ok, $(ls "$camp/$t" | wc -l) corpus inputs replayed sanitized"
        fi
    fi
    # A timeout that does not come back when its input runs alone was the machine, not the code.
    if [[ $outcome != ok* ]]; then
        art=$(ls -t "$camp/artifacts/$t-timeout-"* 2>/dev/null | head -1 || true)
        if grep -q "ERROR: libFuzzer: timeout" "$faillog" && [[ -n $art ]] &&
            (cd "$camp" && "$BUILD/$t" -timeout="$TIMEOUT" "$art" >"$camp/$t.retry.log" 2>&1); then
            outcome="ok, timeout not reproducible ($(basename "$art") runs through alone)"
        fi
    fi
    [[ $outcome == ok* ]] || status=1
    [[ $outcome == ok* && $total -lt $RUNS ]] && outcome="$outcome, budget reached"
    true
    rows+=("$(printf '%-18s %12s %8s %7s  %s' "$t" "$total" "$rate" "$secs" "$outcome")")
    echo "== $t: $total executions in ${secs}s: $outcome"
done

printf '\n%-18s %12s %8s %7s  %s\n' target executions exec/s seconds outcome
printf '%s\n' "${rows[@]}"
ls "$camp/artifacts" 2>/dev/null | sed 's/^/artifact: /'
exit $status
