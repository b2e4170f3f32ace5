#!/usr/bin/env python3
"""Live tuning view: a small web server beside the daemon (never inside it).

It keeps one connection to the daemon's tuning server (TCP, port 1207; the daemon listens only
while /dev/af_debug exists) and polls it: the 15 x 15 block grids the page shows (command 1), the
autofocus status record (command 3). Writes to the command channel (UDP, port 6789) carry the
page's commands; the view never listens on the reply port, so afctl and the camera's control
software keep it. The page (index.html beside this file, no build step) draws the grids as heat
maps and the focus value, lens positions and iris over time, and has controls for the ISP filter
parameters (tuning command 2) and common commands.

    python3 tools/liveview/liveview.py [--http-port 8207] [--bind 127.0.0.1]
                                      [--daemon 127.0.0.1] [--poll-hz 5]

The tuning port and command port follow AFD_TUNING_PORT and AFD_CMD_PORT as the daemon does.
Grid replies of the tuning server go to every connected client and carry no selector: while
another tuning client asks for grids too, a heat map may show the other client's grid for a poll.

Python standard library only (Debian: python3).
"""
import argparse
import json
import os
import socket
import struct
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

GRID_NAMES = ["sharp_v", "sharp_h", "iir1", "fir_v", "iir2", "fir_h", "luma", "highlight"]
HISTORY = 600  # samples kept for the time plots
AF_STATES = {0: "start", 1: "searching", 2: "focused"}
PHASES = {1: "coarse", 2: "climb", 3: "fine", 4: "final", 8: "region", 9: "finished"}
AF_MODES = {0: "off", 1: "continuous", 2: "once", 3: "one-shot"}
CALIB_MODES = {0: "none", 1: "curve", 4: "iris", 5: "hall", 6: "offsets reloaded"}


def env_port(name, default):
    try:
        v = int(os.environ.get(name, ""))
        return v if 0 < v < 65536 else default
    except ValueError:
        return default


def request(command, flag=0, p=(0, 0, 0, 0, 0, 0)):
    """A 24-byte tuning request: u32 command, u32 flag, s16 p0..p3, u16 p4, p5, 4 reserved."""
    return struct.pack("<IIhhhhHH4x", command, flag, *p)


def recv_exact(sock, n):
    buf = b""
    while len(buf) < n:
        chunk = sock.recv(n - len(buf))
        if not chunk:
            raise ConnectionError("tuning server closed the connection")
        buf += chunk
    return buf


class Model:
    """What the page sees; one lock around all of it."""

    def __init__(self, shown):
        self.lock = threading.Lock()
        self.connected = False
        self.error = "not connected yet"
        self.grids = {}  # name -> 225 ints
        self.shown = list(shown)
        self.status = None
        self.history = []  # [t, focus value, focus, zoom, iris]
        self.t0 = time.monotonic()
        self.polls = 0
        self.last_filter = None
        self.messages = []

    def note(self, text):
        with self.lock:
            self.messages = (self.messages + [f"{time.strftime('%H:%M:%S')} {text}"])[-20:]

    def snapshot(self):
        with self.lock:
            return {
                "connected": self.connected,
                "error": self.error,
                "grids": dict(self.grids),
                "shown": list(self.shown),
                "grid_names": GRID_NAMES,
                "status": self.status,
                "history": list(self.history),
                "polls": self.polls,
                "last_filter": self.last_filter,
                "messages": list(self.messages),
            }


class TuningLink(threading.Thread):
    """Polls the tuning server; reconnects when the daemon or its server goes away."""

    def __init__(self, model, addr, port, poll_hz):
        super().__init__(daemon=True)
        self.model, self.addr, self.port = model, addr, port
        self.period = 1.0 / poll_hz
        self.sock = None
        self.send_lock = threading.Lock()

    def send(self, data):
        with self.send_lock:
            if self.sock is None:
                raise ConnectionError("not connected to the tuning server")
            self.sock.sendall(data)

    def read_reply(self):
        head = recv_exact(self.sock, 24)
        kind, length = struct.unpack_from("<II", head)
        if kind == 4:  # the focus reply is 24 bytes in all, no payload
            return kind, head
        if length > 4096:
            raise ConnectionError(f"reply of type {kind} with {length} bytes: out of step")
        return kind, recv_exact(self.sock, length)

    def wait_for(self, want):
        """Reads replies until one of type want; grids that arrive meanwhile are kept."""
        while True:
            kind, payload = self.read_reply()
            if kind == want:
                return payload

    def poll_once(self):
        with self.model.lock:
            shown = list(self.model.shown)
        grids = {}
        for name in shown:
            self.send(request(1, 0, (GRID_NAMES.index(name), 0, 0, 0, 0, 0)))
            payload = self.wait_for(2)
            grids[name] = list(struct.unpack("<225I", payload[:900]))
        self.send(request(3))
        st = struct.unpack("<BBBBIHHHBB", self.wait_for(3)[:16])
        status = {
            "af_state": AF_STATES.get(st[0], str(st[0])),
            "phase": PHASES.get(st[1], str(st[1])),
            "direction": {1: "nearer", 2: "farther"}.get(st[2], str(st[2])),
            "af_mode": AF_MODES.get(st[3], str(st[3])),
            "focus_value": st[4],
            "zoom": st[5],
            "focus": st[6],
            "iris": st[7],
            "iris_mode": "auto" if st[8] else "fixed",
            "calibration": CALIB_MODES.get(st[9], str(st[9])),
        }
        t = round(time.monotonic() - self.model.t0, 2)
        with self.model.lock:
            self.model.grids.update(grids)
            self.model.status = status
            self.model.history = (self.model.history +
                                  [[t, st[4], st[6], st[5], st[7]]])[-HISTORY:]
            self.model.polls += 1

    def run(self):
        while True:
            try:
                s = socket.create_connection((self.addr, self.port), timeout=3)
                s.settimeout(3)
                with self.send_lock:
                    self.sock = s
                with self.model.lock:
                    self.model.connected, self.model.error = True, ""
                self.model.note(f"connected to the tuning server {self.addr}:{self.port}")
                while True:
                    start = time.monotonic()
                    self.poll_once()
                    time.sleep(max(0.0, self.period - (time.monotonic() - start)))
            except (OSError, ConnectionError, struct.error) as e:
                with self.send_lock:
                    if self.sock is not None:
                        self.sock.close()
                    self.sock = None
                with self.model.lock:
                    was = self.model.connected
                    self.model.connected = False
                    self.model.error = (f"tuning server {self.addr}:{self.port}: {e} "
                                        "(is afd running, and does /dev/af_debug exist?)")
                if was:
                    self.model.note("lost the tuning server: " + str(e))
                time.sleep(1.0)


class CommandChannel:
    """Write datagrams to the daemon's command port (the daemon answers no write)."""

    def __init__(self, addr, port):
        self.dest = (addr, port)
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)

    def motion(self, mode, focus_speed=7, zoom_speed=7, focus_dir=0, zoom_dir=0, zoom_target=0,
               focus_target=0, af_mode=0, zone=0, region=0, ezoom=0):
        rec = struct.pack("<BBBBB3xHHBBBBH", mode, focus_speed, zoom_speed, focus_dir, zoom_dir,
                          zoom_target, focus_target, 0, af_mode, zone, region, ezoom)
        self.sock.sendto(b"w\x00" + rec, self.dest)

    def write(self, ident, payload):
        self.sock.sendto(b"w" + bytes([ident]) + payload, self.dest)


def number(body, key, lo, hi):
    v = body.get(key)
    if not isinstance(v, int) or isinstance(v, bool) or not lo <= v <= hi:
        raise ValueError(f"{key} must be a whole number in {lo}..{hi}")
    return v


def run_command(model, cmd, body):
    """One page command. Returns a message; raises ValueError for a bad request."""
    name = body.get("name")
    status = model.snapshot()["status"] or {}
    af_on = status.get("af_mode", "off") != "off"
    if name == "af":
        mode = body.get("mode")
        if mode not in AF_MODES.values():
            raise ValueError("mode must be one of " + ", ".join(AF_MODES.values()))
        cmd.motion(8, af_mode=[k for k, v in AF_MODES.items() if v == mode][0])
        return f"autofocus {mode}"
    if name == "zoom_to":
        cmd.motion(1, zoom_target=number(body, "target", 0, 7636),
                   zoom_speed=number(body, "speed", 0, 8))
        return "tracked zoom to %d" % body["target"]
    if name == "focus_to":
        if af_on:
            return "not sent: the daemon ignores focus moves while autofocus is on; set it off"
        cmd.motion(5, focus_target=number(body, "target", 0, 65535),
                   focus_speed=number(body, "speed", 0, 7))
        return "focus to %d" % body["target"]
    if name == "stop":
        cmd.motion(9)
        return "stop"
    if name == "iris_auto":
        cmd.write(2, bytes([1, 0]))
        return "iris automatic"
    if name == "iris_step":
        cmd.write(2, bytes([0, number(body, "step", 0, 12)]))
        return "iris fixed at step %d" % body["step"]
    raise ValueError(f"unknown command {name!r}")


def make_handler(model, link, cmd, page):
    class Handler(BaseHTTPRequestHandler):
        def log_message(self, fmt, *args):
            pass  # the page polls several times a second

        def reply(self, code, body, kind="application/json"):
            data = body if isinstance(body, bytes) else json.dumps(body).encode()
            self.send_response(code)
            self.send_header("Content-Type", kind)
            self.send_header("Content-Length", str(len(data)))
            self.send_header("Cache-Control", "no-store")
            self.end_headers()
            self.wfile.write(data)

        def do_GET(self):
            if self.path in ("/", "/index.html"):
                self.reply(200, page, "text/html; charset=utf-8")
            elif self.path == "/api/state":
                self.reply(200, model.snapshot())
            else:
                self.reply(404, {"error": "not found"})

        def do_POST(self):
            try:
                n = int(self.headers.get("Content-Length", "0"))
                body = json.loads(self.rfile.read(min(n, 65536)) or b"{}")
                if not isinstance(body, dict):
                    raise ValueError("a JSON object is expected")
                if self.path == "/api/filter":
                    p = (number(body, "c", -32768, 32767), number(body, "d", -32768, 32767), 0, 0,
                         number(body, "a", 0, 255), number(body, "b", 0, 255))
                    link.send(request(2, 0, p))
                    with model.lock:
                        model.last_filter = {k: body[k] for k in "abcd"}
                    msg = "filter parameters A %d B %d C %d D %d sent" % (p[4], p[5], p[0], p[1])
                elif self.path == "/api/grids":
                    shown = body.get("shown")
                    if not isinstance(shown, list) or any(g not in GRID_NAMES for g in shown):
                        raise ValueError("shown must list grid names")
                    with model.lock:
                        model.shown = [g for g in GRID_NAMES if g in shown]
                    msg = "showing " + (", ".join(shown) or "no grids")
                elif self.path == "/api/command":
                    msg = run_command(model, cmd, body)
                else:
                    return self.reply(404, {"error": "not found"})
            except (ValueError, json.JSONDecodeError) as e:
                return self.reply(400, {"error": str(e)})
            except (OSError, ConnectionError) as e:
                return self.reply(503, {"error": str(e)})
            model.note(msg)
            self.reply(200, {"message": msg})

    return Handler


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--http-port", type=int, default=8207)
    ap.add_argument("--bind", default="127.0.0.1", help="address of the web page (default "
                    "loopback only: the page can move the lens)")
    ap.add_argument("--daemon", default="127.0.0.1", help="address of the daemon")
    ap.add_argument("--poll-hz", type=float, default=5.0)
    ap.add_argument("--grids", default="sharp_v,luma,highlight",
                    help="grids shown at start, comma-separated: " + ",".join(GRID_NAMES))
    a = ap.parse_args()
    shown = [g for g in a.grids.split(",") if g]
    if any(g not in GRID_NAMES for g in shown) or not 0.2 <= a.poll_hz <= 30:
        ap.error("unknown grid name, or --poll-hz outside 0.2..30")
    page = open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "index.html"),
                "rb").read()
    model = Model(shown)
    link = TuningLink(model, a.daemon, env_port("AFD_TUNING_PORT", 1207), a.poll_hz)
    link.start()
    cmd = CommandChannel(a.daemon, env_port("AFD_CMD_PORT", 6789))
    server = ThreadingHTTPServer((a.bind, a.http_port), make_handler(model, link, cmd, page))
    print(f"liveview: http://{a.bind}:{server.server_address[1]}/", flush=True)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())
