#!/usr/bin/env bash
# Cross-builds the daemon (afd) and its unit tests (afd_tests) for the AArch64 board.
#   bash scripts/cross-build.sh [build dir]        default: build-aarch64
# Installs the cross compiler and qemu-user from Debian's packages when missing
# (scripts/packages-cross.txt). The virtual camera and the desktop tools are not cross-built.
# Extra CMake settings can be passed in AFD_CROSS_CMAKE_ARGS, e.g. "-DAFD_FULLY_STATIC=ON".
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-$root/build-aarch64}"

bash "$root/scripts/setup.sh" "$root/scripts/packages-cross.txt"

generator=()
if [[ ! -f "$build/CMakeCache.txt" ]] && command -v ninja >/dev/null 2>&1; then
    generator=(-G Ninja)
fi
# shellcheck disable=SC2086
cmake -S "$root" -B "$build" "${generator[@]}" \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/aarch64-linux-gnu.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DAFD_BUILD_SIM=OFF \
    -DAFD_BUILD_TESTS=ON \
    ${AFD_CROSS_CMAKE_ARGS:-}
cmake --build "$build" -j "$(nproc)"
