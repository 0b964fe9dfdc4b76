#!/bin/bash
# unit_verify_test.sh UNIT PROGRAM [UNIT...]
#
# Lets systemd check the unit file UNIT together with the other UNITs it
# names (a timer's service, a service's socket unit), and, when UNIT is a
# service, rates its sandbox: its exposure must stay at 2.0 or below.  The
# units name the installed programs, which this machine need not have, so
# the checks run on copies whose ExecStart runs PROGRAM, the built one, with
# the same arguments.  Skipped (77) where systemd-analyze is missing.
set -eu
unit=$1
program=$2
shift 2
command -v systemd-analyze >/dev/null || { echo "systemd-analyze not available"; exit 77; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
copies=()
for file in "$unit" "$@"; do
    sed "s|^ExecStart=[^ ]*|ExecStart=$program|" "$file" >"$work/$(basename "$file")"
    copies+=("$work/$(basename "$file")")
done
if ! output=$(systemd-analyze verify --man=no "${copies[@]}" 2>&1) || [ -n "$output" ]; then
    echo "$output"
    exit 1
fi
if [[ $unit == *.service ]]; then
    # The threshold counts tenths: 20 is an exposure of 2.0.
    if ! output=$(systemd-analyze security --offline=true --threshold=20 --no-pager "${copies[0]}" 2>&1); then
        echo "$output" | tail -n 1
        exit 1
    fi
    echo "$output" | tail -n 1
fi
echo "unit ok"
