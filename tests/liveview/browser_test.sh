#!/usr/bin/env bash
# Browser test of the live tuning view: the daemon on the virtual camera with the tuning switch
# file, the view server, and headless Chromium driven over the DevTools protocol
# (browser_test.py). Installs the Debian packages of scripts/packages-liveview.txt (chromium,
# python3-websocket) when missing; too heavy for CI, so CTest does not run it.
#
#   tests/liveview/browser_test.sh [build dir]      default: build
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
build="${1:-build}"
for exe in afd sim/vcam; do
    [[ -x "$build/$exe" ]] || { echo "missing $build/$exe: build first"; exit 2; }
done
bash scripts/setup.sh scripts/packages-liveview.txt || echo "setup: could not install the browser"
chromium_bin="$(command -v chromium || command -v chromium-browser || true)"
# The Debian packages install for the system's Python, which another python3 on PATH may hide.
py=python3
[[ -x /usr/bin/python3 ]] && py=/usr/bin/python3
if [[ -z "$chromium_bin" ]] || ! "$py" -c "import websocket" 2>/dev/null; then
    echo "SKIP: needs chromium and python3-websocket (apt install chromium python3-websocket)"
    exit 77
fi

sb="$(mktemp -d /tmp/afd-liveview-XXXXXX)"
mkdir -p "$sb/run" "$sb/dev"
base=$((21000 + ($$ % 900) * 10))
export AFD_ROOT="$sb" AFD_SYSLOG=0 AFD_CLOCK=virtual AFD_VCLOCK_FILE="$sb/run/vclock"
export AFD_SIM_SOCKET="$sb/run/hw.sock" AFD_ISP_PORT=$base AFD_CMD_PORT=$((base + 1))
export AFD_REPLY_PORT=$((base + 2)) AFD_TUNING_PORT=$((base + 3)) AFD_CMD_BIND=127.0.0.1
export AFD_TUNING_BIND=127.0.0.1
http_port=$((base + 4)) devtools_port=$((base + 5))

pids=()
cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done
    wait 2>/dev/null
    rm -rf "$sb"
}
trap cleanup EXIT

"$build/sim/vcam" --mode virtual sim/scenarios/daylight_chart.yaml >"$sb/run/vcam.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do [[ -S "$AFD_SIM_SOCKET" ]] && break; sleep 0.1; done
touch "$sb/dev/af_debug"
"$build/afd" >"$sb/run/afd.log" 2>&1 &
afd_pid=$!
pids+=($afd_pid)
"$py" tools/liveview/liveview.py --http-port "$http_port" >"$sb/run/liveview.log" 2>&1 &
pids+=($!)
"$chromium_bin" --headless=new --no-sandbox --disable-gpu --no-first-run \
    --user-data-dir="$sb/run/chromium" --remote-debugging-port="$devtools_port" about:blank \
    >"$sb/run/chromium.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do
    "$py" -c "import urllib.request,sys; urllib.request.urlopen(sys.argv[1])" \
        "http://127.0.0.1:$http_port/" 2>/dev/null && break
    sleep 0.1
done

"$py" tests/liveview/browser_test.py "http://127.0.0.1:$http_port/" "$devtools_port"
rc=$?
if ! kill -0 "$afd_pid" 2>/dev/null; then
    echo "FAIL: the daemon died"; rc=1
fi
if [[ $rc != 0 ]]; then
    echo "--- afd log (tail)"; tail -n 20 "$sb/run/afd.log"
    echo "--- liveview log (tail)"; tail -n 20 "$sb/run/liveview.log"
fi
exit $rc
