#!/usr/bin/env bash
# Builds everything and runs the whole test suite twice: a normal optimised build, then a build
# with AddressSanitizer and UndefinedBehaviorSanitizer. Installs missing Debian packages first.
#
#   scripts/test.sh            both builds
#   scripts/test.sh plain      only the normal build
#   scripts/test.sh sanitize   only the sanitizer build
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
bash scripts/setup.sh

what="${1:-all}"
jobs="$(nproc)"
export AFD_SYSLOG=0

# run_suite DIR CTEST_EXCLUDE CMAKE_ARGS...
run_suite() {
    local dir="$1" exclude="$2"
    shift 2
    cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
    ctest --test-dir "$dir" --output-on-failure -j "$jobs" --timeout 300 ${exclude:+-E "$exclude"}
}

if [[ "$what" == all || "$what" == plain ]]; then
    echo "== normal build and tests (build/)"
    run_suite build "" -DCMAKE_BUILD_TYPE=RelWithDebInfo
fi
if [[ "$what" == all || "$what" == sanitize ]]; then
    # The end-to-end tests (whole processes on the virtual camera, tens of seconds each) run with
    # the normal build only, to keep CI short.
    echo "== AddressSanitizer + UndefinedBehaviorSanitizer build and tests (build-asan/)"
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
        run_suite build-asan '^e2e\.' -DCMAKE_BUILD_TYPE=Debug -DAFD_SANITIZE=ON
fi
