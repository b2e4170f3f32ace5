#!/usr/bin/env python3
"""Kill trials of the calibration-file saves: a process that saves every calibration file over and
over (save_storm) is killed with SIGKILL at a random moment, many times; after every kill each
file must hold one of its two complete forms, never a torn or empty one.

  kill_during_save.py --harness build/tests/save_storm [--trials 1000] [--seed N]

Exit status 0 when every file of every trial was whole; the summary gives the trials, the files
checked, how often each form was found and the stale temporaries left (a later save reuses them).
"""
import argparse
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time

FILES = ["data/curve.dat", "data/lens_parameter.dat", "data/iris_data.dat", "data/af_data.dat",
         "dev/af_version_file"]


def main():
    ap = argparse.ArgumentParser(description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--harness", required=True)
    ap.add_argument("--trials", type=int, default=1000)
    ap.add_argument("--seed", type=int, default=None)
    ap.add_argument("--no-delay", action="store_true",
                    help="run the harness without strace's delay injection")
    ap.add_argument("--max-delay-ms", type=float, default=400.0)
    a = ap.parse_args()
    rng = random.Random(a.seed)
    # A kill tests the rename, not the flash: on a memory file system the syncs cost nothing and
    # the saves follow each other quickly, so the kills land inside saves far more often.
    shm = "/dev/shm" if os.path.isdir("/dev/shm") and os.access("/dev/shm", os.W_OK) else None
    work = tempfile.mkdtemp(prefix="afd-kill-", dir=shm)
    root, expected = os.path.join(work, "root"), os.path.join(work, "expected")
    for d in ("root/data", "root/dev", "expected"):
        os.makedirs(os.path.join(work, d))
    env = dict(os.environ, AFD_ROOT=root, AFD_SYSLOG="0")
    # Each file system call of the harness is held for a moment (strace's delay injection): the
    # saves themselves are untouched, but the moments between their steps, where a careless
    # writer would leave a torn file, become wide enough for a random kill to land in them.
    slow = []
    if shutil.which("strace") and not a.no_delay:
        slow = ["strace", "-f", "-qq", "-o", "/dev/null", "-e", "trace=write,fsync,rename,openat,close",
                "-e", "inject=write,fsync,rename,openat,close:delay_exit=300"]
    found = {"A": 0, "B": 0}
    torn = []
    stale = 0
    try:
        for trial in range(a.trials):
            p = subprocess.Popen(slow + [a.harness, expected], env=env, stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE, text=True, start_new_session=True)
            if p.stdout.readline().strip() != "ready":
                p.kill()
                sys.exit("kill_during_save: harness did not start: " + p.stderr.read())
            time.sleep(rng.uniform(0, a.max_delay_ms) / 1000.0)
            os.killpg(p.pid, signal.SIGKILL)  # the harness and its tracer at once
            p.wait()
            for f in FILES:
                name = os.path.basename(f)
                try:
                    got = open(os.path.join(root, f), "rb").read()
                except FileNotFoundError:
                    got = None
                forms = [k for k in ("A", "B")
                         if open(os.path.join(expected, k, name), "rb").read() == got]
                if not forms:
                    torn.append((trial, f, None if got is None else len(got)))
                else:
                    found[forms[0]] += 1
            stale += sum(1 for d in ("data", "dev") for n in os.listdir(os.path.join(root, d))
                         if n not in {os.path.basename(f) for f in FILES})
    finally:
        shutil.rmtree(work, ignore_errors=True)
    checked = a.trials * len(FILES)
    print(f"{a.trials} kills, {checked} files checked: {found['A']} old/A, {found['B']} new/B "
          f"(the version file counts as A), {len(torn)} torn; stale temporaries seen after kills: "
          f"{stale}")
    for t in torn[:10]:
        print(f"  trial {t[0]}: {t[1]} holds neither form ({t[2]} bytes)")
    return 1 if torn else 0


if __name__ == "__main__":
    sys.exit(main())
