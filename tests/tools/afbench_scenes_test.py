#!/usr/bin/env python3
"""End to end on vcam: three scenes where a plain contrast search goes wrong, and the daemon's
rules for them must not.

- Twelve street lamps at night, nothing else (night-lamps-near-z3200): the defocused lamps' edges
  make the picture's contrast peak far from focus; the highlight rules must still end within the
  lamps' depth of focus.
- A tracked person crossing before a textured wall at the tele end (track-crossing-tele, assist
  off): the tracker's box must keep the focus on the person, not on the wall that fills most of the
  picture.
- The same scene without the tracker (untracked-crossing-tele): with the distance assist off the
  search ends on the wall, which shows the tracked result above is the box's doing; with the
  assist on, the rangefinder's distance must bring the focus to the person.

Each scene first checks that it is still hard (the full sweep's best contrast, or the untracked
search, lands off the subject): a scene that became easy would make the check mean nothing."""
import argparse
import json
import os
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
AFBENCH = os.path.join(HERE, "..", "..", "tools", "afbench.py")
IN_FOCUS = 1.0  # depths of focus
OFF = 3.0       # clearly elsewhere


def run(build, suite, cases, tmp):
    out = os.path.join(tmp, suite + ".json")
    cmd = [sys.executable, AFBENCH, "--build", build, "--suite", suite, "--jobs", "1",
           "--json", out, "--out", tmp]
    for c in cases:
        cmd += ["--case", c]
    r = subprocess.run(cmd, capture_output=True, text=True, timeout=600)
    if r.returncode != 0:
        sys.exit(f"afbench failed ({' '.join(cmd)}):\n{r.stdout}\n{r.stderr}")
    return {c["case"]: c for c in json.load(open(out))["cases"]}


class Checks:
    def __init__(self):
        self.failed = False

    def expect(self, ok, what, got):
        print(("ok    " if ok else "FAIL  ") + what + ": " + got)
        self.failed |= not ok


def daemon(res, name):
    d = res.get("daemon")
    if d is None or "error" in res:
        sys.exit(f"{name}: the run did not complete: {json.dumps(res)[:400]}")
    return d


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--build", required=True)
    a = ap.parse_args()
    ck = Checks()
    with tempfile.TemporaryDirectory(prefix="afbench-scenes-") as tmp:
        night = run(a.build, "night", ["night-lamps-near-z3200"], tmp)
        track = run(a.build, "track", ["track-crossing-tele", "untracked-crossing-tele"], tmp)

    lamps = night["night-lamps-near-z3200"]
    sweep = lamps["reference"]["sweep"]["error_dof"]
    ck.expect(sweep > OFF, "lamps: the picture's best contrast lies off focus", f"{sweep} DoF")
    err = daemon(lamps, "lamps")["final_error_dof"]
    ck.expect(err <= IN_FOCUS, "lamps: the search ends at the lamps' focus", f"{err} DoF")

    tracked = daemon(track["track-crossing-tele"]["off"], "tracked")
    ck.expect(tracked["final_error_dof"] <= IN_FOCUS, "tracked: ends on the person",
              f"{tracked['final_error_dof']} DoF from the person")
    ck.expect(tracked["background_error_dof"] > OFF, "tracked: not on the wall",
              f"{tracked['background_error_dof']} DoF from the wall")

    plain = daemon(track["untracked-crossing-tele"]["off"], "untracked")
    ck.expect(plain["background_error_dof"] <= IN_FOCUS,
              "untracked, assist off: the search alone ends on the wall",
              f"{plain['background_error_dof']} DoF from the wall")
    ranged = daemon(track["untracked-crossing-tele"]["on"], "untracked, assist on")
    ck.expect(ranged["final_error_dof"] <= IN_FOCUS,
              "untracked, assist on: the distance brings the focus to the person",
              f"{ranged['final_error_dof']} DoF from the person")
    sys.exit(1 if ck.failed else 0)


if __name__ == "__main__":
    main()
