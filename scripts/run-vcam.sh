#!/usr/bin/env bash
# Runs the daemon against the virtual camera, everything under a sandbox root (./sandbox by
# default), so nothing is written to the real /dev or /data.
#
#   scripts/run-vcam.sh [seconds] [scenario.yaml]     default: 20 s, sim/scenarios/daylight_chart.yaml
#
# vcam serves the ISP link and emulates the lens-driver chip and GPIO lines; afd runs unchanged on
# the virtual clock (frames as fast as it can take them). Half-way through, afctl zooms to the tele
# end and back so the focus tracking shows; at the end the script prints the daemon's status, the
# last ground truth and a plot of lens focus vs the true in-focus position.
#
# Environment: AFD_SANDBOX (sandbox directory), VCAM_MODE (virtual or real), VCAM_HW (emulated
# hardware, see sim/hw/hw_server.h), and every AFD_* variable of the README.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
bash scripts/setup.sh
secs="${1:-20}"
scenario="${2:-sim/scenarios/daylight_chart.yaml}"
mode="${VCAM_MODE:-virtual}"

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target afd afctl vcam telemetry_plot

sandbox="${AFD_SANDBOX:-$PWD/sandbox}"
rm -rf "$sandbox/run" "$sandbox/dev"
mkdir -p "$sandbox/run"
export AFD_ROOT="$sandbox"
export AFD_SYSLOG="${AFD_SYSLOG:-0}"
export AFD_SIM_SOCKET="$sandbox/run/hw.sock"
if [[ "$mode" == virtual ]]; then
    export AFD_CLOCK=virtual
    export AFD_VCLOCK_FILE="$sandbox/run/vclock"
fi

pids=()
cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
}
trap cleanup EXIT

echo "== vcam ($mode time): $scenario"
build/sim/vcam --mode "$mode" --telemetry "$sandbox/run/telemetry.jsonl" "$scenario" \
    >"$sandbox/run/vcam.log" 2>&1 &
pids+=($!)
for _ in $(seq 50); do [[ -S "$AFD_SIM_SOCKET" ]] && break; sleep 0.1; done

echo "== afd under $AFD_ROOT for ${secs}s (log: $sandbox/run/afd.log)"
build/afd >"$sandbox/run/afd.log" 2>&1 &
pids+=($!)

# The command thread starts once the motors are homed and the start-up zoom is done.
for _ in $(seq 120); do build/afctl --timeout 300 error >/dev/null 2>&1 && break; sleep 0.5; done
half=$((secs / 2))
sleep "$half"
echo "== afctl status"
build/afctl status || true
echo "== afctl zoom --to 6000, then back to 0 (afctl watch shows the end-of-motion reports)"
build/afctl watch --seconds 4 | grep -v '^positions' &
watcher=$!
sleep 0.5
build/afctl zoom --to 6000 --speed 7
sleep 1.5
build/afctl zoom --to 0 --speed 7
wait "$watcher" || true
sleep $((secs > half + 4 ? secs - half - 4 : 1))

echo "== afctl status"
build/afctl status || true
cleanup
pids=()

echo "== daemon start-up (first lines of the debug log)"
head -n 2 "$sandbox/dev/af_dbg.log" || true
if [[ -s "$sandbox/run/telemetry.jsonl" ]]; then
    python3 - "$sandbox/run/telemetry.jsonl" <<'PY'
import json, sys
rows = []
for line in open(sys.argv[1]):
    try:
        rows.append(json.loads(line))
    except ValueError:
        pass  # a line cut short when vcam stopped
last = rows[-1]
lens, subject = last["lens"], last["subject_focus"]
top = max(r["lens"]["zoom"] for r in rows)
print(f"== {len(rows)} frames served ({last['t_us'] / 1e6:.0f} s of virtual time); "
      f"zoom reached {top:.0f}")
print(f"   last frame: lens zoom {lens['zoom']:.0f}, focus {lens['focus']:.0f}; "
      f"the subject is in focus at {subject:.0f} (error {lens['focus'] - subject:+.0f} steps)")
PY
    build/tools/telemetry_plot "$sandbox/run/telemetry.jsonl" "$sandbox/run/telemetry.svg" &&
        echo "== plot: $sandbox/run/telemetry.svg"
fi
