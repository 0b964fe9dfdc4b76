#!/bin/bash
# bench/restart.sh [--packages DIR] [--build DIR]
#
# What a restart costs the automation: the Debian packages under systemd,
# booted in a container (tests/container/container.sh), while
# q9_trigger_stream sends a trigger every 10 ms, each on a new connection,
# across systemctl restart, a package upgrade, the watchdog's restart of a
# daemon stopped with SIGSTOP, and kill -9.  One row per unit and restart:
# triggers refused and lost, connections the daemon closed, the longest wait
# for an answer, how long the unit took to be active again, and the items
# registered before and after.  Prints Markdown; never fails on a number.
#
#   --packages DIR  the packages of scripts/package (default: built here)
#   --build DIR     the build tree that has, or is given, q9_trigger_stream
#                   (default: build-bench/)
# Needs root.  Exit status: 0 when every row was measured, 1 otherwise.
set -eu

top=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=tests/container/container.sh
. "$top/tests/container/container.sh"
container_start "restart benchmark" "$top/build-bench" "$0" "$@"

container_work_dir restart-bench
container_prepare "$packages" "$build" >&2
container_install || container_fail "dpkg -i failed: $(tail -n 1 "$container_work/dpkg.log")"

# The units compared, each set up by unit_setup NAME in the booted
# container:
#   classic: the service without the socket unit (a copy of the packaged
#     service in /etc without its dependency on the socket unit, the socket
#     unit masked) and without a state file, as the daemon was before them:
#     a restart refuses triggers and forgets the items;
#   kept: the units as packaged, the socket unit holding both sockets, and
#     the items in the state file.
units=(classic kept)
unit_setup() {
    local etc=$container_work/root/etc
    in_container systemctl stop "$unit" "$socket_unit"
    case $1 in
    classic)
        grep -vF "$socket_unit" "$container_work/root/lib/systemd/system/$unit" >"$etc/systemd/system/$unit"
        in_container systemctl mask "$socket_unit" >/dev/null 2>&1
        restart_configuration >"$etc/q9_korvane_xml_events_d.toml"
        ;;
    kept)
        rm -f "$etc/systemd/system/$unit"
        in_container systemctl unmask "$socket_unit" >/dev/null 2>&1
        kept_items_configuration >"$etc/q9_korvane_xml_events_d.toml"
        ;;
    esac
    in_container systemctl daemon-reload
    [ "$1" = classic ] || in_container systemctl start "$socket_unit"
    in_container systemctl start "$unit"
}

restarts=(restart upgrade watchdog kill)
declare -A restart_names=(
    [restart]="systemctl restart"
    [upgrade]="package upgrade (dpkg -i)"
    [watchdog]="watchdog (SIGSTOP)"
    [kill]="kill -9"
)

echo "A trigger every 10 ms, each on a new connection, from \`q9_trigger_stream\` in the container's"
echo "network namespace; the packaged configuration with \`wake_on_input = true\` (and, for *kept*, \`state_file\`); WatchdogSec=$watchdog_s"
echo "(a drop-in of the benchmark), RestartSec=$restart_s as packaged. *Refused*: the connect was refused;"
echo "*lost*: sent and never answered; *back after*: from the restart's start to the unit active again."
echo
echo "| unit | restart | triggers | refused | lost | connections closed | longest wait ms | back after ms | items before → after |"
echo "|---|---|---:|---:|---:|---:|---:|---:|---|"
status=0
for name in "${units[@]}"; do
    unit_setup "$name"
    for kind in "${restarts[@]}"; do
        restart_under_stream "$kind" $((watchdog_s + restart_s + 20)) --every-ms 10
        if [ "$restart_done" != 0 ] || [ "$restart_back" != 0 ]; then
            echo "| $name | ${restart_names[$kind]} | did not come back | | | | | | |"
            status=1
            continue
        fi
        echo "| $name | ${restart_names[$kind]} | $(stream_value triggers) | $(stream_value refused)" \
            "| $(stream_value lost) | $(stream_value connections_closed) | $(stream_value longest_wait_ms)" \
            "| $restart_ms | $items_before → $items_after |"
    done
done
echo
exit "$status"
