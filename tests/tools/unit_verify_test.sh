#!/bin/bash
# unit_verify_test.sh UNIT PROGRAM [UNIT...]
#
# Lets systemd check the unit file UNIT, with the other UNITs it names
# beside it (a timer's service).  The units name the installed programs,
# which this machine need not have, so the check runs on copies whose
# ExecStart runs PROGRAM, the built one, with the same arguments.  Skipped
# (77) where systemd-analyze is missing.
set -eu
unit=$1
program=$2
shift 2
command -v systemd-analyze >/dev/null || { echo "systemd-analyze not available"; exit 77; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for file in "$unit" "$@"; do
    sed "s|^ExecStart=[^ ]*|ExecStart=$program|" "$file" >"$work/$(basename "$file")"
done
if ! output=$(systemd-analyze verify --man=no "$work/$(basename "$unit")" 2>&1) || [ -n "$output" ]; then
    echo "$output"
    exit 1
fi
echo "unit ok"
