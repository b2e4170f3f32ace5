#!/usr/bin/env python3
"""Fault checks: the real afd on vcam, with one fault injected per run, on every peer.

Each check starts vcam and afd in a fresh sandbox on the virtual clock, waits until the daemon is
in its frame loop, starts vcam's timeline (the faults' clock, --hold-timeline) and then injects:

  ISP link     a dropped connection with the service down for a while, a reply split across
               several sends, a reply held back past the daemon's reply timeout, replies of the
               wrong size (short, long, exposure record), junk bytes in the stream;
  lens chips   a stuck busy line during a zoom and during a focus search, a dead zoom home sensor
               during a re-home, a burst of SPI bus errors during a zoom (LC898201; the busy
               line and the bus errors on the MS41908 too);
  files        /data unwritable (the daemon runs as an unprivileged user and the directory is made
               read-only), and the file-size limit hit while saving (prlimit on the running
               daemon).

For every fault it checks that the daemon kept running, logged the fault (a bounded number of
lines: once, or rate-limited while it repeats), recovered once the fault cleared (frames flow,
the lens goes where it is told and the daemon's counts match vcam's true lens), and that no
calibration file changed or was torn. It prints a table fault -> injected / logged / recovered
and exits 1 when any check failed.

  scripts/fault-checks.py [--build DIR | --afd F --vcam F --afctl F] [--only NAME[,NAME...]]
                          [--keep] [--verbose]

About half a minute on two cores; CTest runs it as e2e.fault_checks. Run as root, the /data check
runs the daemon as an unprivileged user (setpriv), since root writes to a read-only directory.
"""
import argparse
import hashlib
import json
import os
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tools"))
import benchenv  # noqa: E402

SCENARIO = os.path.join(ROOT, "sim/scenarios/daylight_chart.yaml")
NOBODY = 65534


class CheckFailed(Exception):
    pass


class Run:
    """One sandbox with vcam and afd on the virtual clock."""

    def __init__(self, args, name, faults, unprivileged=False, hw=""):
        self.args = args
        self.name = name
        self.sb = benchenv.make_sandbox(f"afd-fault-{name}-")
        port = 23000 + (os.getpid() % 400) * 10
        self.env = benchenv.sandbox_env(self.sb, port, {"VCAM_HW": hw} if hw else None)
        self.unprivileged = unprivileged and os.geteuid() == 0
        self.afd_log = os.path.join(self.sb, "run/afd.log")
        self.vcam_log = os.path.join(self.sb, "run/vcam.log")
        self.tel = os.path.join(self.sb, "run/telemetry.jsonl")
        # Real start-up values in every file, so that a torn or lost file would show.
        data = os.path.join(self.sb, "data")
        lp = [0] * 100
        lp[0], lp[1], lp[2], lp[3] = 2400, 0xFFFF ^ 2400, 3720, 0xFFFF ^ 3720
        lp[8], lp[9], lp[10], lp[11], lp[99] = 6624, 0xFFFF ^ 6624, 0, 0xFFFF, 0x55AA
        with open(os.path.join(data, "lens_parameter.dat"), "wb") as f:
            f.write(struct.pack("<100H", *lp))
        with open(os.path.join(data, "af_data.dat"), "w") as f:
            f.write("FOCUS_OFFSET = 2\nZOOM_OFFSET = 1\nIRIS_OFFSET = 150\nBIAS_OFFSET = 64\n")
        with open(os.path.join(data, "iris_data.dat"), "w") as f:
            f.write("".join("%d\n" % v for v in range(2200, 900, -100)))
        if self.unprivileged:
            for d, _, files in os.walk(self.sb):
                os.chown(d, NOBODY, NOBODY)
                for fn in files:
                    os.chown(os.path.join(d, fn), NOBODY, NOBODY)
        self.saved = self.data_files()
        cmd = [args.vcam, "--mode", "virtual", "--hold-timeline",
               "--telemetry", self.tel]
        for f in faults:
            cmd += ["--fault", f]
        self.vcam = subprocess.Popen(cmd + [SCENARIO], env=self.env, stdout=subprocess.DEVNULL,
                                     stderr=open(self.vcam_log, "w"))
        self.wait(lambda: os.path.exists(self.env["AFD_SIM_SOCKET"]), 10, "vcam's lens socket")
        afd = [args.afd]
        if self.unprivileged:
            afd = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"] + afd
        # Standard output through a pipe: a file-size limit on the daemon must not cut its log.
        self.afd = subprocess.Popen(afd, env=self.env, stdout=subprocess.PIPE,
                                    stderr=subprocess.STDOUT)
        self.log_lock = threading.Lock()
        self.log_text = []
        self.reader = threading.Thread(target=self._read_log, daemon=True)
        self.reader.start()
        self.wait(lambda: self.ctl("error").returncode == 0, 60, "the daemon's command port")
        self.wait(lambda: "SET_AF_ATTR success" in self.log(), 20, "the ISP attribute set-up")
        self.mark = len(self.log())

    def _read_log(self):
        with open(self.afd_log, "w") as out:
            for line in iter(self.afd.stdout.readline, b""):
                text = line.decode(errors="replace")
                out.write(text)
                out.flush()
                with self.log_lock:
                    self.log_text.append(text)

    def log(self):
        with self.log_lock:
            return "".join(self.log_text)

    def new_log(self):
        """The daemon's output since the timeline started."""
        return self.log()[self.mark:]

    def vlog(self):
        return open(self.vcam_log).read()

    def ctl(self, *args, timeout_ms=400):
        return subprocess.run([self.args.afctl, "--timeout",
                               str(timeout_ms)] + list(args), env=self.env, capture_output=True,
                              text=True)

    def wait(self, cond, seconds, what):
        end = time.time() + seconds
        while time.time() < end:
            if cond():
                return
            if self.afd_dead():
                raise CheckFailed(f"the daemon died waiting for {what}")
            time.sleep(0.05)
        raise CheckFailed(f"timed out waiting for {what}")

    def afd_dead(self):
        return hasattr(self, "afd") and self.afd.poll() is not None

    def start_timeline(self):
        self.mark = len(self.log())
        self.vcam.send_signal(signal.SIGUSR1)

    def wait_vcam(self, pattern, seconds=20):
        self.wait(lambda: re.search(pattern, self.vlog()), seconds, f"vcam: {pattern}")

    def frames(self):
        try:
            with open(self.tel, "rb") as f:
                return sum(chunk.count(b"\n") for chunk in iter(lambda: f.read(1 << 20), b""))
        except FileNotFoundError:
            return 0

    def tail(self, n):
        """The last n complete telemetry records (read from the end of a file that grows fast)."""
        try:
            with open(self.tel, "rb") as f:
                f.seek(0, os.SEEK_END)
                size = f.tell()
                f.seek(max(0, size - (n + 2) * 4096))
                lines = f.read().split(b"\n")
        except FileNotFoundError:
            return []
        out = []
        for line in lines[1:]:
            try:
                out.append(json.loads(line))
            except ValueError:
                pass
        return out[-n:]

    def truth(self):
        rows = self.tail(1)
        return rows[-1] if rows else None

    def counts(self):
        r = self.ctl("--json", "positions")
        m = re.search(r'"zoom":(\d+),"focus":(\d+)', r.stdout)
        if not m:
            raise CheckFailed("afctl positions did not answer")
        return int(m.group(1)), int(m.group(2))

    def frames_flow(self, more=30, seconds=20):
        n = self.frames()
        self.wait(lambda: self.frames() >= n + more, seconds, f"{more} more frames")

    def settle(self, frames=90, spread=2.0):
        """Until vcam's true lens has stood still (within a wobble of `spread` steps) for the last
        `frames` frames: judged on the camera's frames, since real time says little about the
        virtual clock's pace."""
        end = time.time() + 30
        while time.time() < end:
            rows = self.tail(frames)
            if len(rows) == frames:
                zs = [r["lens"]["zoom"] for r in rows]
                fs = [r["lens"]["focus"] for r in rows]
                if max(zs) - min(zs) <= spread and max(fs) - min(fs) <= spread:
                    return
            if self.afd_dead():
                raise CheckFailed("the daemon died")
            time.sleep(0.1)
        raise CheckFailed("the lens never came to rest")

    def counts_match_truth(self, tol=4):
        """The daemon's position counts against vcam's true carriage positions. The autofocus is
        switched off first, and the truth is read before and after the counts: on the virtual
        clock a moment of real time can be many frames, in which a refocus may move the lens."""
        self.ctl("af", "--mode", "off")
        for _ in range(10):
            self.settle()
            before = self.truth()["lens"]
            z, f = self.counts()
            after = self.truth()["lens"]
            if before == after:
                break
        else:
            raise CheckFailed("the lens did not stand still long enough to compare")
        tz, tf = after["zoom"], after["focus"]
        if abs(z - tz) > tol or abs(f - tf) > tol:
            raise CheckFailed(f"counts zoom {z} focus {f}, true lens zoom {tz:.0f} focus {tf:.0f}")
        return f"counts = lens (zoom {z}, focus {f})"

    def data_files(self):
        d = os.path.join(self.sb, "data")
        return {n: hashlib.sha1(open(os.path.join(d, n), "rb").read()).hexdigest()
                for n in sorted(os.listdir(d)) if not n.endswith(".tmp")}

    def close(self, keep):
        benchenv.stop_processes([self.vcam, getattr(self, "afd", None)])
        if not keep:
            shutil.rmtree(self.sb, ignore_errors=True)


def count(pattern, text):
    return len(re.findall(pattern, text, re.M))


def logged(run, pattern, most, least=1):
    """The number of the daemon's lines matching pattern, in least..most (output passes through a
    pipe: the lines of what just happened may take a moment)."""
    end = time.time() + 3
    while count(pattern, run.new_log()) < least and time.time() < end:
        time.sleep(0.05)
    n = count(pattern, run.new_log())
    if n < least or n > most:
        raise CheckFailed(f"{n} log lines matching /{pattern}/ (want {least}..{most})")
    return n


# ---- the checks: each returns (injected, logged, recovered) notes or raises CheckFailed ----------

# Faults that need a request from the script while they last stay on this long (virtual s).
BUSY_WINDOW = 300
LINK_LOST = r"Get_ISP_VD: (send to|recv from) soc failed|recv GET_AE_EXP_INFO failed"


def isp_recovers(run, lost_lines=2):
    run.wait(lambda: "reconnected" in run.new_log(), 30, "the reconnect")
    run.frames_flow()
    return logged(run, LINK_LOST, lost_lines)


def check_isp_drop(run):
    run.start_timeline()
    run.wait_vcam(r"ISP service down")
    run.wait_vcam(r"ISP service up again")
    lost = isp_recovers(run)
    down = logged(run, r"ISP link down \(connect failed\)", 1)
    return "service down 3 s", f"{lost} lost + {down} retry line", "reconnected, frames flow"


def check_isp_split(run):
    run.start_timeline()
    run.wait_vcam(r"fault isp_split")
    run.frames_flow(100)
    logged(run, LINK_LOST + "|reconnect|out of step", 0, 0)
    t = run.truth()
    if t["scene_s"] < 2.0:
        raise CheckFailed("the split window never ended")
    return "every reply in 5 sends for 2 s", "nothing (not an error)", "no reconnect, frames flow"


def check_isp_stall(run):
    run.start_timeline()
    run.wait_vcam(r"holding the Get_ISP_VD reply back")
    lost = isp_recovers(run, lost_lines=3)
    return "frame reply 5 s late", f"{lost} line(s)", "reconnected, frames flow"


def check_isp_short(run):
    run.start_timeline()
    run.wait_vcam(r"reply of 5000 bytes")
    lost = isp_recovers(run)
    return "frame reply of 5000 bytes", f"{lost} line(s)", "reconnected, frames flow"


def out_of_step(run, what):
    run.start_timeline()
    run.wait_vcam(what)
    n = logged(run, r"out of step", 2)
    run.wait(lambda: "reconnected" in run.new_log(), 30, "the reconnect")
    run.frames_flow()
    return n


def check_isp_long(run):
    n = out_of_step(run, r"reply of 6000 bytes")
    return "frame reply of 6000 bytes", f"{n} line(s)", "resynchronised, frames flow"


def check_isp_exposure(run):
    n = out_of_step(run, r"GET_AE_EXP_INFO reply of 300 bytes")
    return "exposure reply of 300 bytes", f"{n} line(s)", "resynchronised, frames flow"


def check_isp_garbage(run):
    n = out_of_step(run, r"junk bytes")
    return "7 junk bytes before a frame", f"{n} line(s)", "resynchronised, frames flow"


def zoom_to(run, target):
    """A fast zoom that must land on its target (vcam's true zoom), with the counts matching."""
    if run.ctl("zoom", "--to", str(target), "--speed", "7").returncode != 0:
        raise CheckFailed("afctl zoom failed")
    try:
        run.wait(lambda: abs(run.truth()["lens"]["zoom"] - target) <= 3, 20, f"zoom {target}")
    except CheckFailed:
        raise CheckFailed(f"a zoom to {target} ended at {run.truth()['lens']['zoom']:.0f}")
    return run.counts_match_truth()


def zoom_under_fault(run, fault_name, target=5000):
    """A slow zoom (some 24 s of virtual time) runs while the fault comes and goes; then a second
    zoom must land exactly. A busy fault lasts longer than the drivers' 2 s bound on one wait, or
    the wait would simply outlast it."""
    if run.ctl("zoom", "--to", str(target), "--speed", "1").returncode != 0:
        raise CheckFailed("afctl zoom failed")
    run.start_timeline()
    run.wait_vcam(rf"fault {fault_name} on")
    run.wait_vcam(rf"fault {fault_name} off", 60)
    run.settle()
    match = run.counts_match_truth()
    zoom_to(run, 2000)
    return match + ", zoom to 2000 lands"


def check_zoom_busy(run):
    rec = zoom_under_fault(run, "zoom_busy")
    n = logged(run, r"zoom channel busy stuck", 4)
    logged(run, r"zoom channel idle again", 1)
    return "zoom busy line stuck 8 s mid-zoom", f"{n} stuck + 1 idle-again line", rec


def check_ms_busy(run):
    # The MS41908 has one busy line (pls) for both channels.
    rec = zoom_under_fault(run, "zoom_busy")
    n = logged(run, r"busy line stuck", 4)
    logged(run, r"busy line idle again", 1)
    return "MS41908 busy line stuck 8 s mid-zoom", f"{n} stuck + 1 idle-again line", rec


def check_bus_errors(run):
    rec = zoom_under_fault(run, "bus_errors")
    n = logged(run, r"send spi error", 4)
    return "all SPI transfers fail for 1 s mid-zoom", f"{n} line(s)", rec


def focus_error(run):
    t = run.truth()
    return abs(t["lens"]["focus"] - t["subject_focus"])


def check_focus_busy(run):
    # The fault's window is long in virtual time: the daemon's clock runs a hundred times faster
    # than the real time the search request takes to arrive. The stuck line is reported once,
    # then at most once per 5 s of it.
    run.start_timeline()
    run.wait_vcam(r"fault focus_busy on")
    z, _ = run.counts()
    run.ctl("zoom", "--to", str(z), "--focus", str(round(run.truth()["subject_focus"]) + 250))
    run.ctl("af", "--mode", "once")
    run.ctl("af", "--mode", "continuous")
    run.wait_vcam(r"fault focus_busy off", 60)
    n = logged(run, r"focus channel busy stuck", 2 + BUSY_WINDOW // 5)
    logged(run, r"focus channel idle again", 1)
    run.settle()
    run.ctl("af", "--mode", "once")
    run.ctl("af", "--mode", "continuous")
    time.sleep(1.0)
    run.settle()
    err = focus_error(run)
    half = benchenv.half_width(run.truth()["lens"]["zoom"])
    if err > half:
        raise CheckFailed(f"autofocus after the fault ended {err:.0f} steps off (dof {half:.0f})")
    return (f"focus busy line stuck {BUSY_WINDOW} s, search", f"{n} stuck + 1 idle-again line",
            f"refocus within {err:.0f} steps, " + run.counts_match_truth())


def check_zoom_sensor(run):
    run.start_timeline()
    run.wait_vcam(r"fault zoom_sensor on")
    run.ctl("rehome", timeout_ms=20000)
    n = logged(run, r"re-home.*zoom fail", 1)
    if run.afd_dead():
        raise CheckFailed("the daemon died")
    run.wait_vcam(r"fault zoom_sensor off", 60)
    r = run.ctl("rehome", timeout_ms=20000)
    if "re-home" not in r.stdout:
        raise CheckFailed("no answer to the second re-home")
    logged(run, r"re-home.*zoom fail", 1)  # still just the first
    return (f"zoom home sensor dead {BUSY_WINDOW} s, re-home", f"{n} line",
            "re-home ok, " + zoom_to(run, 2000))


def lens_param_file(run):
    data = open(os.path.join(run.sb, "data/lens_parameter.dat"), "rb").read()
    return struct.unpack("<%dH" % (len(data) // 2), data)


def thread_waits(pid):
    """Where each of the daemon's threads waits in the kernel (wait channel, system call number):
    tells a save stuck in fsync on a busy disk from one that never ran."""
    out = []
    try:
        for tid in sorted(os.listdir(f"/proc/{pid}/task")):
            try:
                wchan = open(f"/proc/{pid}/task/{tid}/wchan").read().strip() or "-"
                call = open(f"/proc/{pid}/task/{tid}/syscall").read().split()[0]
            except OSError:
                continue
            out.append(f"{wchan}/{call}")
    except OSError:
        return "unknown"
    return " ".join(out)


def save_blocked(run, block, unblock, what):
    run.start_timeline()
    block()
    run.ctl("param", "20", "1234")
    run.wait(lambda: re.search(r"lens_parameter.dat (Open|Save) Fail", run.new_log()), 10,
             "the failed save in the log")
    time.sleep(0.3)
    if run.afd_dead():
        raise CheckFailed("the daemon died")
    if run.data_files() != run.saved:
        raise CheckFailed("a calibration file changed while saving was impossible")
    n = logged(run, r"lens_parameter.dat (Open|Save) Fail", 1)
    unblock()
    run.ctl("param", "20", "1235")
    # The save ends with an fsync, which on a disk busy with other writers (a CI machine running
    # benchmarks next to this) has been seen to take over ten seconds: the temporary file is
    # whole and only the rename is pending. Wait long enough for that, and say which it was.
    tmp = os.path.join(run.sb, "data/lens_parameter.dat.tmp")
    try:
        run.wait(lambda: lens_param_file(run)[20] == 1235, 45, "the save after the fault")
    except CheckFailed as e:
        state = "its temporary file is written, not yet renamed" if os.path.exists(tmp) else \
            "no temporary file"
        raise CheckFailed(f"{e} ({state}; daemon threads in: {thread_waits(run.afd.pid)})")
    rec = lens_param_file(run)
    if len(rec) != 100 or rec[99] != 0x55AA or rec[8] != 6624:
        raise CheckFailed("the lens parameter file is not whole after the save")
    run.frames_flow()
    return what, f"{n} line", "next save whole, frames flow"


def check_data_readonly(run):
    data = os.path.join(run.sb, "data")
    return save_blocked(run, lambda: os.chmod(data, 0o555), lambda: os.chmod(data, 0o755),
                        "/data read-only")


def check_file_size(run):
    pid = str(run.afd.pid)

    def limit(v):
        # The soft limit only: raising a hard limit again would need a privilege.
        subprocess.run(["prlimit", "--pid", pid, f"--fsize={v}:"], check=True)
    return save_blocked(run, lambda: limit(100), lambda: limit("unlimited"),
                        "file-size limit 100 bytes")


# name, vcam faults, check, and how to run: "unprivileged" (the daemon as an unprivileged user
# when the checks run as root) or vcam's lens hardware settings (VCAM_HW).
CHECKS = [
    ("isp_drop", ["fault=isp_drop,at=0.5,for=3"], check_isp_drop, False),
    ("isp_split", ["fault=isp_split,at=0,for=2,parts=5,reply=any"], check_isp_split, False),
    ("isp_stall", ["fault=isp_stall,at=0.5,stall=5"], check_isp_stall, False),
    ("isp_wrong_size_short", ["fault=isp_wrong_size,at=0.5,size=5000"], check_isp_short, False),
    ("isp_wrong_size_long", ["fault=isp_wrong_size,at=0.5,size=6000"], check_isp_long, False),
    ("isp_wrong_size_exposure", ["fault=isp_wrong_size,at=0.5,size=300,reply=exposure"],
     check_isp_exposure, False),
    ("isp_garbage", ["fault=isp_garbage,at=0.5,bytes=7"], check_isp_garbage, False),
    ("zoom_busy", ["fault=zoom_busy,at=0.5,for=8"], check_zoom_busy, False),
    ("focus_busy", [f"fault=focus_busy,at=0,for={BUSY_WINDOW}"], check_focus_busy, False),
    ("zoom_sensor", [f"fault=zoom_sensor,at=0,for={BUSY_WINDOW}"], check_zoom_sensor, False),
    ("bus_errors", ["fault=bus_errors,at=0.5,for=1"], check_bus_errors, False),
    ("ms41908_busy", ["fault=zoom_busy,at=0.5,for=8"], check_ms_busy, "chip=ms41908"),
    ("ms41908_bus_errors", ["fault=bus_errors,at=0.5,for=1"], check_bus_errors, "chip=ms41908"),
    ("data_readonly", [], check_data_readonly, "unprivileged"),
    ("file_size_limit", [], check_file_size, False),
]


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--build", default=os.path.join(ROOT, "build"),
                    help="build directory holding afd, afctl and sim/vcam (default build/)")
    ap.add_argument("--afd")
    ap.add_argument("--vcam")
    ap.add_argument("--afctl")
    ap.add_argument("--only", default="")
    ap.add_argument("--keep", action="store_true", help="keep the sandboxes of failed checks")
    ap.add_argument("--verbose", action="store_true")
    args = ap.parse_args()
    args.build = os.path.abspath(args.build)
    args.afd = args.afd or os.path.join(args.build, "afd")
    args.vcam = args.vcam or os.path.join(args.build, "sim/vcam")
    args.afctl = args.afctl or os.path.join(args.build, "afctl")
    only = set(filter(None, args.only.split(",")))
    rows, failed = [], 0
    for name, faults, fn, how in CHECKS:
        if only and name not in only:
            continue
        t0 = time.time()
        run = None
        try:
            run = Run(args, name, faults, unprivileged=how == "unprivileged",
                      hw=how if how and how != "unprivileged" else "")
            inj, lg, rec = fn(run)
            if run.afd_dead():
                raise CheckFailed("the daemon died")
            if name not in ("data_readonly", "file_size_limit") and run.data_files() != run.saved:
                raise CheckFailed("a calibration file changed")
            rows.append((name, inj, lg, rec, "ok"))
        except (CheckFailed, OSError, subprocess.SubprocessError) as e:
            failed += 1
            rows.append((name, "", "", "", f"FAIL: {e}"))
            if run is not None and (args.verbose or args.keep):
                print(f"--- {name}: afd log tail\n" + "".join(run.log().splitlines(True)[-25:]))
                print(f"--- {name}: vcam log tail\n" + "".join(run.vlog().splitlines(True)[-8:]))
        finally:
            if run is not None:
                run.close(keep=args.keep and rows[-1][4] != "ok")
                if args.keep and rows[-1][4] != "ok":
                    print(f"--- {name}: sandbox kept in {run.sb}")
        print(f"{name}: {rows[-1][4]} ({time.time() - t0:.1f} s)", flush=True)
    w = [max(len(r[i]) for r in rows + [("fault", "injected", "logged", "recovered", "")])
         for i in range(4)]
    print()
    print(f"{'fault':<{w[0]}}  {'injected':<{w[1]}}  {'logged':<{w[2]}}  {'recovered':<{w[3]}}  result")
    for r in rows:
        print(f"{r[0]:<{w[0]}}  {r[1]:<{w[1]}}  {r[2]:<{w[2]}}  {r[3]:<{w[3]}}  {r[4]}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
