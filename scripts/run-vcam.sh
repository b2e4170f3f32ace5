#!/usr/bin/env bash
# Runs the daemon against the virtual camera, everything under a sandbox root (./sandbox by
# default), so nothing is written to the real /dev or /data.
#
#   scripts/run-vcam.sh [seconds] [scenario.yaml]     default: 20 s, sim/scenarios/daylight_chart.yaml
#
# vcam serves the ISP link and emulates the lens-driver chip and GPIO lines; afd runs unchanged on
# the virtual clock (frames as fast as it can take them). Half-way through, afctl zooms to the tele
# end and back so the focus tracking shows; at the end the script prints the daemon's status, the
# last ground truth and a plot of lens focus vs the true in-focus position (PNG, gnuplot).
#
# On the virtual clock vcam delivers frames as fast as the daemon takes them: thousands per second,
# each with a line of ground truth. The telemetry therefore goes through a pipe to a thinning
# reader that keeps 1 to 2 x AFD_TELEMETRY_LINES lines (default 3000) spread evenly over the run,
# plus the last one, and counts the rest; AFD_TELEMETRY_LINES=0 keeps every line.
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
keep_lines="${AFD_TELEMETRY_LINES:-3000}"

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

telemetry_out="$sandbox/run/telemetry.jsonl"
telemetry_in="$telemetry_out"
if [[ "$keep_lines" != 0 ]]; then
    # The thinning reader: keeps every stride-th line; whenever it holds 2 x limit lines it drops
    # every other one and doubles the stride, so the kept lines stay evenly spaced over the run.
    # It also keeps the count of lines and the highest zoom, which the summary below prints.
    telemetry_in="$sandbox/run/telemetry.pipe"
    mkfifo "$telemetry_in"
    python3 - "$telemetry_in" "$telemetry_out" "$keep_lines" <<'PY' &
import json, re, sys
src, dst, limit = sys.argv[1], sys.argv[2], int(sys.argv[3])
kept, stride, n, last, top = [], 1, 0, None, None
zoom = re.compile(r'"lens":\{"zoom":([-0-9.eE+]+)')
with open(src, "r", errors="replace") as f:
    for line in f:
        if not line.endswith("\n"):
            break  # cut short when vcam stopped
        m = zoom.search(line)
        if m:
            z = float(m.group(1))
            top = z if top is None or z > top else top
        if n % stride == 0:
            kept.append(line)
            if len(kept) >= 2 * limit:
                kept = kept[::2]
                stride *= 2
        last = line
        n += 1
if last is not None and (not kept or kept[-1] is not last):
    kept.append(last)
with open(dst, "w") as out:
    out.writelines(kept)
with open(dst + ".summary", "w") as out:
    json.dump({"frames": n, "kept": len(kept), "top_zoom": top}, out)
PY
    pids+=($!)
    thinner=$!
fi

echo "== vcam ($mode time): $scenario"
build/sim/vcam --mode "$mode" --telemetry "$telemetry_in" "$scenario" \
    >"$sandbox/run/vcam.log" 2>&1 &
pids+=($!)
vcam_pid=$!
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
# vcam first, so that the thinning reader sees the end of the pipe and writes its file.
kill "$vcam_pid" 2>/dev/null || true
wait "$vcam_pid" 2>/dev/null || true
if [[ -n "${thinner:-}" ]]; then
    for _ in $(seq 100); do kill -0 "$thinner" 2>/dev/null || break; sleep 0.1; done
fi
cleanup
pids=()

echo "== daemon start-up (first lines of the debug log)"
head -n 2 "$sandbox/dev/af_dbg.log" || true
if [[ -s "$telemetry_out" ]]; then
    python3 - "$telemetry_out" <<'PY'
import json, os, sys
rows = []
for line in open(sys.argv[1]):
    try:
        rows.append(json.loads(line))
    except ValueError:
        pass  # a line cut short when vcam stopped
summary = {"frames": len(rows), "kept": len(rows), "top_zoom": None}
if os.path.exists(sys.argv[1] + ".summary"):
    summary.update(json.load(open(sys.argv[1] + ".summary")))
last = rows[-1]
lens, subject = last["lens"], last["subject_focus"]
top = summary["top_zoom"]
if top is None:
    top = max(r["lens"]["zoom"] for r in rows)
print(f"== {summary['frames']} frames served ({last['t_us'] / 1e6:.0f} s of virtual time); "
      f"zoom reached {top:.0f}; {summary['kept']} lines of telemetry kept")
print(f"   last frame: lens zoom {lens['zoom']:.0f}, focus {lens['focus']:.0f}; "
      f"the subject is in focus at {subject:.0f} (error {lens['focus'] - subject:+.0f} steps)")
PY
    build/tools/telemetry_plot "$telemetry_out" "$sandbox/run/telemetry.png" \
        --title "afd on vcam: $(basename "$scenario")" &&
        echo "== plot: $sandbox/run/telemetry.png"
fi
