#!/usr/bin/env bash
# Frame rate of the daemon on a board without lens hardware (no GPIO device, no SPI device),
# against the virtual camera in real time: the frames the camera served after the first 10 s,
# and the number of lines the daemon printed. A daemon that keeps up runs at the sensor's rate.
#
#   scripts/no-lens-hardware-rate.sh [build dir (default build)] [seconds (default 22)]
set -u
B="$(cd "${1:-build}" && pwd)"
S="${2:-22}"
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
sb=$(mktemp -d /tmp/afd-nohw.XXXX)
mkdir -p "$sb/run"
export AFD_ROOT="$sb" AFD_SYSLOG=0 AFD_SIM_SOCKET="$sb/run/hw.sock"
export AFD_ISP_PORT=$((20000 + RANDOM % 20000)) AFD_CMD_PORT=0
export AFD_REPLY_PORT=$((40000 + RANDOM % 20000))
export VCAM_HW='chip=none,gpio=absent,fault.spi_open=error'
"$B/sim/vcam" --mode real --telemetry "$sb/run/t.jsonl" "$ROOT/sim/scenarios/daylight_chart.yaml" \
    >"$sb/run/vcam.log" 2>&1 &
vcam=$!
for _ in $(seq 50); do [[ -S "$AFD_SIM_SOCKET" ]] && break; sleep 0.1; done
"$B/afd" >"$sb/run/afd.log" 2>&1 &
afd=$!
sleep "$S"
kill "$afd" "$vcam" 2>/dev/null
wait 2>/dev/null
python3 - "$sb/run/t.jsonl" "$sb/run/afd.log" <<'PY'
import json, sys
t = [json.loads(l)["t_us"] / 1e6 for l in open(sys.argv[1]) if l.strip()]
late = [x for x in t if t and x >= t[0] + 10]
span = late[-1] - late[0] if len(late) > 1 else 0
rate = (len(late) - 1) / span if span else 0
print("frames after 10 s: %d over %.1f s = %.1f fps" % (len(late), span, rate))
print("daemon output lines:", sum(1 for _ in open(sys.argv[2], errors="replace")))
PY
rm -rf "$sb"
