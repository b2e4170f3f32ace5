#!/usr/bin/env python3
"""Autofocus benchmark: the real afd against vcam on the virtual clock, scored from ground truth.

For every case of the suite it starts vcam and afd in a sandbox, lets them run for a fixed virtual
duration (telemetry t_us), and scores vcam's per-frame ground truth (never the daemon's counts):

  frames to focus   video frames from the first frame until the lens is within the subject's
                    depth of focus and stays there at rest for 10 frames
  final error       lens focus - subject's in-focus position on the last frame, in steps and as a
                    fraction of the depth of focus (the half width of the V sharpness peak at the
                    zoom, widened by the iris as vcam's optics do); when the subject has left
                    the picture by then, the object the case names as its end target
  travel, reversals focus steps moved and direction changes until first focus (hunting)
  false refocus     focus movements after first settling on a static scene, per virtual minute
  refocus           for scenes whose subject moves: frames from the end of the subject's move
                    until it is in focus and at rest again

Two reference searches run on the same scene (vcam alone, the lens driven by a scripted sweep):
  sweep   every position at 1 step across the start and the peak, the best centre V, as the
          accuracy reference
  oracle  a hill-climb that knows the direction, at the daemon's maximum of 60 steps per frame,
          seeing each position `latency` frames after commanding it: the frames it needs to reach
          the peak and see a fall past it (the speed bound); ratio = daemon frames / oracle frames

  tools/afbench.py [--build build] [--suite daylight|library|all|scene|night|track] [--only SUBSTR]
                   [--case NAME ...] [--seconds 30] [--json out.json] [--out DIR]

The scene suite (--suite scene) runs scene changes after the first focus and scores each from
ground truth: frames from the end of the change until the lens is in focus on the target and
stays there, the final error in depths of focus, and the searches started after the first focus
(per 10 virtual minutes on its two static scenes, which run 10 virtual minutes each).

The track suite (--suite track) runs the tracker and rangefinder cases, and the daylight plane
with a rangefinder, each with the distance assist off and on (afctl assist), side by side: frames
to focus, final error in the subject's depth of focus, and for the tracked cases the distance of
the lens from the background's in-focus position in the background's depth of focus (a focus that
stayed on the background ends within 1 of it, not of the subject).

One SVG per case (lens focus vs true in-focus position, centre sharpness) is drawn with
build/tools/telemetry_plot into DIR.
"""
import argparse
import concurrent.futures
import json
import os
import re
import signal
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

import benchenv
from benchenv import half_width, make_sandbox, remove_sandboxes, rows

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SCEN = os.path.join(ROOT, "sim/scenarios")
MAX_STEP = 60          # the daemon's largest focus move per frame
REST_FRAMES = 10       # frames at rest inside the depth of focus that count as focused
FOCUS_MAX = 6120       # focus carriage range 0..FOCUS_MAX (sim/lens_model.h)
STATS_BYTES = 5504

# (name, scenario file, overrides). Overrides: zoom, start (absolute focus) or offset (start =
# subject's in-focus position + offset: negative is on the near side, positive on the far side),
# fps (vcam --fps), noise (False: vcam --no-noise), actions (a list of (seconds after the
# trigger, afctl arguments), each given exactly on that virtual frame).
# The scenario's timeline runs from the trigger (vcam --hold-timeline), not from vcam's start.
DAYLIGHT = [
    ("wide-far", "bench_daylight_plane.yaml", {"zoom": 0, "offset": +150}),
    ("wide-near", "bench_daylight_plane.yaml", {"zoom": 0, "offset": -150}),
    ("mid-far", "bench_daylight_plane.yaml", {"zoom": 3200, "offset": +300}),
    ("mid-near", "bench_daylight_plane.yaml", {"zoom": 3200, "offset": -300}),
    ("tele-far", "bench_daylight_plane.yaml", {"zoom": 6000, "offset": +400}),
    ("tele-near", "bench_daylight_plane.yaml", {"zoom": 6000, "offset": -400}),
    ("mid-far-25fps", "bench_daylight_plane.yaml", {"zoom": 3200, "offset": +300, "fps": 25}),
    ("mid-far-60fps", "bench_daylight_plane.yaml", {"zoom": 3200, "offset": +300, "fps": 60}),
    ("mid-far-nonoise", "bench_daylight_plane.yaml", {"zoom": 3200, "offset": +300,
                                                      "noise": False}),
    ("wide-far-nonoise", "bench_daylight_plane.yaml", {"zoom": 0, "offset": +150,
                                                       "noise": False}),
    ("tele-far-nonoise", "bench_daylight_plane.yaml", {"zoom": 6000, "offset": +400,
                                                       "noise": False}),
    ("mid-lowcontrast", "bench_low_contrast_wall.yaml", {}),
    ("mid-offcentre", "bench_offcentre_subject.yaml", {}),
    # scene changes after the first focus: the subject moves in depth at 8 s; a zoom towards the
    # tele end at 6 s (the zoom tracks the curve, then the search refocuses)
    ("tele-moves-in-depth", "bench_subject_moves_depth.yaml", {}),
    ("zoom-then-refocus", "bench_daylight_plane.yaml",
     {"zoom": 1000, "offset": +150, "actions": [(6.0, ["zoom", "--to", "5000", "--speed", "4"])]}),
]
LIBRARY = [
    ("lib-daylight_chart", "daylight_chart.yaml", {}),
    # The person leaves again at 18 s: the focus belongs back on the wall at the end.
    ("lib-object_enters", "object_enters.yaml", {"end_target": "wall"}),
    ("lib-offcentre_before_facade", "offcentre_before_facade.yaml", {}),
    ("lib-dusk_two_depths", "dusk_two_depths.yaml", {}),
    ("lib-night_lamps", "night_lamps.yaml", {}),
]
# Night and dusk scenes for the highlight and block-region rules, each at two zooms; not part of
# "all", so that suite stays comparable across changes.
NIGHT = [(f"night-{n}-z{z}", f, dict(ov, zoom=z)) for n, f, ov in [
    ("lamps-near", "night_lamps_near.yaml", {"offset": -150}),
    ("lamps-far", "night_lamps_far.yaml", {"offset": +120}),
    ("lamps-sign", "night_lamps_sign.yaml", {"offset": -150}),
    ("backlit", "night_backlit.yaml", {"offset": +150}),
    ("dim-centre", "dusk_dim_centre.yaml", {"offset": +150}),
    ("lowcontrast-wall", "night_lowcontrast_wall.yaml", {"offset": -150}),
    ("lib-night_lamps", "night_lamps.yaml", {}),
    ("lib-offcentre_before_facade", "offcentre_before_facade.yaml", {}),
] for z in (3200, 5000)] + [
    # the same dim centre after a short zoom: the end of the search may look at the centre again
    ("night-dim-centre-zoomed", "dusk_dim_centre.yaml",
     {"zoom": 2800, "offset": +150, "actions": [(6.0, ["zoom", "--to", "3200", "--speed", "4"])]}),
]
# focus_sweep.yaml and pan_and_zoom_sweep.yaml script the lens themselves: they exercise vcam,
# not the autofocus, and are left out.

# Scene changes after the first focus (--suite scene). Each runs `seconds` of virtual time; the
# change is over at `change_end` seconds after the trigger (a zoom: when the zoom stopped), and
# `target` names the object the focus belongs on once it is over (the scenario's subject when not
# given). The first search starts `offset` steps off the subject. The static scenes run 10 virtual
# minutes each (some 2-3 minutes of wall time): pick cases with --case.
SCENE = [
    ("depth-nearer-slow", "scene_depth_nearer_slow.yaml", {"offset": 15, "change_end": 12.0}),
    ("depth-nearer-fast", "scene_depth_nearer_fast.yaml", {"offset": 15, "change_end": 8.3}),
    ("depth-farther-slow", "scene_depth_farther_slow.yaml", {"offset": -15, "change_end": 12.0}),
    ("depth-farther-fast", "scene_depth_farther_fast.yaml", {"offset": -15, "change_end": 8.3}),
    ("enter-and-stop", "scene_enter_stop.yaml",
     {"offset": 15, "change_end": 10.0, "target": "person"}),
    # A small person far out of focus: the whole-picture zone stays with the wall that fills most
    # of it, so the focus belongs on the wall (a check that the entry does not pull it away).
    ("enter-small-far", "scene_enter_small.yaml",
     {"offset": 15, "change_end": 10.0, "target": "wall"}),
    ("cross-and-leave", "scene_cross_leave.yaml", {"offset": 15, "change_end": 11.0}),
    ("pan-new-depth", "scene_pan_depth.yaml",
     {"offset": 15, "change_end": 9.5, "target": "facade",
      "actions": [(8.0, ["pt-move"]), (9.5, ["pt-stop"])]}),
    ("light-step", "scene_light_step.yaml", {"offset": 15, "change_end": 8.0}),
    ("zoom-while-focused", "scene_zoom.yaml",
     {"offset": 15, "change_end": 8.0,
      "actions": [(8.0, ["zoom", "--to", "5000", "--speed", "4"])]}),
    ("static-day-10min", "scene_static_day.yaml", {"offset": 15, "seconds": 600}),
    ("static-dusk-10min", "scene_static_dusk.yaml", {"offset": 15, "seconds": 600}),
]
SCENE_SECONDS = 30.0

# Tracker and distance assist (--suite track). Extra overrides: tracker / rangefinder (the
# scenario's section of that name, replaced, added, or with None left out), background (the object
# whose depth of focus the end is also scored in). Every case runs with the assist off and on. The
# tele crossing starts with the wall in focus; the untracked run shows the search without the
# tracker's box.
TRACK_DROPOUTS = ("{object: person, latency_frames: 2, jitter: 3, box_error: 0.05, "
                  "dropout_rate: 0.03, dropout_frames: 15}")
TRACK = [
    ("track-crossing", "tracked_person_crossing.yaml", {"background": "wall"}),
    ("track-crossing-tele", "bench_tracked_crossing.yaml", {"background": "wall"}),
    ("untracked-crossing-tele", "bench_tracked_crossing.yaml",
     {"background": "wall", "tracker": None}),
    ("track-dropouts-tele", "bench_tracked_crossing.yaml",
     {"background": "wall", "tracker": TRACK_DROPOUTS}),
    ("track-walks-towards", "tracked_person_walks_towards.yaml", {"background": "wall"}),
] + [("range-" + n, b, dict(ov, rangefinder="{error: 0.02}")) for n, b, ov in DAYLIGHT
     if n in ("wide-far", "wide-near", "mid-far", "mid-near", "tele-far", "tele-near",
              "mid-lowcontrast", "mid-offcentre", "zoom-then-refocus")]


def last_t_us(path):
    """t_us of the last complete telemetry line (reads only the file's tail)."""
    try:
        with open(path, "rb") as f:
            f.seek(0, 2)
            size = f.tell()
            f.seek(max(0, size - 8192))
            tail = f.read().split(b"\n")
    except FileNotFoundError:
        return 0
    for line in reversed(tail[:-1]):
        m = re.search(rb'"t_us":(\d+)', line)
        if m:
            return int(m.group(1))
    return 0


def scenario_text(base, ov, sweep=None, static=False):
    text = open(os.path.join(SCEN, base)).read()
    if "zoom" in ov:
        text = re.sub(r"(lens:\n(?:\s+.*\n)*?\s+zoom: )\d+", r"\g<1>%d" % ov["zoom"], text, 1)
    if "start" in ov:
        text = re.sub(r"(lens:\n(?:\s+.*\n)*?\s+focus: )\d+", r"\g<1>%d" % ov["start"], text, 1)
    if sweep is not None:
        text = re.sub(r"\n\s+sweep: \{.*\}\n", "\n", text)
        text = text.replace("lens:\n", "lens:\n  sweep: {axis: focus, from: %d, to: %d, step: 1}\n"
                            % sweep, 1)
    for section in ("tracker", "rangefinder"):
        if section in ov:
            text = re.sub(r"\n%s: \{.*\}\n" % section, "\n", text)
            if ov[section] is not None:  # None: without that section
                text = text.rstrip("\n") + "\n%s: %s\n" % (section, ov[section])
    if static:  # the reference searches work on the scene as it is at the start
        text = re.sub(r"\ntimeline:\n(?:[ \t-].*\n?)*", "\n", text)
    if sweep is not None:  # without the daemon nothing drives the iris: hold it open
        text = text.rstrip("\n") + "\ntimeline:\n  - {frame: 0, lens: {iris: 1023}}\n"
    return text


def sandbox_env(sb, port):
    # A unit whose gear play is what the daemon's lens parameters compensate on every reversal
    # (focus 2 steps, zoom 1): without play the compensation itself would push the lens off by
    # two steps at each turn of the search.
    return benchenv.sandbox_env(sb, port, {
        "VCAM_HW": os.environ.get("VCAM_HW", "focus_backlash=2,zoom_backlash=1")})


def vcam_args(case_ov):
    args = []
    if "fps" in case_ov:
        args += ["--fps", str(case_ov["fps"])]
    if case_ov.get("noise") is False:
        args += ["--no-noise"]
    if "seed" in case_ov:
        args += ["--seed", str(case_ov["seed"])]
    return args


def stop(procs):
    benchenv.stop_processes(procs)


def vcam_alone(build, text, extra, frames, port):
    """Runs vcam without the daemon (no clock page: the next grid frame each request) and fetches
    `frames` frames over the ISP link; returns the telemetry rows."""
    sb = make_sandbox("afd-afbench-")
    env = sandbox_env(sb, port)
    del env["AFD_VCLOCK_FILE"]
    scen = os.path.join(sb, "scene.yaml")
    open(scen, "w").write(text)
    tele = os.path.join(sb, "run/telemetry.jsonl")
    p = subprocess.Popen([os.path.join(build, "sim/vcam"), "--mode", "virtual", "--telemetry", tele,
                          "--frames", str(frames)] + extra + [scen], env=env,
                         stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    try:
        s = None
        for _ in range(1000):
            try:
                s = socket.create_connection(("127.0.0.1", port), timeout=5)
                break
            except OSError:
                if p.poll() is not None:
                    raise RuntimeError("vcam exited: " + p.stderr.read().decode()[-400:])
                time.sleep(0.005)
        if s is None:
            raise RuntimeError("vcam did not listen")
        s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for _ in range(frames):
            s.sendall(b"\x01")
            got = 0
            while got < STATS_BYTES:
                b = s.recv(STATS_BYTES - got)
                if not b:
                    break
                got += len(b)
            if got < STATS_BYTES:
                break
        s.close()
    finally:
        stop([p])
    return rows(tele)


_infinity = {}
_infinity_lock = threading.Lock()


def infinity_focus(build, zoom, port):
    """In-focus position of an object at infinity (1 km) at this zoom, from vcam's optics; asked
    once per build and zoom (most cases share their zoom)."""
    with _infinity_lock:
        if (build, zoom) in _infinity:
            return _infinity[(build, zoom)]
    text = ("subject: far\nlens: {zoom: %d, focus: 3000}\nscene:\n  objects:\n"
            "    - {name: far, rect: [0, 0, 1, 1], distance: 1000000, texture: 1000}\n" % zoom)
    r = vcam_alone(build, text, [], 1, port)
    focus = r[0].get("subject_focus") if r else None
    if focus is not None:
        with _infinity_lock:
            _infinity[(build, zoom)] = focus
    return focus


def latency_of(text):
    m = re.search(r"latency:\s*\{[^}]*frames:\s*(\d+)", text) or \
        re.search(r"latency:\n\s+frames:\s*(\d+)", text)
    return int(m.group(1)) if m else 2


def references(build, base, ov, extra, port):
    """Probe the scene, then sweep the focus at 1 step from beyond the start to beyond the peak.
    Returns the truth at the start and the two references."""
    probe = vcam_alone(build, scenario_text(base, ov, static=True), extra, 2, port)
    if not probe:
        return {"error": "vcam probe gave no frames"}
    r0 = probe[0]
    sf = r0.get("subject_focus")
    zoom = r0["lens"]["zoom"]
    start = r0["lens"]["focus"]
    ref = {"subject_focus": sf, "zoom": zoom, "start": start,
           "depth_of_focus": round(half_width(zoom, r0["lens"].get("iris", 1023)), 2)}
    if sf is None:
        ref["error"] = "no subject in the picture at the start"
        return ref
    lat = latency_of(open(os.path.join(SCEN, base)).read())
    lo = int(max(0, min(start, sf) - 120))
    hi = int(min(FOCUS_MAX, max(start, sf) + 120))
    data = vcam_alone(build, scenario_text(base, ov, sweep=(lo, hi), static=True), extra,
                      hi - lo + 1 + lat + 1, port)
    # centre V of frame k shows the lens as it was `lat` frames earlier (the clean frame)
    curve = {}
    for k in range(lat, len(data)):
        curve[data[k - lat]["lens"]["focus"]] = data[k]["centre_v"]
    if not curve:
        ref["error"] = "sweep gave no frames"
        return ref
    best = max(curve, key=lambda p: curve[p])
    ref["sweep"] = {"best": best, "error": round(best - sf, 1),
                    "error_dof": round(abs(best - sf) / ref["depth_of_focus"], 2),
                    "frames": hi - lo + 1 + lat, "range": [lo, hi]}
    # oracle hill-climb: direction known, 60 steps per frame; position j (commanded after frame
    # j-1) is seen clean at frame j-1+lat; done on the first fall beyond the true peak
    direction = 1 if sf >= start else -1

    def value(p):
        q = min(curve, key=lambda x: abs(x - p)) if p not in curve else p
        return curve[q]

    pos = [start]
    oracle = None
    for j in range(1, 200):
        p = max(lo, min(hi, start + direction * MAX_STEP * j))
        pos.append(p)
        if (p - sf) * direction > 0 and value(p) < value(pos[-2]):
            oracle = j - 1 + lat
            break
        if p in (lo, hi):
            oracle = j - 1 + lat
            break
    ref["oracle_frames"] = oracle
    return ref


def score(data, duration_us, static, fps):
    t0 = data[0]["t_us"]
    data = [r for r in data if r["t_us"] - t0 <= duration_us]
    g0 = data[0]["exposure"]
    foc = [r["lens"]["focus"] for r in data]
    sf = [r.get("subject_focus") for r in data]
    dof = [half_width(r["lens"]["zoom"], r["lens"].get("iris", 1023)) for r in data]
    n = len(data)
    inf = [sf[k] is not None and abs(foc[k] - sf[k]) <= dof[k] for k in range(n)]

    def focused_from(k0):
        for k in range(k0, n - REST_FRAMES + 1):
            if all(inf[k + i] and foc[k + i] == foc[k] for i in range(REST_FRAMES)):
                return k
        return None

    def moves(a, b):
        d = [foc[k] - foc[k - 1] for k in range(max(1, a), b) if foc[k] != foc[k - 1]]
        rev = sum(1 for i in range(1, len(d)) if (d[i] > 0) != (d[i - 1] > 0))
        return round(sum(abs(x) for x in d), 1), rev

    out = {"frames": n, "virtual_s": round((data[-1]["t_us"] - t0) / 1e6, 2)}
    last = data[-1]
    if last.get("subject_focus") is not None:
        e = last["lens"]["focus"] - last["subject_focus"]
        out["final_error"] = round(e, 1)
        out["final_error_dof"] = round(abs(e) / dof[-1], 2)
    k = focused_from(0)
    if k is None:
        out["focused"] = False
        out["travel"], out["reversals"] = moves(0, n)
        return out
    out["focused"] = True
    out["frames_to_focus"] = data[k]["exposure"] - g0
    out["seconds_to_focus"] = round((data[k]["t_us"] - t0) / 1e6, 3)
    out["travel"], out["reversals"] = moves(0, k + 1)
    settle = k + REST_FRAMES
    out["travel_total"], out["reversals_total"] = moves(0, n)
    # subject moves: frames from the end of its last move until focused again
    moved = [i for i in range(max(1, settle), n)
             if sf[i] is not None and sf[i - 1] is not None and abs(sf[i] - sf[i - 1]) > 0.5]
    if moved and not static:
        j = moved[-1]
        kk = focused_from(j)
        out["refocus_frames"] = None if kk is None else data[kk]["exposure"] - data[j]["exposure"]
    if static and settle < n:
        episodes, rest = 0, 0
        for i in range(settle, n):
            if foc[i] != foc[i - 1]:
                if rest >= REST_FRAMES:
                    episodes += 1
                rest = 0
            else:
                rest += 1
        minutes = (data[-1]["t_us"] - data[settle]["t_us"]) / 60e6
        out["moves_after_focus"] = episodes
        out["false_refocus_per_min"] = round(episodes / minutes, 2) if minutes > 0 else None
        out["max_excursion_dof"] = round(max(abs(foc[i] - sf[i]) / dof[i]
                                             for i in range(settle, n)), 2)
    return out


class IspGate:
    """A relay on the ISP link between afd and vcam that can hold the daemon's next statistics
    request. Held, the daemon waits for its frame and the virtual clock stands still, so a command
    given meanwhile takes effect exactly on the next frame (the trigger). Created held, and moved
    on by step(), the daemon sees every command on a frame fixed by the frames it was given, not
    by how long the benchmark took to send it: a case runs the same way every time."""
    SIZES = {1: STATS_BYTES, 2: 264, 4: 292}

    def __init__(self, listen_port, vcam_port, held=False):
        self.open = threading.Event()
        if not held:
            self.open.set()
        self.waiting = threading.Event()
        self.last_seq = -1  # sequence number of the last statistics frame relayed
        self.connections = 0  # more than one: the daemon lost its ISP link and reconnected
        self.vcam_port = vcam_port
        self.srv = socket.socket()
        self.srv.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.srv.bind(("127.0.0.1", listen_port))
        self.srv.listen(1)
        self.stopped = False
        self.hold_at = None  # close the gate once a statistics frame of this sequence is relayed
        threading.Thread(target=self.serve, daemon=True).start()

    @staticmethod
    def read(s, n):
        buf = b""
        while len(buf) < n:
            b = s.recv(n - len(buf))
            if not b:
                raise EOFError
            buf += b
        return buf

    def serve(self):
        while not self.stopped:
            try:
                c, _ = self.srv.accept()
            except OSError:
                return
            self.connections += 1
            try:
                up = socket.create_connection(("127.0.0.1", self.vcam_port), timeout=30)
            except OSError:
                c.close()
                continue
            for x in (c, up):
                x.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            c.settimeout(None)
            up.settimeout(60)
            try:
                while True:
                    code = self.read(c, 1)
                    if code[0] == 1 and not self.open.is_set():
                        self.waiting.set()
                        self.open.wait()
                        self.waiting.clear()
                    body = self.read(c, 264) if code[0] == 3 else b""
                    up.sendall(code + body)
                    n = self.SIZES.get(code[0])
                    if n:
                        reply = self.read(up, n)
                        c.sendall(reply)
                        if code[0] == 1:
                            self.last_seq = struct.unpack_from("<I", reply)[0]
                            if self.hold_at is not None and self.last_seq >= self.hold_at:
                                self.hold_at = None
                                self.open.clear()
            except (EOFError, OSError):
                pass
            c.close()
            up.close()

    def step(self, n, timeout=60):
        """With the daemon held at its next frame: lets it take n more frames and holds it again
        (returns once it asks for the frame after them)."""
        if not self.waiting.wait(timeout):
            raise RuntimeError("daemon stopped fetching frames")
        self.hold_at = self.last_seq + n
        self.waiting.clear()
        self.open.set()
        if not self.waiting.wait(timeout):
            raise RuntimeError("daemon stopped fetching frames")

    def close(self):
        self.stopped = True
        self.open.set()
        self.srv.close()


def signal_taken(pid, signum, timeout=10):
    """Waits until the process has taken a signal sent to it (no longer pending: a loaded machine
    may leave it pending for longer than any fixed pause)."""
    bit = 1 << (signum - 1)
    end = time.time() + timeout
    while time.time() < end:
        try:
            status = open(f"/proc/{pid}/status").read()
        except OSError:
            return
        pending = 0
        for line in status.splitlines():
            if line.startswith(("ShdPnd:", "SigPnd:")):
                pending |= int(line.split()[1], 16)
        if not pending & bit:
            time.sleep(0.002)  # the handler's store
            return
        time.sleep(0.001)
    raise RuntimeError("vcam did not take the signal that starts its timeline")


def command(build, env, *args):
    """afctl with a command the daemon does not answer (a write: a datagram and no reply), then a
    read, which the daemon answers only after it has taken every datagram before it: when this
    returns, the command is in force, and a held daemon meets it on its next frame."""
    afctl(build, env, *args)
    afctl(build, env, "error")


def afctl(build, env, *args):
    r = subprocess.run([os.path.join(build, "afctl"), "--timeout", "2000"] + list(args), env=env,
                       capture_output=True, text=True, timeout=60)
    if r.returncode != 0:
        raise RuntimeError("afctl %s: %s" % (" ".join(args), (r.stderr or r.stdout).strip()[-200:]))
    return r.stdout


# The set-up waits below move a held gate on by a few frames at a time and look at vcam's truth in
# between, so the daemon gets the next command on a frame that does not depend on wall time.
STEP_FRAMES = 3


def held_rows(gate, tele, rest):
    """With the daemon held: the last `rest` truth rows, once vcam has written the row of the
    last frame it served (a loaded machine may write it late)."""
    end = time.time() + 30
    while time.time() < end:
        data = rows_tail(tele, rest)
        if data and data[-1]["frame"] >= gate.last_seq:
            return data
        time.sleep(0.001)
    raise RuntimeError("vcam did not write the truth of frame %d (last row: %s)" % (
        gate.last_seq, rows_tail(tele, 1)[-1:] and rows_tail(tele, 1)[-1]["frame"]))


def stepped_rows(gate, tele, rest):
    """Moves the held daemon on by STEP_FRAMES frames; the last `rest` truth rows."""
    gate.step(STEP_FRAMES)
    return held_rows(gate, tele, rest)


def wait_lens(gate, tele, axis, target, tol, rest=10, frames=3000):
    """Moves the daemon on until the true lens position on `axis` is within tol of target and
    unchanged for `rest` frames; returns the last row."""
    for _ in range(0, frames, STEP_FRAMES):
        data = stepped_rows(gate, tele, rest)
        if len(data) == rest and all(abs(r["lens"][axis] - target) <= tol and
                                     r["lens"][axis] == data[-1]["lens"][axis] for r in data):
            return data[-1]
    raise RuntimeError("lens %s never reached %s" % (axis, target))


def wait_focus_rest(gate, tele, rest, frames=3000):
    """Moves the daemon on until the true focus has not moved for `rest` frames."""
    for _ in range(0, frames, STEP_FRAMES):
        data = stepped_rows(gate, tele, rest)
        if len(data) == rest and all(r["lens"]["focus"] == data[-1]["lens"]["focus"]
                                     for r in data):
            return
    raise RuntimeError("the focus never came to rest")


def rows_tail(path, n):
    try:
        with open(path, "rb") as f:
            f.seek(0, 2)
            at = max(0, f.tell() - 4096 * (n + 2))
            f.seek(at)
            lines = f.read().split(b"\n")[(1 if at else 0):-1]  # the first may be cut
    except FileNotFoundError:
        return []
    out = []
    for line in lines[-n:]:
        try:
            out.append(json.loads(line))
        except ValueError:
            pass
    return out


def run_daemon(build, base, ov, extra, seconds, port, outdir, name, mode, callgrind=None):
    sb = make_sandbox("afd-afbench-")
    env = sandbox_env(sb, port)
    text = scenario_text(base, ov)
    m = re.search(r"lens:\n(?:\s+.*\n)*?\s+zoom: (\d+)", text)
    zoom = int(m.group(1)) if m else 0
    m = re.search(r"lens:\n(?:\s+.*\n)*?\s+focus: (\d+)", text)
    start = int(m.group(1)) if m else 2400
    scen = os.path.join(sb, "scene.yaml")
    open(scen, "w").write(text)
    tele = os.path.join(sb, "run/telemetry.jsonl")
    procs = []
    wall = time.time()
    gate = IspGate(port, port + 4, held=True)
    res = {"wall_s": 0}
    trigger = None
    try:
        vcam = subprocess.Popen([os.path.join(build, "sim/vcam"), "--mode", "virtual",
                                 "--port", str(port + 4), "--telemetry", tele, "--hold-timeline"]
                                + extra + [scen], env=env, stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL)
        procs.append(vcam)
        for _ in range(100):
            if os.path.exists(env["AFD_SIM_SOCKET"]):
                break
            time.sleep(0.01)
        cmd = [os.path.join(build, "afd")]
        if callgrind:  # instruction counts of the daemon, zeroed at the trigger
            cmd = ["valgrind", "--tool=callgrind", "--callgrind-out-file=" + callgrind] + cmd
        daemon = subprocess.Popen(cmd, env=env, stdout=open(os.path.join(sb, "run/afd.log"), "wb"),
                                  stderr=subprocess.STDOUT)
        procs.append(daemon)
        # The daemon answers once its lens start-up is over (a few virtual seconds of homing,
        # some tens of milliseconds of wall time).
        for _ in range(1500):
            if subprocess.run([os.path.join(build, "afctl"), "--timeout", "40", "error"],
                              env=env, capture_output=True).returncode == 0:
                break
            time.sleep(0.02)
        stepped_rows(gate, tele, 1)  # the daemon's lens initialisation has ended: frames flow
        # The commanded start, as a preset recall with the autofocus on (switching it off and on
        # again would first drive the focus back to its last autofocus position): a tracked zoom,
        # whose search ends focused, then a zoom-then-focus preset to the start at the same zoom.
        # The autofocus is in its focus-once-and-hold mode meanwhile: in continuous mode the
        # focused watch would see the preset defocus the picture and search before the trigger.
        # No zoom steps, no refocus request: the autofocus stays in its focused state there.
        command(build, env, "zoom", "--to", str(zoom), "--speed", "7")
        wait_lens(gate, tele, "zoom", zoom, 60)  # the zoom stops within a few steps
        wait_focus_rest(gate, tele, 20)
        command(build, env, "af", "--mode", "once")  # one more search, then hold
        gate.step(30)  # the search starts on the daemon's next AF frame: let it begin
        wait_focus_rest(gate, tele, 40)
        pos = json.loads(afctl(build, env, "--json", "positions"))
        command(build, env, "zoom", "--to", str(pos["zoom"]), "--focus", str(start),
                "--speed", "7")
        try:
            wait_lens(gate, tele, "focus", start, 4, frames=240)
        except RuntimeError:  # the focus range may end before the commanded start
            wait_lens(gate, tele, "focus", start, 400)
        # hold the clock, switch autofocus on, release: the next frame is the trigger
        gate.open.clear()
        if not gate.waiting.wait(30):
            raise RuntimeError("daemon stopped fetching frames")
        last = held_rows(gate, tele, 1)[-1]
        if ov.get("phase"):  # a few frames more: the trigger meets the daemon's cadence elsewhere
            gate.step(ov["phase"])
            last = held_rows(gate, tele, 1)[-1]
        trigger = last["exposure"] + 1
        if callgrind:
            subprocess.run(["callgrind_control", "--zero", str(daemon.pid)], check=True,
                           capture_output=True, timeout=60)
        if ov.get("assist"):
            command(build, env, "assist", "--" + ov["assist"])
        command(build, env, "af", "--mode", "once")  # raises the refocus request: a new search
        if mode != "once":
            command(build, env, "af", "--mode", mode)
        vcam.send_signal(signal.SIGUSR1)  # the scenario's timeline starts with the next frame
        signal_taken(vcam.pid, signal.SIGUSR1)  # (before the held daemon's next frame)
        fps = ov.get("fps") or fps_of(text)
        actions = sorted(ov.get("actions", []))
        first_frame = last["frame"]  # the actions' times count from here
        # The daemon is held again at each action and at the end, after the frame that completes
        # `seconds` after the trigger: every run scores the same frames.
        end_seq = trigger + int(seconds * 1e6 / period_of(last)) + 1

        def next_hold():
            return first_frame + round(actions[0][0] * fps) if actions else end_seq

        gate.hold_at = next_hold()
        gate.waiting.clear()
        gate.open.set()
        deadline = time.time() + max(120, seconds * 4)
        while time.time() < deadline:
            if gate.waiting.is_set():
                if not actions:
                    break
                command(build, env, *actions.pop(0)[1])
                gate.hold_at = next_hold()
                gate.waiting.clear()
                gate.open.set()
            if any(p.poll() is not None for p in procs):
                break
            time.sleep(0.005)
        if gate.waiting.is_set():
            held_rows(gate, tele, 1)  # the truth of the last frame is written before it is scored
        if callgrind:
            gate.open.clear()  # the daemon waits for its next frame while the counts are written
            gate.waiting.wait(30)
            subprocess.run(["callgrind_control", "--dump", str(daemon.pid)], check=True,
                           capture_output=True, timeout=120)
            gate.open.set()
            dumps = sorted(f for f in os.listdir(os.path.dirname(callgrind))
                           if f.startswith(os.path.basename(callgrind) + "."))
            if dumps:
                res["cpu"] = callgrind_costs(os.path.join(os.path.dirname(callgrind), dumps[-1]))
        exited = [p.args[0] for p in procs if p.poll() is not None]
        if exited:
            res["note"] = "exited early: " + ", ".join(os.path.basename(x) for x in exited)
        if gate.connections > 1:
            # The daemon gives up on a statistics reply after 3 s of real time: a benchmark held up
            # that long by the machine's load lets the link drop, and the run no longer repeats.
            res["isp_reconnects"] = gate.connections - 1
            res["note"] = (res.get("note", "") + " ISP link dropped while held (machine load): "
                           "this run may differ from a repeat").strip()
    except Exception as e:
        res["error"] = f"{type(e).__name__}: {e}"
    finally:
        gate.open.set()
        stop(procs)
        gate.close()
    res["wall_s"] = round(time.time() - wall, 1)
    data = [r for r in rows(tele) if trigger is not None and r["exposure"] >= trigger]
    if not data:
        res.setdefault("error", "no telemetry after the trigger")
        return res, tele
    static = not re.search(r"\ntimeline:", text) and "sweep:" not in text and \
        not ov.get("actions")
    res["trigger_frame"] = trigger
    res["start"] = data[0]["lens"]["focus"]
    res["start_zoom"] = data[0]["lens"]["zoom"]
    res.update(score(data, seconds * 1e6, static, ov.get("fps")))
    res["static"] = static
    # A subject that has left the picture by the last frame: the end is scored against the object
    # the case names instead (vcam keeps reporting where the departed subject would be in focus).
    names = object_names(text)
    subject = re.search(r"^subject: ([\w-]+)", text, re.M)
    of_last = data[-1].get("object_focus") or []
    if ov.get("end_target") in names and subject and subject.group(1) in names:
        si, ti = names.index(subject.group(1)), names.index(ov["end_target"])
        if si < len(of_last) and of_last[si] is None and ti < len(of_last) and \
                of_last[ti] is not None:
            dof = half_width(data[-1]["lens"]["zoom"], data[-1]["lens"].get("iris", 1023))
            e = data[-1]["lens"]["focus"] - of_last[ti]
            res["final_error"], res["final_error_dof"] = round(e, 1), round(abs(e) / dof, 2)
            res["final_target"] = ov["end_target"]
    if ov.get("background") in names:
        of = data[-1].get("object_focus") or []
        i = names.index(ov["background"])
        if i < len(of) and of[i] is not None:
            dof = half_width(data[-1]["lens"]["zoom"], data[-1]["lens"].get("iris", 1023))
            res["background_error_dof"] = round(abs(data[-1]["lens"]["focus"] - of[i]) / dof, 2)
    if outdir:
        sub = os.path.join(sb, "run/after_trigger.jsonl")
        with open(sub, "w") as f:
            for r in data:
                f.write(json.dumps(r) + "\n")
        svg = os.path.join(outdir, name + ".svg")
        r = subprocess.run([os.path.join(build, "tools/telemetry_plot"), sub, svg],
                           capture_output=True, text=True)
        res["plot"] = svg if r.returncode == 0 else "plot failed: " + r.stderr.strip()[-200:]
    return res, tele


def fps_of(text):
    m = re.search(r"^fps: ([0-9.]+)", text, re.M)
    return float(m.group(1)) if m else 30.0


COST_FUNCS = {"frame": "FrameLoop::iteration()", "af_frame": "AfFrame()",
              "fetch": "af_stat_fetch(unsigned char)", "sample": "SampleFrame()",
              "watch": "FocusWatch(unsigned char)",
              "scene": "scene_step(SceneResult&, SceneInput const&)"}
HEAP_FUNCS = ("malloc", "calloc", "realloc", "operator new")


def callgrind_costs(path):
    """Inclusive instructions per call of the frame loop's pieces, and the heap calls made, from
    a callgrind profile (callgrind_annotate's caller tree: ' Ir (..)  < caller (Nx)' lines, then
    ' Ir (..)  *  function')."""
    out = subprocess.run(["callgrind_annotate", "--tree=caller", "--inclusive=yes", "--auto=no",
                          "--threshold=100", path], capture_output=True, text=True).stdout
    calls, ir = {}, {}
    pending = 0
    for line in out.splitlines():
        m = re.match(r"\s*([\d,]+) \([^)]*\)\s+<.*\(([\d,]+)x\)", line)
        if m:  # (counts of a thousand and more are printed with commas)
            pending += int(m.group(2).replace(",", ""))
            continue
        m = re.match(r"\s*([\d,]+) \([^)]*\)\s+\*\s+\S*?:(.*?)( \[.*)?$", line)
        if m:  # an inlined part shows again under its header's name: keep the largest entry
            fn = m.group(2)
            v = int(m.group(1).replace(",", ""))
            if v > ir.get(fn, -1):
                ir[fn] = v
                calls[fn] = pending
        pending = 0
    res = {}
    for key, fn in COST_FUNCS.items():
        if calls.get(fn):
            res[key + "_calls"] = calls[fn]
            res[key + "_ir_per_call"] = round(ir[fn] / calls[fn])
    res["heap_calls"] = sum(n for fn, n in calls.items() if fn.startswith(HEAP_FUNCS))
    return res


def period_of(row):
    return row["t_us"] / row["exposure"] if row["exposure"] else 33333.0


def run_case(build, case, seconds, port, outdir, mode, callgrind=None):
    name, base, ov = case
    ov = dict(ov)
    extra = vcam_args(ov)
    res = {"case": name, "scenario": base, "overrides": dict(ov)}
    if "offset" in ov:  # the start is placed relative to the subject's in-focus position
        probe = vcam_alone(build, scenario_text(base, ov, static=True), extra, 2, port + 8)
        sf0 = probe[0].get("subject_focus") if probe else None
        if sf0 is None:
            res["error"] = "no subject"
            return res
        ov["start"] = int(round(max(0, min(FOCUS_MAX, sf0 + ov["offset"]))))
    # The autofocus range ends some 50 steps beyond the in-focus position of infinity; a start
    # beyond it would make the daemon pull the lens in and search before the trigger.
    text = scenario_text(base, ov)
    m = re.search(r"lens:\n(?:\s+.*\n)*?\s+zoom: (\d+)", text)
    zoom = int(m.group(1)) if m else 0
    m = re.search(r"lens:\n(?:\s+.*\n)*?\s+focus: (\d+)", text)
    inf = infinity_focus(build, zoom, port + 8)
    if m and inf is not None and int(m.group(1)) > inf + 40:
        ov["start"] = int(inf + 40)
        res["start_note"] = "start moved into the autofocus range"
    d, _ = run_daemon(build, base, ov, extra, seconds, port, outdir, name, mode,
                      os.path.join(callgrind, name + ".callgrind") if callgrind else None)
    res["daemon"] = d
    # the references start where the daemon's search really started (the zoom stops a few steps
    # off the command; the focus range may end before the commanded start)
    if "start" in d:
        ov["start"], ov["zoom"] = int(round(d["start"])), max(0, int(round(d["start_zoom"])))
    res["reference"] = references(build, base, ov, extra, port + 6)
    o = res["reference"].get("oracle_frames")
    if d.get("frames_to_focus") is not None and o:
        res["ratio_oracle"] = round(d["frames_to_focus"] / o, 2)
    return res


def wobble_amplitude(zoom):
    """Largest focus excursion of the focused watch's wobble at this zoom (steps)."""
    d = 2 if zoom > 3000 else 1
    return d if zoom < 1088 else (2 * d if zoom <= 2555 else 3 * d)


def focus_episodes(data, k0):
    """Focus movements from frame k0 on, each a run of moves with fewer than REST_FRAMES still
    frames between them. A zoom motion ends a run (the focus follows the zoom's curve then, no
    search); the first move after it starts a new one. Returns (searches, wobbles): a run that
    leaves the position by more than the wobble's amplitude (one step of slack) or moves more
    often than a wobble does, or that does not end where it began, is a search; the rest are
    wobbles (a wobble always returns to its position)."""
    searches, wobbles = [], []
    cur, rest = None, REST_FRAMES

    def finish(c):
        if c is None:
            return
        wobble = c["excursion"] <= wobble_amplitude(c["zoom"]) + 1 and c["moves"] <= 8 and \
            c["end"] == c["base"]
        (wobbles if wobble else searches).append(c["start"])

    for i in range(max(1, k0), len(data)):
        f, f1 = data[i]["lens"]["focus"], data[i - 1]["lens"]["focus"]
        if data[i]["lens"]["zoom"] != data[i - 1]["lens"]["zoom"]:
            finish(cur)
            cur, rest = None, REST_FRAMES
            continue
        if f != f1:
            if cur is None and rest >= REST_FRAMES:
                cur = {"start": i, "base": f1, "excursion": 0, "moves": 0,
                       "zoom": data[i]["lens"]["zoom"]}
            if cur is not None:
                cur["excursion"] = max(cur["excursion"], abs(f - cur["base"]))
                cur["moves"] += 1
                cur["end"] = f
            rest = 0
        else:
            rest += 1
            if cur is not None and rest >= REST_FRAMES:
                finish(cur)
                cur = None
    finish(cur)
    return searches, wobbles


def object_names(text):
    return re.findall(r"\{name: ([\w-]+)", text.split("\nobjects:", 1)[-1]) or \
        re.findall(r"-\s+name: ([\w-]+)", text)


def score_scene(data, text, ov):
    """Scene-change scores from vcam's ground truth: frames from the end of the change until the
    lens is in focus on the target and stays in focus to the end of the run (at rest for
    REST_FRAMES when it gets there), the final error, and the searches started after the first
    focus (per 10 virtual minutes on the static scenes)."""
    names = object_names(text)
    subject = (re.search(r"^subject: ([\w-]+)", text, re.M) or [None, None])[1]
    target = ov.get("target") or subject
    n = len(data)

    def truth(k, name=target):
        of = data[k].get("object_focus") or []
        idx = names.index(name) if name in names else None
        if idx is not None and idx < len(of):
            return of[idx]
        return data[k].get("subject_focus")

    foc = [r["lens"]["focus"] for r in data]
    dof = [half_width(r["lens"]["zoom"], r["lens"].get("iris", 1023)) for r in data]
    inf = [truth(k) is not None and abs(foc[k] - truth(k)) <= dof[k] for k in range(n)]
    out = {"target": target, "frames": n,
           "virtual_s": round((data[-1]["t_us"] - data[0]["t_us"]) / 1e6, 1)}
    # first focus, on the scenario's subject: in focus and still for REST_FRAMES
    first = next((k for k in range(n - REST_FRAMES) if truth(k, subject) is not None and
                  abs(foc[k] - truth(k, subject)) <= dof[k] and
                  all(foc[k + i] == foc[k] for i in range(REST_FRAMES))), None)
    out["first_focus_frames"] = None if first is None else \
        data[first]["exposure"] - data[0]["exposure"]
    # end of the change: the given scene time, or later when a zoom was still moving
    ce = ov.get("change_end")
    kc = None
    if ce is not None:
        kc = next((k for k in range(n) if data[k].get("scene_s", 0) >= ce), n - 1)
        zooms = [k for k in range(1, n) if data[k]["lens"]["zoom"] != data[k - 1]["lens"]["zoom"]
                 and (first is None or k > first)]
        if zooms and zooms[-1] > kc:
            kc = zooms[-1]
        out["change_end_s"] = round(data[kc].get("scene_s", 0), 2)
        # in focus from here to the end
        k = n
        while k > kc and inf[k - 1]:
            k -= 1
        while k < n - REST_FRAMES and not all(foc[k + i] == foc[k] for i in range(REST_FRAMES)):
            k += 1
        out["refocus_frames"] = (data[k]["exposure"] - data[kc]["exposure"]) \
            if k < n - REST_FRAMES or (k < n and inf[n - 1]) else None
    e = foc[-1] - truth(n - 1) if truth(n - 1) is not None else None
    if e is not None:
        out["final_error"] = round(e, 1)
        out["final_error_dof"] = round(abs(e) / dof[-1], 2)
    if first is not None:
        searches, wobbles = focus_episodes(data, first + REST_FRAMES)
        out["searches"] = len(searches)
        out["wobbles"] = len(wobbles)
        minutes = (data[-1]["t_us"] - data[first]["t_us"]) / 60e6
        if ce is None and minutes > 0:
            out["searches_per_10min"] = round(len(searches) * 10 / minutes, 1)
        out["search_starts_s"] = [round(data[k].get("scene_s", 0), 1) for k in searches][:40]
    return out


def run_scene_case(build, case, seconds, port, outdir, mode, callgrind=None):
    name, base, ov = case
    ov = dict(ov)
    extra = vcam_args(ov)
    res = {"case": name, "scenario": base, "overrides": {k: v for k, v in ov.items()}}
    probe = vcam_alone(build, scenario_text(base, ov, static=True), extra, 2, port + 8)
    sf0 = probe[0].get("subject_focus") if probe else None
    if sf0 is None:
        res["error"] = "no subject"
        return res
    ov["start"] = int(round(max(0, min(FOCUS_MAX, sf0 + ov.get("offset", 0)))))
    secs = seconds or ov.get("seconds", SCENE_SECONDS)
    d, tele = run_daemon(build, base, ov, extra, secs, port, outdir, name, mode,
                         os.path.join(callgrind, name.replace("/", "-") + ".callgrind")
                         if callgrind else None)
    res["daemon"] = {k: d[k] for k in ("wall_s", "error", "note", "plot", "start", "start_zoom",
                                       "cpu") if k in d}
    if "trigger_frame" not in d:
        return res
    t0 = None
    data = []
    for r in rows(tele):
        if r["exposure"] < d["trigger_frame"]:
            continue
        t0 = r["t_us"] if t0 is None else t0
        if r["t_us"] - t0 > secs * 1e6:
            break
        data.append(r)
    res["scene"] = score_scene(data, scenario_text(base, ov), ov)
    return res


def print_scene_row(r):
    sc = r.get("scene", {})
    d = r.get("daemon", {})
    ref = sc.get("refocus_frames", "-") if "change_end_s" in sc else "-"
    print(f"{r['case']:<20} {fmt(d.get('start_zoom')):>5} {fmt(sc.get('target')):>7} "
          f"{fmt(sc.get('first_focus_frames')):>6} {fmt(sc.get('change_end_s')):>6} "
          f"{fmt('never' if ref is None else ref):>6} {fmt(sc.get('final_error')):>7} "
          f"{fmt(sc.get('final_error_dof')):>6} {fmt(sc.get('searches')):>5} "
          f"{fmt(sc.get('wobbles')):>5} {fmt(sc.get('searches_per_10min')):>7}  "
          f"{r.get('error') or d.get('error') or d.get('note') or ''}")
    print_cpu(d)
    sys.stdout.flush()


def print_cpu(d):
    cpu = d.get("cpu")
    if cpu:
        print("    callgrind, instructions per call: frame loop %s (%s frames), AfFrame %s (%s), "
              "statistics fetch %s (%s), SampleFrame %s (%s), FocusWatch %s (%s), scene_step %s "
              "(%s); heap calls %s" % tuple(
                  cpu.get(k) for k in ("frame_ir_per_call", "frame_calls", "af_frame_ir_per_call",
                                       "af_frame_calls", "fetch_ir_per_call", "fetch_calls",
                                       "sample_ir_per_call", "sample_calls", "watch_ir_per_call",
                                       "watch_calls", "scene_ir_per_call", "scene_calls",
                                       "heap_calls")))


def fmt(v, how=""):
    if v is None:
        return "-"
    return format(v, how)


def print_row(r):
    d = r.get("daemon", {})
    ref = r.get("reference", {})
    sw = ref.get("sweep", {})
    ftf = d.get("frames_to_focus") if d.get("focused") else ("never" if d else "-")
    refoc = d.get("refocus_frames", "-")
    print(f"{r['case']:<24} {fmt(ref.get('zoom')):>5} {fmt(ref.get('start')):>5} "
          f"{fmt(ref.get('subject_focus'), '.0f'):>6} {fmt(ref.get('depth_of_focus'), '.1f'):>5} "
          f"{fmt(ftf):>6} {fmt(ref.get('oracle_frames')):>6} {fmt(r.get('ratio_oracle')):>5} "
          f"{fmt(d.get('final_error')):>7} {fmt(d.get('final_error_dof')):>6} "
          f"{fmt(sw.get('error_dof')):>6} {fmt(d.get('travel')):>6} {fmt(d.get('reversals')):>4} "
          f"{fmt(d.get('false_refocus_per_min')):>6} {fmt('never' if refoc is None else refoc):>6}  "
          f"{r.get('error') or ref.get('error') or d.get('error') or d.get('note') or ''}")
    print_cpu(d)
    sys.stdout.flush()


def summary(results):
    ftf = [r["daemon"]["frames_to_focus"] for r in results
           if r.get("daemon", {}).get("focused")]
    # final error over the static scenes; scenes that change are judged by their refocus
    err = [r["daemon"]["final_error_dof"] for r in results
           if r.get("daemon", {}).get("final_error_dof") is not None and r["daemon"].get("static")]
    refoc = [r["daemon"].get("refocus_frames") for r in results
             if "refocus_frames" in r.get("daemon", {})]
    rev = [r["daemon"]["reversals"] for r in results if "reversals" in r.get("daemon", {})]
    fr = [r["daemon"]["false_refocus_per_min"] for r in results
          if r.get("daemon", {}).get("false_refocus_per_min") is not None]
    rat = [r["ratio_oracle"] for r in results if r.get("ratio_oracle") is not None]
    s = {"cases": len(results), "focused": len(ftf)}
    if ftf:
        s["frames_to_focus_median"] = statistics.median(ftf)
        s["frames_to_focus_worst"] = max(ftf)
    if err:
        s["final_error_dof_median"] = statistics.median(err)
        s["final_error_dof_worst"] = max(err)
    if rev:
        s["reversals_median"], s["reversals_worst"] = statistics.median(rev), max(rev)
    if fr:
        s["false_refocus_per_min_median"], s["false_refocus_per_min_worst"] = \
            statistics.median(fr), max(fr)
    if rat:
        s["ratio_oracle_median"], s["ratio_oracle_worst"] = statistics.median(rat), max(rat)
    if refoc:
        s["refocus_cases"] = len(refoc)
        s["refocused"] = sum(1 for v in refoc if v is not None)
        if s["refocused"]:
            s["refocus_frames_worst"] = max(v for v in refoc if v is not None)
    return s


def main():
    ap = argparse.ArgumentParser(description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", default=os.path.join(ROOT, "build"))
    ap.add_argument("--suite", choices=["daylight", "library", "all", "scene", "night", "track"],
                    default="all",
                    help="all: daylight and library; scene: the scene-change suite (slow, run "
                         "on its own); night: night and dusk scenes at two zooms")
    ap.add_argument("--only", help="run only the cases whose name contains this")
    ap.add_argument("--case", action="append",
                    help="run only this case (exact name; may be given more than once)")
    ap.add_argument("--seconds", type=float,
                    help="virtual seconds per case (default 30; the scene suite's own per case)")
    ap.add_argument("--mode", default="continuous", choices=["continuous", "once"],
                    help="autofocus mode switched on at the trigger")
    ap.add_argument("--callgrind", metavar="DIR",
                    help="run the daemon under callgrind, counts zeroed at the trigger; the "
                         "profiles go to DIR (see tools/afcost.py)")
    ap.add_argument("--seeds", type=int, default=1,
                    help="run every case N times: noise seed k (vcam --seed) and the trigger "
                         "(k - 1) %% 3 frames later, so it meets the daemon's AF cadence at "
                         "another phase; 1 keeps the scenario's seed")
    ap.add_argument("--jobs", type=int, default=os.cpu_count() or 1,
                    help="cases run at the same time (default: one per core); every case runs on "
                         "its own virtual clock, so the figures vary no more than from one run "
                         "to the next")
    ap.add_argument("--keep", action="store_true",
                    help="keep every case's sandbox (telemetry, logs) under /tmp")
    ap.add_argument("--json")
    ap.add_argument("--out", help="directory for the SVG plots (default: a new temporary one)")
    a = ap.parse_args()
    cases = (DAYLIGHT if a.suite in ("daylight", "all") else []) + \
            (LIBRARY if a.suite in ("library", "all") else [])
    if a.suite == "scene":
        cases = SCENE
    if a.suite == "night":
        cases = NIGHT
    if a.suite == "track":
        cases = TRACK
    if a.only:
        cases = [c for c in cases if a.only in c[0]]
    if a.case:
        unknown = set(a.case) - {c[0] for c in cases}
        if unknown:
            ap.error("no such case: " + ", ".join(sorted(unknown)))
        cases = [c for c in cases if c[0] in a.case]
    if a.seeds > 1:  # run k: noise seed k, trigger (k - 1) % 3 frames later
        cases = [(f"{n}/s{k}", b, dict(ov, seed=k, phase=(k - 1) % 3)) for n, b, ov in cases
                 for k in range(1, a.seeds + 1)]
    outdir = a.out or tempfile.mkdtemp(prefix="afbench-plots-")
    if a.callgrind:
        os.makedirs(a.callgrind, exist_ok=True)
    os.makedirs(outdir, exist_ok=True)
    port = 20000 + (os.getpid() % 800) * 12
    if a.suite == "scene":
        run_scene_suite(a, cases, port, outdir)
        return
    if a.suite == "track":
        run_track_suite(a, cases, port, outdir)
        return
    seconds = a.seconds or 30.0
    t_all = time.time()
    print(f"{'case':<24} {'zoom':>5} {'start':>5} {'truth':>6} {'dof':>5} {'ftf':>6} "
          f"{'oracle':>6} {'ratio':>5} {'err':>7} {'e/dof':>6} {'sw/dof':>6} {'travel':>6} "
          f"{'rev':>4} {'fr/min':>6} {'refoc':>6}")
    results = run_all(a, cases, port, 12, print_row,
                      lambda c, p: run_case(a.build, c, seconds, p, outdir, a.mode, a.callgrind))
    s = summary(results)
    s["speed"] = speed(results, seconds, time.time() - t_all, a.jobs)
    print("summary:", json.dumps(s))
    print("speed: %(cases)d cases of %(virtual_s_per_case)g virtual s in %(wall_s)s s of wall "
          "time, %(jobs)d at a time: %(virtual_per_wall)s virtual s per wall s" % s["speed"])
    print("plots:", outdir)
    if a.json:
        json.dump({"seconds": seconds, "build": a.build, "summary": s, "cases": results},
                  open(a.json, "w"), indent=1)


def speed(results, seconds, wall, jobs):
    """The suite's pace: scored virtual seconds of the cases that ran, per second of wall time
    (set-up, presets and reference sweeps included in the wall time)."""
    ran = sum(1 for r in results if "trigger_frame" in r.get("daemon", {}))
    return {"cases": ran, "virtual_s_per_case": seconds, "wall_s": round(wall, 1), "jobs": jobs,
            "virtual_per_wall": round(ran * seconds / wall, 1) if wall > 0 else None}


def run_all(a, cases, port, stride, show, run):
    """run(case, port) for every case, a.jobs at a time: each case on its own block of `stride`
    ports and in its own sandboxes, which are deleted when it ends (unless --keep). show(result)
    runs in the order of the cases, as soon as a case and all before it are done. Returns the
    results in that order; a case that fails gives a result with its error and the rest go on."""
    def one(item):
        i, c = item
        try:
            return run(c, port + stride * i)
        except Exception as e:
            return {"case": c[0], "scenario": c[1], "error": f"{type(e).__name__}: {e}"}
        finally:
            if not a.keep:
                remove_sandboxes()

    results = []
    with concurrent.futures.ThreadPoolExecutor(max_workers=max(1, a.jobs)) as pool:
        for r in pool.map(one, enumerate(cases)):
            results.append(r)
            show(r)
            sys.stdout.flush()
    return results


def run_track_suite(a, cases, port, outdir):
    """Every case with the distance assist off, then on; one row per case with both."""
    seconds = a.seconds or 30.0
    # start: where the lens really stood at the trigger (the preset before it may fall short)
    print(f"{'case':<24} {'zoom':>5} {'truth':>6} {'dof':>5} | {'start':>5} {'ftf':>6} "
          f"{'e/dof':>6} {'bg/dof':>6} {'refoc':>6} | {'start':>5} {'ftf':>6} {'e/dof':>6} "
          f"{'bg/dof':>6} {'refoc':>6} | on subject (off/on)")
    print(f"{'':<43}| {'assist off':<35}| {'assist on':<35}|")
    def both(case, port):
        name, base, ov = case
        row = {"case": name}
        for k, assist in enumerate(("off", "on")):
            try:
                row[assist] = run_case(a.build, (f"{name}-assist-{assist}", base,
                                                 dict(ov, assist=assist)),
                                       seconds, port + 12 * k, outdir, a.mode)
            except Exception as e:  # report and go on with the other one
                row[assist] = {"case": name, "error": f"{type(e).__name__}: {e}"}
        return row

    def print_track_row(row):
        name = row["case"]
        ref = row["off"].get("reference", {})

        def cols(r):
            d = r.get("daemon", {})
            ftf = d.get("frames_to_focus") if d.get("focused") else ("never" if d else "-")
            refoc = d.get("refocus_frames", "-")
            return (f"{fmt(d.get('start'), '.0f'):>5} {fmt(ftf):>6} "
                    f"{fmt(d.get('final_error_dof')):>6} "
                    f"{fmt(d.get('background_error_dof')):>6} "
                    f"{fmt('never' if refoc is None else refoc):>6}")

        def on_subject(r):
            e = r.get("daemon", {}).get("final_error_dof")
            return "-" if e is None else ("yes" if e <= 1 else "no")

        errs = [r.get("error") or r.get("daemon", {}).get("error") for r in (row["off"], row["on"])]
        print(f"{name:<24} {fmt(ref.get('zoom')):>5} {fmt(ref.get('subject_focus'), '.0f'):>6} "
              f"{fmt(ref.get('depth_of_focus'), '.1f'):>5} | {cols(row['off'])} | "
              f"{cols(row['on'])} | {on_subject(row['off'])}/{on_subject(row['on'])}  "
              f"{'; '.join(e for e in errs if e)}")

    results = run_all(a, cases, port, 24, print_track_row, both)
    s = {}
    for assist in ("off", "on"):
        s[assist] = summary([row[assist] for row in results])
    print("summary:", json.dumps(s))
    print("plots:", outdir)
    if a.json:
        json.dump({"suite": "track", "build": a.build, "seconds": seconds, "summary": s,
                   "cases": results}, open(a.json, "w"), indent=1)


def run_scene_suite(a, cases, port, outdir):
    print(f"{'case':<20} {'zoom':>5} {'target':>7} {'first':>6} {'end_s':>6} {'refoc':>6} "
          f"{'err':>7} {'e/dof':>6} {'srch':>5} {'wobl':>5} {'s/10min':>7}")
    results = run_all(a, cases, port, 12, print_scene_row,
                      lambda c, p: run_scene_case(a.build, c, a.seconds, p, outdir, a.mode,
                                                  a.callgrind))
    sc = [r.get("scene", {}) for r in results]
    refoc = [s["refocus_frames"] for s in sc if "change_end_s" in s]
    s = {"cases": len(results),
         "refocused": sum(1 for v in refoc if v is not None), "change_cases": len(refoc)}
    if any(v is not None for v in refoc):
        s["refocus_frames_median"] = statistics.median(v for v in refoc if v is not None)
        s["refocus_frames_worst"] = max(v for v in refoc if v is not None)
    err = [x["final_error_dof"] for x in sc if "final_error_dof" in x]
    if err:
        s["final_error_dof_median"], s["final_error_dof_worst"] = statistics.median(err), max(err)
    per10 = {r["case"]: r["scene"]["searches_per_10min"] for r in results
             if "searches_per_10min" in r.get("scene", {})}
    if per10:
        s["static_searches_per_10min"] = per10
    print("summary:", json.dumps(s))
    print("plots:", outdir)
    if a.json:
        json.dump({"suite": "scene", "build": a.build, "summary": s, "cases": results},
                  open(a.json, "w"), indent=1)


if __name__ == "__main__":
    main()
