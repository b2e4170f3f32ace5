"""What the two benchmarks (afbench, trackbench) share: the sandbox a daemon and vcam run in on
the virtual clock, vcam's telemetry, and the depth of focus of vcam's optics."""
import json
import os
import shutil
import signal
import struct
import subprocess
import tempfile
import threading


def half_width(zoom, iris=1023.0, iris_open=1023.0):
    """Half width (steps) of the V sharpness peak in vcam's optics at this zoom and iris: the
    depth of focus for the benchmarks (sim/README.md: v_width 5 -> 12, growth (z/6624)^1.5,
    x transmission^-0.5 with transmission = (iris/iris_open)^2)."""
    z = max(0.0, min(1.0, zoom / 6624.0))
    w = 5.0 + (12.0 - 5.0) * z ** 1.5
    if iris and iris > 0 and iris < iris_open:
        w *= iris_open / iris
    return w


def rows(path):
    """vcam's telemetry, one record per frame; a line cut short by a stopping vcam is skipped."""
    out = []
    try:
        with open(path) as f:
            for line in f:
                try:
                    out.append(json.loads(line))
                except ValueError:
                    pass
    except FileNotFoundError:
        pass
    return out


_made = threading.local()


def make_sandbox(prefix):
    """A fresh file root with run/ and a calibrated unit: the reference-point curve file holds
    the unit's wide-end focus at the reference distance (the nominal lens: the scenarios have no
    unit deviation unless they say). The calling thread's sandboxes are listed for
    remove_sandboxes()."""
    sb = tempfile.mkdtemp(prefix=prefix)
    if not hasattr(_made, "dirs"):
        _made.dirs = []
    _made.dirs.append(sb)
    os.makedirs(os.path.join(sb, "run"))
    os.makedirs(os.path.join(sb, "data"))
    with open(os.path.join(sb, "data/curve.dat"), "wb") as f:
        f.write(struct.pack("<209H", *([6019] + [0] * 207 + [0xAA55])))
    return sb


def remove_sandboxes():
    """Deletes every sandbox this thread made since the last call (a case's telemetry runs to
    tens of megabytes: a suite left behind fills /tmp)."""
    for sb in getattr(_made, "dirs", []):
        shutil.rmtree(sb, ignore_errors=True)
    _made.dirs = []


def sandbox_env(sb, port, extra=None):
    """The environment for vcam, afd and afctl in sandbox sb: virtual clock, the hardware socket,
    and four ports from port on (ISP, command, reply, tuning), bound to loopback only."""
    env = dict(os.environ)
    env.update({
        "AFD_ROOT": sb, "AFD_SYSLOG": "0", "AFD_CLOCK": "virtual",
        "AFD_VCLOCK_FILE": os.path.join(sb, "run/vclock"),
        "AFD_SIM_SOCKET": os.path.join(sb, "run/hw.sock"),
        "AFD_ISP_PORT": str(port), "AFD_CMD_PORT": str(port + 1),
        "AFD_REPLY_PORT": str(port + 2), "AFD_TUNING_PORT": str(port + 3),
        "AFD_CMD_BIND": "127.0.0.1",
    })
    env.update(extra or {})
    return env


def stop_processes(procs, grace=10):
    """Stops the processes last-started first: SIGTERM, then SIGKILL after `grace` seconds (the
    daemon saves its data files on SIGTERM, so it gets the time to)."""
    for p in reversed([p for p in procs if p is not None]):
        if p.poll() is None:
            p.send_signal(signal.SIGTERM)
            try:
                p.wait(timeout=grace)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
