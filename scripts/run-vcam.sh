#!/usr/bin/env bash
# Runs the daemon against the virtual camera, everything under a sandbox root (./sandbox by
# default), so nothing is written to the real /dev or /data.
#
#   scripts/run-vcam.sh [seconds]     default 10 seconds
#
# Environment: AFD_SANDBOX (sandbox directory), and every AFD_* variable of the README.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
bash scripts/setup.sh
secs="${1:-10}"

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target afd

sandbox="${AFD_SANDBOX:-$PWD/sandbox}"
mkdir -p "$sandbox"
export AFD_ROOT="$sandbox"
export AFD_SYSLOG="${AFD_SYSLOG:-0}"

echo "== afd under $AFD_ROOT for ${secs}s"
set +e
timeout --signal=TERM "$secs" build/afd
rc=$?
set -e
[[ $rc -eq 124 ]] && rc=0  # stopped by the timeout: the daemon itself never exits
echo "== debug log $AFD_ROOT/dev/af_dbg.log:"
tail -n 20 "$AFD_ROOT/dev/af_dbg.log" || true
exit $rc
