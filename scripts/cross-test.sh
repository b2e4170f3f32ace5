#!/usr/bin/env bash
# Runs the cross-built unit tests under qemu-aarch64 through CTest (the toolchain file sets the
# emulator). Run scripts/cross-build.sh first.
#   bash scripts/cross-test.sh [build dir] [extra ctest arguments...]
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-$root/build-aarch64}"
shift || true
if [[ ! -f "$build/CTestTestfile.cmake" ]]; then
    echo "cross-test: no cross build in $build (run scripts/cross-build.sh)" >&2
    exit 1
fi
if ! grep -q '^AFD_QEMU_AARCH64:FILEPATH=/' "$build/CMakeCache.txt"; then
    echo "cross-test: $build has no qemu-aarch64 emulator (install qemu-user, reconfigure)" >&2
    exit 1
fi
# Tests that start the afd executable as a child process (fork + exec) cannot run here: under
# user-mode qemu without binfmt_misc the exec of an AArch64 program fails on the host kernel.
# They run in the native suite. Override with AFD_CROSS_CTEST_EXCLUDE (empty: run everything).
exclude="${AFD_CROSS_CTEST_EXCLUDE-^AfdProcess\.}"
exclude_args=()
if [[ -n "$exclude" ]]; then
    exclude_args=(-E "$exclude")
    echo "cross-test: native-only tests left out: $exclude"
fi
cd "$build"
ctest -j "$(nproc)" --output-on-failure --timeout 120 "${exclude_args[@]}" "$@"
