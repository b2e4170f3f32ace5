#!/usr/bin/env bash
# The daemon learns the sensor frame rate from the frame interval and paces its work by it: at 50
# and 60 frames/s a zoom motion advances on every second frame, at 25 and 30 on every frame. Seen
# from vcam's ground truth, never from the daemon's own counts.
# Usage: frame_rate_on_vcam.sh AFD VCAM AFCTL SCENARIO
set -uo pipefail
afd="$1" vcam="$2" afctl="$3" scenario="$4"

run_rate() {
    local fps="$1" expect="$2"
    local sb base
    sb="$(mktemp -d /tmp/afd-e2e-rate-XXXXXX)"
    mkdir -p "$sb/run"
    base=$((20000 + ($$ % 1000) * 10 + fps % 7))
    (
        export AFD_ROOT="$sb" AFD_SYSLOG=0 AFD_CLOCK=virtual AFD_VCLOCK_FILE="$sb/run/vclock"
        export AFD_SIM_SOCKET="$sb/run/hw.sock" AFD_ISP_PORT=$base AFD_CMD_PORT=$((base + 1))
        export AFD_REPLY_PORT=$((base + 2)) AFD_TUNING_PORT=$((base + 3)) AFD_CMD_BIND=127.0.0.1
        "$vcam" --mode virtual --fps "$fps" --telemetry "$sb/run/t.jsonl" "$scenario" \
            >"$sb/run/vcam.log" 2>&1 &
        vp=$!
        for _ in $(seq 100); do [[ -S "$AFD_SIM_SOCKET" ]] && break; sleep 0.1; done
        "$afd" >"$sb/run/afd.log" 2>&1 &
        ap=$!
        for _ in $(seq 120); do "$afctl" --timeout 300 error >/dev/null 2>&1 && break; sleep 0.5; done
        sleep 1
        "$afctl" af --mode off
        "$afctl" zoom --to 1500 --speed 0 --blind
        sleep 3
        kill "$ap" "$vp" 2>/dev/null
        wait 2>/dev/null
    )
    python3 - "$sb/run/t.jsonl" "$fps" "$expect" <<'PY'
import json, sys
path, fps, expect = sys.argv[1], int(sys.argv[2]), sys.argv[3]
zooms = []
for line in open(path):
    try:
        zooms.append(json.loads(line)["lens"]["zoom"])
    except (ValueError, KeyError):
        pass
# The blind zoom from the wide end to 1500: the frames from its first step to its arrival.
start = next((i for i, z in enumerate(zooms) if z > 5), None)
# (the carriage's end can differ from the count by the gear play vcam models)
top = max(zooms)
end = next((i for i, z in enumerate(zooms) if z >= top - 0.5), None)
if start is None or end is None or top < 1400 or end - start < 10:
    print(f"FAIL: {fps} fps: the zoom did not run to 1500 ({start}, {end}, {top})")
    sys.exit(1)
moving = [i for i in range(start, end + 1) if abs(zooms[i] - zooms[i - 1]) > 0.5]
span = end - start + 1
share = len(moving) / span
want = 1.0 if expect == "every" else 0.5
print(f"{fps} fps: zoom moved on {len(moving)} of {span} frames ({share:.2f}, expected {want})")
sys.exit(0 if abs(share - want) < 0.15 else 1)
PY
    local rc=$?
    [[ -n "${KEEP:-}" ]] || rm -rf "$sb"
    return $rc
}

status=0
run_rate 25 every || status=1
run_rate 60 alternate || status=1
[[ $status == 0 ]] && echo PASS
exit $status
