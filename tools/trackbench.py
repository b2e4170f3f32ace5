#!/usr/bin/env python3
"""Zoom-tracking benchmark: how well the focus follows the subject while zooming.

For each subject distance and zoom speed it starts vcam and the real afd in a sandbox on the
virtual clock, lets autofocus settle at the wide end, zooms to the tele end with afctl, and reads
vcam's ground truth (never the daemon's counts): the focus error when the zoom arrives, as steps
and as a fraction of the subject's depth of focus there (the half width of its sharpness peak),
and the error once autofocus has settled again.

  tools/trackbench.py [--build build] [--distances 1500,3000,10000] [--speeds 1,4,7]
                      [--target 6000] [--json out.json]
"""
import argparse
import json
import os
import re
import signal
import subprocess
import sys
import time

from benchenv import half_width, make_sandbox, rows, sandbox_env

VCAM_ARGS = os.environ.get("VCAM_ARGS", "").split()
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def scenario(distance, path):
    base = open(os.path.join(ROOT, "sim/scenarios/daylight_chart.yaml")).read()
    text = re.sub(r"(- name: chart\n(?:.*\n)*?\s+distance: )\d+", r"\g<1>%d" % distance, base)
    text = re.sub(r"(lens:\n\s+zoom: )\d+", r"\g<1>0", text)
    open(path, "w").write(text)


def run_one(build, distance, speed, target, port_base):
    sb = make_sandbox("afd-trackbench-")
    env = sandbox_env(sb, port_base)
    scen = os.path.join(sb, "scene.yaml")
    scenario(distance, scen)
    tele = os.path.join(sb, "run/telemetry.jsonl")
    procs = []
    try:
        procs.append(subprocess.Popen([os.path.join(build, "sim/vcam"), "--mode", "virtual",
                                       "--telemetry", tele] + VCAM_ARGS + [scen], env=env,
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
        for _ in range(100):
            if os.path.exists(env["AFD_SIM_SOCKET"]):
                break
            time.sleep(0.1)
        procs.append(subprocess.Popen([os.path.join(build, "afd")], env=env,
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
        afctl = os.path.join(build, "afctl")
        for _ in range(120):
            if subprocess.run([afctl, "--timeout", "300", "error"], env=env,
                              capture_output=True).returncode == 0:
                break
            time.sleep(0.5)
        time.sleep(3)  # autofocus settles at the wide end
        start_frame = len(rows(tele))
        watch = subprocess.Popen([afctl, "watch", "--seconds", "20"], env=env,
                                 stdout=subprocess.PIPE, text=True)
        time.sleep(0.3)
        subprocess.run([afctl, "zoom", "--to", str(target), "--speed", str(speed)], env=env,
                       check=True)
        for line in watch.stdout:
            if line.startswith("motion end"):
                break
        watch.send_signal(signal.SIGTERM)
        time.sleep(3)  # autofocus settles again at the tele end
    finally:
        for p in reversed(procs):
            p.send_signal(signal.SIGTERM)
            p.wait(timeout=10)
    data = rows(tele)[start_frame:]
    begin = next((i for i, r in enumerate(data) if abs(r["lens"]["zoom"] - data[0]["lens"]["zoom"])
                  > 2), None)
    arrive = next((r for r in data if abs(r["lens"]["zoom"] - target) <= 2), None)
    if arrive is None or begin is None:
        return {"distance": distance, "speed": speed, "error": "zoom never arrived"}
    idx = data.index(arrive) - begin
    half = half_width(arrive["lens"]["zoom"])
    err = arrive["lens"]["focus"] - arrive["subject_focus"]
    last = data[-1]
    return {
        "distance": distance, "speed": speed,
        "frames": idx, "arrive_error": round(err, 1),
        "depth_of_focus": round(half, 1),
        "arrive_error_dof": round(abs(err) / half, 2) if half else None,
        "settled_error": round(last["lens"]["focus"] - last["subject_focus"], 1),
    }


def main():
    ap = argparse.ArgumentParser(description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", default=os.path.join(ROOT, "build"))
    ap.add_argument("--distances", default="1500,3000,10000")
    ap.add_argument("--speeds", default="1,4,7")
    ap.add_argument("--target", type=int, default=6000)
    ap.add_argument("--json")
    a = ap.parse_args()
    results = []
    port = 23000 + (os.getpid() % 500) * 10
    print(f"{'distance':>9} {'speed':>5} {'frames':>6} {'error@arrival':>13} "
          f"{'/ depth':>8} {'error settled':>13}")
    for d in [int(x) for x in a.distances.split(",")]:
        for s in [int(x) for x in a.speeds.split(",")]:
            r = run_one(a.build, d, s, a.target, port)
            port += 10
            results.append(r)
            if "error" in r:
                print(f"{d:>9} {s:>5}  {r['error']}")
                continue
            dof = "" if r["arrive_error_dof"] is None else f"{r['arrive_error_dof']:.2f}"
            print(f"{d:>9} {s:>5} {r['frames']:>6} {r['arrive_error']:>13} {dof:>8} "
                  f"{r['settled_error']:>13}")
            sys.stdout.flush()
    if a.json:
        json.dump(results, open(a.json, "w"), indent=1)


if __name__ == "__main__":
    main()
