#!/bin/bash
# unit_verify_test.sh UNIT DAEMON
#
# Lets systemd check the unit file.  The unit names the installed daemon,
# which this machine need not have, so the check runs on a copy that names
# the built one.  Skipped (77) where systemd-analyze is missing.
set -eu
unit=$1
daemon=$2
command -v systemd-analyze >/dev/null || { echo "systemd-analyze not available"; exit 77; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
sed "s|^ExecStart=.*|ExecStart=$daemon|" "$unit" >"$work/$(basename "$unit")"
if ! output=$(systemd-analyze verify --man=no "$work/$(basename "$unit")" 2>&1) || [ -n "$output" ]; then
    echo "$output"
    exit 1
fi
echo "unit ok"
