#!/bin/sh
# Drives the configured init script against a stand-in daemon in a scratch directory:
# start, status, second start, respawn after a crash, stop, no respawn when switched off,
# missing daemon.
#   sysv_init_test.sh <configured init script>
set -u
script=$1
work=$(mktemp -d)
fail=0
check() {
    what=$1
    shift
    if "$@"; then echo "ok   $what"; else echo "FAIL $what"; fail=1; fi
}
cleanup() {
    AFD_PIDDIR="$work/run" AFD_DEFAULTS="$work/default" AFD_DAEMON="$work/fake-afd" \
        sh "$script" stop >/dev/null 2>&1
    rm -rf "$work"
}
trap cleanup EXIT

# Stand-in daemon: records its pid and arguments, then runs until it is signalled (at most 60 s).
cat >"$work/fake-afd" <<EOS
#!/bin/sh
echo "\$\$ \$*" >>"$work/runs"
exec sleep 60
EOS
chmod +x "$work/fake-afd"
cat >"$work/default" <<EOS
AFD_ARGS="isp1 spi 3"
AFD_STDOUT="$work/stdout"
AFD_RESPAWN=1
AFD_RESPAWN_DELAY=0
EOS
export AFD_PIDDIR="$work/run" AFD_DEFAULTS="$work/default" AFD_DAEMON="$work/fake-afd"
init() { sh "$script" "$@"; }
daemon_pid() { cat "$work/run/afd.pid" 2>/dev/null; }
alive() { kill -0 "$1" 2>/dev/null; }
wait_for() { # up to 5 s for the command to succeed
    n=0
    while [ $n -lt 50 ]; do "$@" && return 0; sleep 0.1; n=$((n + 1)); done
    return 1
}
new_pid() { p=$(daemon_pid) && [ -n "$p" ] && [ "$p" != "$1" ] && alive "$p"; }
# The pid file can be there before the stand-in has written its line: wait for the line.
runs_at_least() { [ "$(wc -l <"$work/runs" 2>/dev/null || echo 0)" -ge "$1" ]; }
gone() { ! alive "$1"; }

check "start succeeds" init start
wait_for runs_at_least 1
pid1=$(daemon_pid)
check "daemon runs after start" alive "$pid1"
check "daemon got the arguments of the settings file" grep -qx "$pid1 isp1 spi 3" "$work/runs"
check "status reports running" init status
init start >"$work/second" 2>&1
check "second start keeps the running daemon" [ "$(daemon_pid)" = "$pid1" ]
check "second start says it is running" grep -q "already running" "$work/second"
check "second start does not run another daemon" [ "$(wc -l <"$work/runs")" -eq 1 ]

kill -KILL "$pid1"
check "a crashed daemon is started again" wait_for new_pid "$pid1"
wait_for runs_at_least 2
pid2=$(daemon_pid)

sup=$(cat "$work/run/afd.supervisor.pid")
check "stop succeeds" init stop
check "stop ends the daemon" wait_for gone "$pid2"
check "stop ends the supervisor" wait_for gone "$sup"
check "stop removes the pid files" [ ! -e "$work/run/afd.pid" ] && [ ! -e "$work/run/afd.supervisor.pid" ]
init status >/dev/null
check "status after stop is 3 (not running)" [ $? -eq 3 ]

sed -i 's/AFD_RESPAWN=1/AFD_RESPAWN=0/' "$work/default"
init start >/dev/null
wait_for runs_at_least 3
pid3=$(daemon_pid)
kill -KILL "$pid3"
check "without respawn a crashed daemon stays down" wait_for gone "$pid3"
sleep 0.5
init status >/dev/null
check "without respawn status is 3 after the crash" [ $? -eq 3 ]
check "without respawn the daemon ran once more only" [ "$(wc -l <"$work/runs")" -eq 3 ]

AFD_DAEMON="$work/missing" init start >/dev/null 2>&1
check "start without the daemon fails with 5" [ $? -eq 5 ]

if [ $fail -eq 0 ]; then echo "sysv init: all checks passed"; fi
exit $fail
