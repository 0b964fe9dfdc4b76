#!/bin/bash
# unit_verify_test.sh DAEMON UNIT...
#
# Lets systemd check the units together (the service requires the socket
# unit beside it), and rates each service's sandbox: its exposure must stay
# at 2.0 or below.  The service names the installed daemon, which this
# machine need not have, so the checks run on copies that name DAEMON.
# Skipped (77) where systemd-analyze is missing.
set -eu
daemon=$1
shift
command -v systemd-analyze >/dev/null || { echo "systemd-analyze not available"; exit 77; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
copies=()
for unit in "$@"; do
    sed "s|^ExecStart=.*|ExecStart=$daemon|" "$unit" >"$work/$(basename "$unit")"
    copies+=("$work/$(basename "$unit")")
done
if ! output=$(systemd-analyze verify --man=no "${copies[@]}" 2>&1) || [ -n "$output" ]; then
    echo "$output"
    exit 1
fi
for copy in "${copies[@]}"; do
    [[ $copy == *.service ]] || continue
    # The threshold counts tenths: 20 is an exposure of 2.0.
    if ! output=$(systemd-analyze security --offline=true --threshold=20 --no-pager "$copy" 2>&1); then
        echo "$output" | tail -n 1
        exit 1
    fi
    echo "$output" | tail -n 1
done
echo "units ok"
