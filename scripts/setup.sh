#!/usr/bin/env bash
# Installs whatever Debian package from scripts/packages.txt is missing. Safe to run every time:
# when everything is there it does nothing (no network access).
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
list="${1:-$here/packages.txt}"

missing=()
while read -r pkg; do
    pkg="${pkg%%#*}"
    pkg="$(echo "$pkg" | xargs)"
    [[ -z "$pkg" ]] && continue
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$pkg")
    fi
done < "$list"

if ((${#missing[@]})); then
    echo "setup: installing ${missing[*]}"
    sudo_cmd=()
    if [[ $(id -u) -ne 0 ]]; then sudo_cmd=(sudo); fi
    export DEBIAN_FRONTEND=noninteractive
    "${sudo_cmd[@]}" apt-get update -qq
    "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
