#!/bin/bash
# tests/container/container_test.sh [--packages DIR] [--build DIR]
#
# Boots systemd in a container made with Debian's own tools, installs the
# Debian packages there with dpkg -i and checks the daemon under the real
# service manager, from outside the daemon:
#   - the install starts the socket unit and the service, which is active
#     only once the daemon is ready (its PID file and service socket are
#     older than the unit's activation; a daemon that ends before it is
#     ready fails the start), and the daemon serves the sockets the socket
#     unit hands over;
#   - q9_korvane_xml_events_ctl status answers;
#   - systemctl reload: RELOADING=1 then READY=1, the changed configuration
#     in force, the same process, the items kept; the reload names a state
#     file in the unit's state directory, which then holds the items, and a
#     register or unregister is in it when ctl has its answer;
#   - while q9_trigger_stream sends a trigger every 10 ms: systemctl
#     restart, a package upgrade (the same packages as a higher version), a
#     daemon stopped with SIGSTOP and ended by the watchdog within
#     WatchdogSec plus a margin, and kill -9: each time the unit comes back
#     with a new daemon, every trigger sent before and after the restart is
#     answered, none is refused (the socket unit holds the port), none
#     waits longer than the restart took plus one second, and the items
#     are the same after (the state file keeps them);
#   - the socket unit runs through all of them, never restarted;
#   - one connection kept open across systemctl restart, a package
#     upgrade, the watchdog and kill -9, a trigger every 10 ms on it: the
#     service manager's descriptor store keeps it, each new daemon takes it
#     back, and it is never closed; every trigger on it is answered.
# What the restarts on new connections lose is printed, not checked.
#
# The root (a minimal Debian with systemd) is cached in
# /var/cache/q9_korvane_xml_events_d-test and made again with mmdebstrap
# when it is missing or its recipe changed; the container boots from a
# writable layer over it on a tmpfs and is removed at the end.
#
#   --packages DIR  the packages of scripts/package (default: built here)
#   --build DIR     the build tree that has, or is given, q9_trigger_stream
#                   (default: build/)
# Needs root.  Exit status: 0 when every check passed, 1 otherwise; a machine
# that cannot boot the container fails with one line saying why.
set -eu

top=$(cd "$(dirname "$0")/../.." && pwd)
# shellcheck source=tests/container/container.sh
. "$top/tests/container/container.sh"
container_start "container test" "$top/build" "$0" "$@"

started=$(date +%s)
container_work_dir container-test
work=$container_work

# shellcheck source=tests/support/checks.sh
. "$top/tests/support/checks.sh"

starts_with() {
    [[ $1 == "$2"* ]]
}
contains() {
    [[ $1 == *"$2"* ]]
}
# journal_has LINE: the unit's journal has this line.
journal_has() {
    in_container journalctl -u "$unit" -o cat | grep -qxF "$1"
}
# daemon_says REGEX: the daemon wrote a line that matches it whole.  By
# the daemon's name: while systemd logs at debug level, the first lines of
# a daemon's standard error can reach the journal without the unit's name.
daemon_says() {
    in_container journalctl -t q9_korvane_xml_events_d -o cat | grep -qxE "$1"
}
# eventually COMMAND...: the command succeeds within 10 s (the journal is
# written a moment after the event).
eventually() {
    for _ in $(seq 100); do
        "$@" && return 0
        sleep 0.1
    done
    return 1
}
start_fails() {
    ! in_container systemctl restart "$unit" 2>/dev/null
}

container_prepare "$packages" "$build"
root=$work/root
# systemd's debug messages show each notification the daemon sends.
in_container systemd-analyze log-level debug

socket_property() {
    in_container systemctl show --property="$1" --value "$socket_unit"
}

echo "== install and start"
check "dpkg -i installs both packages" container_install
check "the install started the socket unit" [ "$(socket_property ActiveState)" = active ]
check "the install started the unit" [ "$(unit_property ActiveState)" = active ]
socket_invocation=$(socket_property InvocationID)
# The descriptors come in the service manager's order, which is not the
# daemon's concern.
check "the daemon serves the socket unit's TCP listener" eventually daemon_says \
    "Handed-over fd [34] \\($socket_unit\\) is the trigger listener: IPv4 stream socket 0\\.0\\.0\\.0:9876, listening"
check "the daemon serves the socket unit's command socket" eventually daemon_says \
    "Handed-over fd [34] \\($socket_unit\\) is the command server's socket: Unix stream socket /run/q9_korvane_xml_events_d\\.service, listening"
in_container journalctl -t q9_korvane_xml_events_d -o cat | grep '^Handed-over' | sed 's/^/   /'
check "the unit's status line is the daemon's, after start-up" \
    starts_with "$(unit_property StatusText)" "Running; event sections 2; "
# File times come from a clock that may lag by a tick, never lead.
active_us=$(date -d "$(in_container systemctl show --timestamp=us+utc --property=ActiveEnterTimestamp --value "$unit")" +%s%6N)
made_before_active() {
    local made_us
    made_us=$(in_container stat -c %.6Y "$1" | tr -d .)
    [ "$made_us" -le "$active_us" ]
}
check "the PID file was written before the unit became active" made_before_active /run/q9_korvane_xml_events_d.pid
check "the service socket was made before the unit became active" made_before_active /run/q9_korvane_xml_events_d.service
main_pid=$(unit_property MainPID)
check "ctl status answers and names the unit's main process" \
    starts_with "$(ctl status | head -n 1)" "q9_korvane_xml_events_d $version, pid $main_pid, up "

in_container systemd-run --quiet --unit=q9-sim-channels q9_appliance_sim rendermgr 1 2
in_container systemd-run --quiet --unit=q9-sim-media q9_appliance_sim mediaitem
registered_and_listed() {
    register_items opening closing && [ "$(items)" = closing,opening ]
}
check "items registered with ctl are listed" registered_and_listed
echo "== reload"
cursor=$(in_container journalctl --show-cursor -n 0 | sed -n 's/^-- cursor: //p')
{
    kept_items_configuration
    printf '\n[channel-weather]\n"watch path" = "/srv/events/weather"\n"asset path" = "/srv/assets/weather"\n"target channel" = 1\n'
} >"$root/etc/q9_korvane_xml_events_d.toml"
check "systemctl reload succeeds" in_container systemctl reload "$unit"
# The state changes the daemon sent since the cursor, watchdog pings left out.
notifications_are() {
    [ "$(in_container journalctl --after-cursor="$cursor" -u "$unit" -o cat |
        sed -n "s/^$unit: Got notification message from PID [0-9]* (\([A-Z]*=1\).*/\1/p" |
        grep -v WATCHDOG | paste -sd' ' -)" = "$1" ]
}
check "the daemon sent RELOADING=1, then READY=1" eventually notifications_are "RELOADING=1 READY=1"
check "the unit's status line says the reload and counts the new section" \
    starts_with "$(unit_property StatusText)" "Reloaded; event sections 3; "
check "the reload kept the process" [ "$(unit_property MainPID)" = "$main_pid" ]
status=$(ctl status) || true
check "ctl status shows the reloaded configuration" contains "$status" "3 sections, last load "
check "ctl status shows the reloaded [daemon] table in force" contains "$status" "Settings: wake_on_input=true "
check "the reload kept the items" [ "$(items)" = closing,opening ]
# ctl runs as root here, and the packaged configuration has item_owners
# on: root owns every item.
check "the state file named by the reload holds the items" \
    [ "$(in_container cat "$state_file")" = "$(printf 'q9_korvane_xml_events_d state 2\nitem 0 closing\nitem 0 opening')" ]
acknowledged_is_saved() {
    ctl register --target "news at ten" >/dev/null &&
        in_container grep -qxF "item 0 news at ten" "$state_file" &&
        ctl unregister --target "news at ten" >/dev/null &&
        ! in_container grep -qxF "item 0 news at ten" "$state_file"
}
check "an acknowledged register and unregister are in the state file when ctl returns" acknowledged_is_saved

report() {
    echo "   $1: back after $restart_ms ms; refused $(stream_value refused), lost $(stream_value lost)" \
        "of $(stream_value triggers) triggers, connections closed $(stream_value connections_closed)," \
        "longest wait $(stream_value longest_wait_ms) ms; items $items_before -> $items_after"
}
stream_checks() {
    check "$1: every trigger due before and after the restart was answered" \
        [ "$(stream_value outside_unanswered)" = 0 ]
    check "$1: the stream ran on after the restart" [ "$(stream_value after_last_restart)" -gt 0 ]
}
# What the socket unit promises for one restart: the port stays open, and a
# trigger waits for the new daemon, not longer.
at_most() {
    awk -v value="$1" -v limit="$2" 'BEGIN { exit !(value <= limit) }'
}
socket_unit_checks() {
    check "$1: the items are the same after" [ "$items_after" = "$items_before" ]
    check "$1: no trigger was refused" [ "$(stream_value refused)" = 0 ]
    check "$1: no trigger waited longer than the restart ($restart_ms ms) plus 1 s" \
        at_most "$(stream_value longest_wait_ms)" $((restart_ms + 1000))
}

echo "== systemctl restart, a trigger every 10 ms on new connections"
restart_under_stream restart 30 --every-ms 10
check "systemctl restart succeeds" [ "$restart_done" = 0 ]
check "the unit is active again with a new daemon" [ "$restart_back" = 0 ]
stream_checks "systemctl restart"
socket_unit_checks "systemctl restart"
report "systemctl restart"

echo "== package upgrade, a trigger every 10 ms on new connections"
restart_under_stream upgrade 60 --every-ms 10
check "dpkg -i upgrades both packages" [ "$restart_done" = 0 ]
check "the upgrade is installed" \
    [ "$(in_container dpkg-query -W -f '${Version}' q9-korvane-xml-events-d)" = "$version+next" ]
check "the upgrade restarted the unit with a new daemon" [ "$restart_back" = 0 ]
stream_checks "upgrade"
socket_unit_checks "upgrade"
report "upgrade"

echo "== watchdog (WatchdogSec=$watchdog_s, RestartSec=$restart_s), a trigger every 10 ms on new connections"
watchdog_limit=$((watchdog_s + restart_s + 20))
restart_under_stream watchdog "$watchdog_limit" --every-ms 10
check "a daemon stopped with SIGSTOP is restarted within WatchdogSec + RestartSec + 20 s" [ "$restart_back" = 0 ]
check "the service manager's watchdog ended it" eventually journal_has "$unit: Watchdog timeout (limit ${watchdog_s}s)!"
stream_checks "watchdog"
socket_unit_checks "watchdog"
report "watchdog"

echo "== kill -9, a trigger every 10 ms on new connections"
restart_under_stream kill $((restart_s + 20)) --every-ms 10
check "a daemon ended by kill -9 is restarted" [ "$restart_back" = 0 ]
stream_checks "kill -9"
socket_unit_checks "kill -9"
report "kill -9"

check "the socket unit ran through every restart" \
    [ "$(socket_property ActiveState) $(socket_property InvocationID)" = "active $socket_invocation" ]

echo "== one kept connection, a trigger every 10 ms, across systemctl restart, an upgrade, the watchdog and kill -9"
in_container systemctl reset-failed "$unit"
# The triggers sent while the watchdog waits and the unit restarts wait in
# the connection for the next daemon: longer than the stream's usual
# patience.
kept_cursor=$(in_container journalctl --show-cursor -n 0 | sed -n 's/^-- cursor: //p')
stream_start --every-ms 10 --kept --timeout-ms 60000
kept_back=0
wait_for_more_handled 20 || kept_back=1
for kind in restart upgrade watchdog kill; do
    in_container systemctl reset-failed "$unit"
    old=$(unit_property MainPID)
    stream_window open
    disturb "$kind" || kept_back=1
    wait_for_new_daemon "$old" "$watchdog_limit" || kept_back=1
    stream_window close
    wait_for_more_handled 20 || kept_back=1
done
stream_stop
check "kept connection: the daemon came back after each restart" [ "$kept_back" = 0 ]
stream_checks "kept connection"
check "kept connection: it was never closed" [ "$(stream_value connections_closed)" = 0 ]
check "kept connection: every trigger on it was answered" \
    [ "$(stream_value answered)" = "$(stream_value triggers)" ]
taken_back() {
    [ "$(in_container journalctl --after-cursor="$kept_cursor" -t q9_korvane_xml_events_d -o cat |
        grep -cxE 'Kept TCP client fd [0-9]+ \(trigger-[0-9]+\) taken back( inside a message, [0-9]+ bytes of it received)?')" = "$1" ]
}
check "kept connection: each of the four daemons after it took it back" eventually taken_back 4
echo "   kept connection: refused $(stream_value refused), lost $(stream_value lost) of" \
    "$(stream_value triggers) triggers, connections closed $(stream_value connections_closed)," \
    "longest wait $(stream_value longest_wait_ms) ms"

echo "== a daemon that ends before it is ready"
printf 'station = "north"\n' >"$root/etc/q9_korvane_xml_events_d.toml"
in_container systemctl reset-failed "$unit"
check "a start whose daemon ends before READY=1 fails" start_fails
check "the unit did not become active" [ "$(unit_property ActiveState)" != active ]

finished=$(date +%s)
echo "== $((finished - started)) s in all, $((finished - booted)) s from boot"
if [ "$failures" -ne 0 ]; then
    echo "== the unit's journal"
    in_container journalctl -u "$unit" -o short-monotonic --no-pager | grep -v 'Got notification message' | tail -n 60
fi
echo "container: $passes passed, $failures failed"
[ "$failures" -eq 0 ]
