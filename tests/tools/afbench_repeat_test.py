#!/usr/bin/env python3
"""afbench twice on the same cases: the two runs must score alike, frame for frame.

The benchmark holds the daemon at its next frame whenever it is not letting it run, so that every
command it gives meets the daemon on a frame fixed by the case, not by how long the benchmark or
the machine took. Two runs of the same build, case and seed therefore give the same numbers; a
difference here means something on the daemon's side (or the benchmark's) follows wall time
again. The cases: a tracked person crossing before a wall with a rangefinder (tracker records,
distance readings, the assist switched by command, each on and off) and a zoom while focused (a
command in the middle of the scored run)."""
import argparse
import json
import os
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
AFBENCH = os.path.join(HERE, "..", "..", "tools", "afbench.py")
VOLATILE = {"wall_s", "plot", "speed", "build"}  # wall time and paths of the run


def scrub(x):
    if isinstance(x, dict):
        return {k: scrub(v) for k, v in x.items() if k not in VOLATILE}
    if isinstance(x, list):
        return [scrub(v) for v in x]
    return x


def run(build, suite, case, out):
    cmd = [sys.executable, AFBENCH, "--build", build, "--suite", suite, "--case", case,
           "--jobs", "1", "--json", out, "--out", os.path.dirname(out)]
    r = subprocess.run(cmd, capture_output=True, text=True, timeout=600)
    if r.returncode != 0:
        sys.exit(f"afbench failed ({' '.join(cmd)}):\n{r.stdout}\n{r.stderr}")
    return scrub(json.load(open(out)))


def differences(a, b, path=""):
    if type(a) is not type(b):
        return [f"{path}: {a!r} != {b!r}"]
    if isinstance(a, dict):
        out = []
        for k in sorted(set(a) | set(b)):
            out += differences(a.get(k), b.get(k), f"{path}.{k}")
        return out
    if isinstance(a, list):
        if len(a) != len(b):
            return [f"{path}: {len(a)} entries != {len(b)}"]
        out = []
        for i, (x, y) in enumerate(zip(a, b)):
            out += differences(x, y, f"{path}[{i}]")
        return out
    return [] if a == b else [f"{path}: {a!r} != {b!r}"]


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--build", required=True)
    a = ap.parse_args()
    failed = False
    for suite, case in (("track", "track-crossing"), ("scene", "zoom-while-focused")):
        with tempfile.TemporaryDirectory(prefix="afbench-repeat-") as tmp:
            first = run(a.build, suite, case, os.path.join(tmp, "first.json"))
            second = run(a.build, suite, case, os.path.join(tmp, "second.json"))
        cases = first.get("cases", [])
        if not cases or any("error" in c for c in cases):
            print(f"{case}: the run did not complete: {json.dumps(cases)[:400]}")
            failed = True
            continue
        diff = differences(first, second)
        if diff:
            print(f"{case}: the two runs differ:\n  " + "\n  ".join(diff[:20]))
            failed = True
        else:
            print(f"{case}: the two runs agree")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
