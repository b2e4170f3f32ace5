#!/bin/sh
# Installs a build tree into a scratch prefix and checks the layout and the service files.
#   install_layout_test.sh <cmake> <build dir> <daemon dir on the board> <shipped targets...>
set -u
cmake_cmd=$1 build=$2 bindir=$3
shift 3
fail=0
check() { # description, command...
    what=$1
    shift
    if "$@"; then echo "ok   $what"; else echo "FAIL $what"; fail=1; fi
}

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
"$cmake_cmd" --install "$build" --prefix "$stage" >/dev/null || { echo "FAIL cmake --install"; exit 1; }

expected=$( (for t in "$@"; do echo "bin/$t"; done
             echo etc/default/afd
             echo etc/init.d/afd
             echo lib/systemd/system/afd.service) | sort)
actual=$(cd "$stage" && find . -type f | sed 's|^\./||' | sort)
check "installed files are exactly: $(echo $expected)" [ "$expected" = "$actual" ]
[ "$expected" = "$actual" ] || { echo "installed:"; echo "$actual"; }

for t in "$@"; do check "bin/$t is executable" [ -x "$stage/bin/$t" ]; done
check "init script is executable" [ -x "$stage/etc/init.d/afd" ]

unit="$stage/lib/systemd/system/afd.service"
check "unit starts $bindir/afd" grep -qx "ExecStart=$bindir/afd \$AFD_ARGS" "$unit"
check "unit restarts on failure" grep -qx "Restart=on-failure" "$unit"
check "unit sends stdout to the journal" grep -qx "StandardOutput=journal" "$unit"
check "unit has an install section" grep -qx "WantedBy=multi-user.target" "$unit"
check "no placeholder left in the unit" sh -c "! grep -q @ '$unit'"
check "init script runs $bindir/afd" grep -q "AFD_DAEMON:-$bindir/afd}" "$stage/etc/init.d/afd"
check "no placeholder left in the init script" sh -c "! grep -q '@AFD' '$stage/etc/init.d/afd'"
check "init script parses" sh -n "$stage/etc/init.d/afd"

if [ $fail -eq 0 ]; then echo "install layout: all checks passed"; fi
exit $fail
