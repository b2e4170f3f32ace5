#!/usr/bin/env bash
# Builds the libFuzzer targets (tests/fuzz) with clang and runs each briefly. Any crash, sanitizer
# report or leak fails the script. The run time per target is AFD_FUZZ_SECONDS (default 12; eight
# targets, so 96 s of fuzzing in all, plus a few minutes of build on two cores the first time); the
# build directory is AFD_FUZZ_BUILD (default build-fuzz), where the corpora grow from run to run,
# seeded from tests/fuzz/corpus/<target>/. The long campaign is scripts/fuzz-campaign.sh.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
bash "$ROOT/scripts/setup.sh" "$ROOT/scripts/packages-fuzz.txt"
BUILD="${AFD_FUZZ_BUILD:-$ROOT/build-fuzz}"
SECS="${AFD_FUZZ_SECONDS:-12}"
CC_BIN="${AFD_FUZZ_CC:-clang-14}"
CXX_BIN="${AFD_FUZZ_CXX:-clang++-14}"

generator=()
if command -v ninja >/dev/null 2>&1; then
    generator=(-G Ninja)
fi
cmake -S "$ROOT/tests/fuzz" -B "$BUILD" "${generator[@]}" \
    -DCMAKE_C_COMPILER="$CC_BIN" -DCMAKE_CXX_COMPILER="$CXX_BIN" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$BUILD" -j"$(nproc)"

status=0
for target in fuzz_stat_frame fuzz_exposure fuzz_isp_replies fuzz_command fuzz_data_files \
    fuzz_pin_file fuzz_tuning fuzz_scenario; do
    corpus="$BUILD/corpus/$target"
    mkdir -p "$corpus"
    cp -n "$ROOT/tests/fuzz/corpus/$target/"* "$corpus/" 2>/dev/null || true
    echo "== $target (${SECS}s)"
    if ! (cd "$BUILD" && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
        "./$target" -max_total_time="$SECS" -timeout=10 -rss_limit_mb=2048 -max_len=12000 \
        -print_final_stats=1 "$corpus" 2>"$BUILD/$target.log"); then
        echo "FAILED: $target (log: $BUILD/$target.log)"
        tail -40 "$BUILD/$target.log"
        status=1
    else
        grep -E "stat::number_of_executed_units|Done" "$BUILD/$target.log" | tail -2
    fi
done
exit $status
