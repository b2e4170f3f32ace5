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
cd "$build"
ctest -j "$(nproc)" --output-on-failure --timeout 120 "$@"
