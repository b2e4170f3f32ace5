#!/usr/bin/env python3
"""Zoom-tracking benchmark: how well the focus follows the subject while zooming.

For each subject distance and zoom speed it starts vcam and the real afd in a sandbox on the
virtual clock, lets autofocus settle at the wide end, zooms to the tele end with afctl, and reads
vcam's ground truth (never the daemon's counts): the focus error on every frame of the zoom, as
steps and as a fraction of the subject's depth of focus there (the half width of its sharpness
peak), worst per zoom band, and the error once autofocus has settled again.

A lens unit off the nominal one (--unit) shows what calibration buys: with --calibrate the unit is
first calibrated (full curve calibration on vcam's calibration chart, sim/scenarios/
calibration_chart.yaml, with that unit), and every sweep then starts a new daemon on the data
files the calibration wrote. --calibrate both runs the sweeps before and after and prints them
side by side.

  tools/trackbench.py [--build build] [--distances 1500,3000,10000] [--speeds 1,4,7]
                      [--target 6000] [--unit base_offset=40,base_tele_offset=60,...]
                      [--calibrate no|yes|both] [--json out.json]
"""
import argparse
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import time

from benchenv import half_width, make_sandbox, rows, sandbox_env, stop_processes

VCAM_ARGS = os.environ.get("VCAM_ARGS", "").split()
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BANDS = 8  # zoom bands of the per-zoom table (0..6624 in equal parts)
UNIT_KEYS = ("base_offset", "base_tele_offset", "distance_scale", "zoom_backlash",
             "focus_backlash", "iris_exponent", "iris_transmission")


def parse_unit(text):
    unit = {}
    for item in filter(None, (text or "").split(",")):
        key, _, value = item.partition("=")
        if key not in UNIT_KEYS:
            sys.exit(f"trackbench: --unit: unknown key '{key}' (one of {', '.join(UNIT_KEYS)})")
        try:
            unit[key] = float(value)
        except ValueError:
            sys.exit(f"trackbench: --unit: {key} needs a number, not '{value}'")
    return unit


def with_unit(text, unit):
    """The scenario text with the lens unit replaced by `unit`."""
    text = re.sub(r"\n  unit:\n(    .*\n)+", "\n", text)
    if not unit:
        return text
    fields = ", ".join(f"{k}: {v:g}" for k, v in unit.items())
    return re.sub(r"\nlens:\n", f"\nlens:\n  unit: {{{fields}}}\n", text, count=1)


def scenario(distance, unit, path):
    base = open(os.path.join(ROOT, "sim/scenarios/daylight_chart.yaml")).read()
    text = re.sub(r"(- name: chart\n(?:.*\n)*?\s+distance: )\d+", r"\g<1>%d" % distance, base)
    text = re.sub(r"(lens:\n\s+zoom: )\d+", r"\g<1>0", text)
    open(path, "w").write(with_unit(text, unit))


class Rig:
    """vcam and afd in one sandbox, on the virtual clock."""

    def __init__(self, build, scen_text, port, data_dir=None):
        self.build = build
        self.sb = make_sandbox("afd-trackbench-")
        if data_dir:
            for name in os.listdir(data_dir):
                shutil.copy(os.path.join(data_dir, name), os.path.join(self.sb, "data", name))
        self.env = sandbox_env(self.sb, port)
        self.scen = os.path.join(self.sb, "scene.yaml")
        open(self.scen, "w").write(scen_text)
        self.tele = os.path.join(self.sb, "run/telemetry.jsonl")
        self.procs = []

    def afctl(self, *args, **kw):
        return subprocess.run([os.path.join(self.build, "afctl"), "--timeout", "300"] +
                              list(args), env=self.env, capture_output=True, text=True, **kw)

    def start(self):
        self.procs.append(subprocess.Popen(
            [os.path.join(self.build, "sim/vcam"), "--mode", "virtual", "--telemetry",
             self.tele] + VCAM_ARGS + [self.scen], env=self.env,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
        for _ in range(100):
            if os.path.exists(self.env["AFD_SIM_SOCKET"]):
                break
            time.sleep(0.1)
        self.log = open(os.path.join(self.sb, "afd.log"), "w")
        self.procs.append(subprocess.Popen([os.path.join(self.build, "afd")], env=self.env,
                                           stdout=self.log, stderr=subprocess.STDOUT))
        for _ in range(120):
            if self.afctl("error").returncode == 0:
                return True
            time.sleep(0.5)
        return False

    def stop(self):
        stop_processes(self.procs)
        self.procs = []

    def cleanup(self):
        shutil.rmtree(self.sb, ignore_errors=True)


def calibrate(build, unit, port):
    """Full curve calibration of the unit on the calibration chart. Returns the sandbox's data
    directory (kept for the sweeps) and the daemon's last words, or None and why."""
    text = open(os.path.join(ROOT, "sim/scenarios/calibration_chart.yaml")).read()
    rig = Rig(build, with_unit(text, unit), port)
    try:
        if not rig.start():
            return None, "the daemon did not answer"
        time.sleep(2)
        rig.afctl("calib", "curve-full", check=True)
        began = time.time()
        while time.time() - began < 900:
            time.sleep(1)
            m = re.search(r"calibration: command \d+, mode (\d+)", rig.afctl("status").stdout)
            if m and m.group(1) == "0":
                break
        rig.stop()
        log = open(os.path.join(rig.sb, "afd.log")).read()
        if "Track curve Success" not in log:
            return None, "calibration did not finish: " + log[-300:]
        return os.path.join(rig.sb, "data"), f"{time.time() - began:.0f} s"
    finally:
        rig.stop()


def read_from(path, offset):
    """vcam's telemetry records from a byte offset on (the file grows fast: read only what is
    new), and the offset after the last complete line."""
    with open(path, "rb") as f:
        f.seek(offset)
        chunk = f.read()
    end = chunk.rfind(b"\n") + 1
    out = []
    for line in chunk[:end].split(b"\n"):
        try:
            out.append(json.loads(line))
        except ValueError:
            pass
    return out, offset + end


def sweep(build, distance, speed, target, stops, unit, data_dir, port):
    """Autofocus settles at the wide end; the zoom then goes to the target in `stops` equal moves,
    autofocus refocusing after each. The zoom-tracking error at a stop is the focus error on the
    first frame at which the lens stands at the stop, before autofocus moves it: what the curves
    of this unit and the hunting during the move achieved. In motion, the error of every frame is
    noted too (it includes the hunting's deliberate probes to either side of the curve)."""
    scen_text = open(os.path.join(ROOT, "sim/scenarios/daylight_chart.yaml")).read()
    scen_text = re.sub(r"(- name: chart\n(?:.*\n)*?\s+distance: )\d+", r"\g<1>%d" % distance,
                       scen_text)
    scen_text = with_unit(re.sub(r"(lens:\n\s+zoom: )\d+", r"\g<1>0", scen_text), unit)
    rig = Rig(build, scen_text, port, data_dir)
    at_stops = []
    moving = []
    try:
        if not rig.start():
            return {"distance": distance, "speed": speed, "error": "the daemon did not answer"}
        time.sleep(3)  # autofocus settles at the wide end
        watch = subprocess.Popen([os.path.join(build, "afctl"), "watch", "--seconds", "300"],
                                 env=rig.env, stdout=subprocess.PIPE, text=True)
        time.sleep(0.3)
        recent, offset = read_from(rig.tele, 0)
        wide = recent[-1]
        for k in range(1, stops + 1):
            z = round(target * k / stops)
            rig.afctl("zoom", "--to", str(z), "--speed", str(speed), check=True)
            for line in watch.stdout:
                if line.startswith("motion end"):
                    break
            time.sleep(1.5)  # autofocus refocuses at the stop
            recent, offset = read_from(rig.tele, offset)
            arrive = None
            for i in range(1, len(recent)):
                r, q = recent[i], recent[i - 1]
                if abs(r["lens"]["zoom"] - z) <= 2 and abs(q["lens"]["zoom"] - z) <= 2:
                    arrive = q
                    break
                moving.append(r)
            if arrive is None:
                return {"distance": distance, "speed": speed, "error": f"no arrival at {z}"}
            at_stops.append((arrive["lens"]["zoom"],
                             arrive["lens"]["focus"] - arrive["subject_focus"]))
        watch.send_signal(signal.SIGTERM)
        watch.wait()
        last = read_from(rig.tele, offset)[0] or recent
    finally:
        rig.stop()
        rig.cleanup()
    bands = [None] * BANDS
    for r in moving:
        z = r["lens"]["zoom"]
        dof = abs(r["lens"]["focus"] - r["subject_focus"]) / half_width(z)
        b = min(BANDS - 1, int(z * BANDS / 6625))
        bands[b] = dof if bands[b] is None else max(bands[b], dof)
    stop_dof = [abs(e) / half_width(z) for z, e in at_stops]
    worst = max(range(len(stop_dof)), key=lambda i: stop_dof[i])
    return {
        "distance": distance, "speed": speed,
        "wide_error": round(wide["lens"]["focus"] - wide["subject_focus"], 1),
        "stops": [{"zoom": round(z), "error": round(e, 1), "error_dof": round(d, 2)}
                  for (z, e), d in zip(at_stops, stop_dof)],
        "worst_error": round(at_stops[worst][1], 1), "worst_error_dof": round(stop_dof[worst], 2),
        "worst_zoom": round(at_stops[worst][0]),
        "settled_error": round(last[-1]["lens"]["focus"] - last[-1]["subject_focus"], 1),
        "in_motion_dof": [None if b is None else round(b, 2) for b in bands],
    }


def run_set(a, unit, data_dir, port, label):
    print(f"\n{label}: focus error at each stop, |error| / depth of focus (steps in the worst)")
    zs = [round(a.target * k / a.stops) for k in range(1, a.stops + 1)]
    print(f"{'distance':>9} {'speed':>5} {'wide':>5} " + " ".join(f"{z:>5}" for z in zs) +
          f" {'worst':>6} {'steps':>6}   in motion, worst per zoom band")
    results = []
    for d in [int(x) for x in a.distances.split(",")]:
        for s in [int(x) for x in a.speeds.split(",")]:
            r = sweep(a.build, d, s, a.target, a.stops, unit, data_dir, port)
            port += 10
            r["set"] = label
            results.append(r)
            if "error" in r:
                print(f"{d:>9} {s:>5}  {r['error']}")
                continue
            moving = " ".join("  -" if b is None else f"{b:.1f}" for b in r["in_motion_dof"])
            print(f"{d:>9} {s:>5} {r['wide_error']:>5} " +
                  " ".join(f"{x['error_dof']:5.2f}" for x in r["stops"]) +
                  f" {r['worst_error_dof']:6.2f} {r['worst_error']:>6}   {moving}")
            sys.stdout.flush()
    return results, port


def main():
    ap = argparse.ArgumentParser(description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", default=os.path.join(ROOT, "build"))
    ap.add_argument("--distances", default="1500,3000,10000")
    ap.add_argument("--speeds", default="1,4,7")
    ap.add_argument("--target", type=int, default=6000)
    ap.add_argument("--stops", type=int, default=8, help="zoom stops from wide to the target")
    ap.add_argument("--unit", help="lens unit off the nominal one: key=value,... "
                    f"({', '.join(UNIT_KEYS)})")
    ap.add_argument("--calibrate", choices=("no", "yes", "both"), default="no")
    ap.add_argument("--json")
    a = ap.parse_args()
    unit = parse_unit(a.unit)
    port = 23000 + (os.getpid() % 500) * 10
    if unit:
        print("unit: " + ", ".join(f"{k} {v:g}" for k, v in unit.items()))
    results = []
    if a.calibrate in ("no", "both"):
        r, port = run_set(a, unit, None, port, "uncalibrated")
        results += r
    if a.calibrate in ("yes", "both"):
        data_dir, how = calibrate(a.build, unit, port)
        port += 10
        if data_dir is None:
            sys.exit("trackbench: " + how)
        print(f"\ncalibrated in {how} (wall); every sweep below starts a new daemon on its files")
        r, port = run_set(a, unit, data_dir, port, "calibrated")
        results += r
        shutil.rmtree(os.path.dirname(data_dir), ignore_errors=True)
    if a.json:
        json.dump(results, open(a.json, "w"), indent=1)
    bad = [r for r in results if "error" in r]
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
