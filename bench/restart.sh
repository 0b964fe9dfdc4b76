#!/bin/bash
# bench/restart.sh [--packages DIR] [--build DIR]
#
# What a restart costs the automation: the Debian packages under systemd,
# booted in a container (tests/container/container.sh), while
# q9_trigger_stream sends a trigger every 10 ms, each on a new connection,
# and then all on one connection kept open, across systemctl restart, a
# package upgrade, the watchdog's restart of a daemon stopped with SIGSTOP,
# and kill -9.  One row per unit, stream and restart: triggers refused and
# lost, connections the daemon closed, the longest wait for an answer, how
# long the unit took to be active again, and the items registered before and
# after.  Prints Markdown; never fails on a number.
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
#     service in /etc without its dependency on the socket unit and without
#     its descriptor store, the socket unit masked) and without a state
#     file, as the daemon was before them: a restart refuses triggers,
#     closes the open connections and forgets the items;
#   kept: the units as packaged, the socket unit holding both sockets, the
#     descriptor store the open connections, and the items in the state
#     file.
units=(classic kept)
unit_setup() {
    local etc=$container_work/root/etc
    in_container systemctl stop "$unit" "$socket_unit"
    case $1 in
    classic)
        grep -vF -e "$socket_unit" -e FileDescriptorStoreMax= -e FDSTORE= \
            "$container_work/root/lib/systemd/system/$unit" >"$etc/systemd/system/$unit"
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

# The streams compared: a new connection for each trigger, or one
# connection kept open, whose triggers may wait in it through a whole
# watchdog restart (beyond the stream's usual patience).
streams=(new kept)
declare -A stream_names=([new]="new connections" [kept]="one kept connection")
declare -A stream_options=([new]="--every-ms 10" [kept]="--every-ms 10 --kept --timeout-ms 60000")

echo "A trigger every 10 ms from \`q9_trigger_stream\` in the container's network namespace, each on a new"
echo "connection or all on one kept open; the packaged configuration with \`wake_on_input = true\` (and, for"
echo "*kept*, \`state_file\`); WatchdogSec=$watchdog_s (a drop-in of the benchmark), RestartSec=$restart_s as packaged."
echo "*Refused*: the connect was refused; *lost*: sent and never answered; *connections closed*: by the"
echo "daemon while a trigger on them was unanswered, or, kept open, at all; *back after*: from the restart's"
echo "start to the unit active again."
echo
echo "| unit | stream | restart | triggers | refused | lost | connections closed | longest wait ms | back after ms | items before → after |"
echo "|---|---|---|---:|---:|---:|---:|---:|---:|---|"
status=0
for name in "${units[@]}"; do
    unit_setup "$name"
    for stream in "${streams[@]}"; do
        for kind in "${restarts[@]}"; do
            # shellcheck disable=SC2086  # the options are words
            restart_under_stream "$kind" $((watchdog_s + restart_s + 20)) ${stream_options[$stream]}
            if [ "$restart_done" != 0 ] || [ "$restart_back" != 0 ]; then
                echo "| $name | ${stream_names[$stream]} | ${restart_names[$kind]} | did not come back | | | | | | |"
                status=1
                continue
            fi
            echo "| $name | ${stream_names[$stream]} | ${restart_names[$kind]} | $(stream_value triggers)" \
                "| $(stream_value refused) | $(stream_value lost) | $(stream_value connections_closed)" \
                "| $(stream_value longest_wait_ms) | $restart_ms | $items_before → $items_after |"
        done
    done
done
echo
exit "$status"
