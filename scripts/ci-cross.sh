#!/usr/bin/env bash
# CI step for the board target, run after the native build and tests: cross-build for AArch64,
# run the unit tests under qemu-aarch64, install into a staging directory and show what the
# daemon links against. Prints the time of each stage.
#   bash scripts/ci-cross.sh [build dir]        default: build-aarch64
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-$root/build-aarch64}"
stage="$build/staging"

stamp() { date +%s.%N; }
took() { awk -v a="$1" -v b="$(stamp)" 'BEGIN { printf "%.1f", b - a }'; }

t0=$(stamp)
echo "== cross: build ($build)"
bash "$root/scripts/cross-build.sh" "$build"
t_build=$(took "$t0")

t1=$(stamp)
echo "== cross: unit tests under qemu-aarch64"
bash "$root/scripts/cross-test.sh" "$build"
t_test=$(took "$t1")

echo "== cross: install into $stage"
rm -rf "$stage"
cmake --install "$build" --prefix "$stage" --strip
(cd "$stage" && find . -type f | sort)
readelf -d "$stage/bin/afd" | grep -E 'NEEDED|There is no dynamic' || true
echo "afd: $(stat -c %s "$stage/bin/afd") bytes stripped"

echo "== cross: build ${t_build} s, qemu tests ${t_test} s, total $(took "$t0") s"
