#!/bin/bash
# tests/package/package_test.sh [OUTDIR]
#
# Builds both Debian packages with scripts/package and checks them:
#   - lintian finds no error and no warning;
#   - hardening-check passes on every program;
#   - each package holds exactly its files, /etc/q9_korvane_xml_events_d.toml
#     is a conffile that switches the safe daemon on and leaves tcp_allow
#     commented out, the daemon's executable is root's alone (uid 65534
#     cannot open it), the service names the packaged daemon, and systemd
#     accepts the units and rates the service's exposure at 2.0 or below;
#   - the maintainer scripts enable and start both units, restart the
#     service on upgrade and never stop or restart the socket unit then;
#   - install, upgrade, remove and purge run without error in a scratch
#     root: the operator's edit of the conffile survives the upgrade and the
#     removal, the purge takes it away, both units of the daemon are enabled
#     on install and forgotten on purge; the metrics timer is installed but
#     not enabled.
# The scratch root is an overlay of this machine's / in a private mount
# namespace, written to a tmpfs: dpkg runs the maintainer scripts there
# (chrooted) with this machine's tools and package database, and nothing
# reaches the machine itself.  No service manager runs in it, as in an
# image build, so what needs a running systemd (start, restart on upgrade,
# stop) is not exercised here.
# The packages are left in OUTDIR when it is given (scripts/test installs
# the same ones in the booted-container test); otherwise they go with the
# scratch root.
# Needs root.  Exit status: 0 when every check passed, 1 otherwise.
set -eu

case ${1:-} in
-h|--help)
    sed -n '2,/^set -eu/p' "$0" | sed '$d' | sed 's/^# \{0,1\}//'
    exit 0
    ;;
esac

top=$(cd "$(dirname "$0")/../.." && pwd)
if [ "$(id -u)" != 0 ]; then
    echo "package test: needs root"
    exit 1
fi
if [ "${Q9_PACKAGE_TEST_NAMESPACE:-}" != 1 ]; then
    Q9_PACKAGE_TEST_NAMESPACE=1 exec unshare --mount -- "$0" "$@"
fi
mount --make-rprivate /
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin

work=$(mktemp -d /tmp/q9-package-test.XXXXXX)
mount -t tmpfs q9-package-test "$work"
trap 'umount -R "$work"; rmdir "$work"' EXIT
out=$work/out
if [ $# -gt 0 ]; then
    mkdir -p "$1"
    out=$(cd "$1" && pwd)
fi

# shellcheck source=tests/support/checks.sh
. "$top/tests/support/checks.sh"

echo "== build"
if ! "$top/scripts/package" "$out" >"$work/package.log" 2>&1; then
    tail -n 60 "$work/package.log"
    echo "FAIL: scripts/package"
    exit 1
fi
daemon_deb=$(ls "$out"/q9-korvane-xml-events-d_*.deb)
sim_deb=$(ls "$out"/q9-appliance-sim_*.deb)
version=$(sed -n 's/^project(q9_korvane_xml_events_d VERSION \([0-9.]*\).*/\1/p' "$top/CMakeLists.txt")
check "the packages carry the project's version $version" \
    [ "$(dpkg-deb -f "$daemon_deb" Version) $(dpkg-deb -f "$sim_deb" Version)" = "$version $version" ]

echo "== lintian"
check "lintian: no error, no warning" lintian --fail-on error,warning "$daemon_deb" "$sim_deb"

echo "== hardening-check"
dpkg-deb -x "$daemon_deb" "$work/files"
dpkg-deb -x "$sim_deb" "$work/files"
# Control-flow marking is left out: the C library's start files of this
# Debian release carry none, so no program linked on it can show it.
check "hardening-check on every program" hardening-check --nocfprotection \
    "$work/files/usr/sbin/q9_korvane_xml_events_d" "$work/files/usr/bin/q9_korvane_xml_events_ctl" \
    "$work/files/usr/bin/q9_appliance_sim"

echo "== contents"
files_of() {
    dpkg-deb -c "$1" | awk '$1 !~ /^d/ { print $6 }' | sort
}
check "the daemon's package holds the daemon, the client, the units, the conffile, the guides and examples" \
    [ "$(files_of "$daemon_deb")" = "./etc/q9_korvane_xml_events_d.toml
./lib/systemd/system/q9_korvane_xml_events_d.service
./lib/systemd/system/q9_korvane_xml_events_d.socket
./lib/systemd/system/q9_korvane_xml_events_d_metrics.service
./lib/systemd/system/q9_korvane_xml_events_d_metrics.timer
./usr/bin/q9_korvane_xml_events_ctl
./usr/sbin/q9_korvane_xml_events_d
./usr/share/doc/q9-korvane-xml-events-d/changelog.gz
./usr/share/doc/q9-korvane-xml-events-d/copyright
./usr/share/doc/q9-korvane-xml-events-d/examples/q9_korvane_xml_events_d-ip-allow.conf
./usr/share/doc/q9-korvane-xml-events-d/monitoring.md.gz
./usr/share/doc/q9-korvane-xml-events-d/q9_korvane_xml_events_d.rules.yml
./usr/share/lintian/overrides/q9-korvane-xml-events-d
./usr/share/man/man1/q9_korvane_xml_events_ctl.1.gz
./usr/share/man/man8/q9_korvane_xml_events_d.8.gz" ]
check "the simulator's package holds the simulator only" \
    [ "$(files_of "$sim_deb")" = "./usr/bin/q9_appliance_sim
./usr/share/doc/q9-appliance-sim/changelog.gz
./usr/share/doc/q9-appliance-sim/copyright
./usr/share/man/man1/q9_appliance_sim.1.gz" ]
control_file() {
    dpkg-deb --ctrl-tarfile "$1" | tar -xOf - "./$2"
}
check "the configuration is the one conffile" \
    [ "$(control_file "$daemon_deb" conffiles)" = /etc/q9_korvane_xml_events_d.toml ]
check "the conffile is the example configuration" \
    cmp -s "$work/files/etc/q9_korvane_xml_events_d.toml" "$top/packaging/q9_korvane_xml_events_d.toml"
# What the installed configuration switches on: every key that no playout
# facility wants off, and tcp_allow left for the operator to fill in.
switched_on() {
    sed -n '/^\[daemon\]$/,$p' "$work/files/etc/q9_korvane_xml_events_d.toml" | grep -v '^#' | cut -d' ' -f1 | paste -sd' ' -
}
check "the conffile switches on the safe daemon and leaves tcp_allow to the operator" \
    [ "$(switched_on)" = "[daemon] wake_on_input close_long_lines max_message_bytes client_send_timeout_ms state_file item_owners max_local_clients max_items max_item_name_bytes escape_logged_text" ]
check "the conffile shows tcp_allow commented out" \
    grep -qx '# tcp_allow = \["10.20.0.0/16", "192.168.1.40"\]' "$work/files/etc/q9_korvane_xml_events_d.toml"
daemon_file=$work/files/usr/sbin/q9_korvane_xml_events_d
check "the daemon's executable is root's alone (mode 0700)" \
    [ "$(stat -c '%a %U' "$daemon_file")" = "700 root" ]
# The unpacked tree is made reachable by every user, so that what stops
# uid 65534 below is the executable's own mode: it opens the client beside it.
chmod 0755 "$work" "$work/files"
as_nobody() {
    setpriv --reuid=65534 --regid=65534 --clear-groups "$@"
}
check "uid 65534 can open the client beside the daemon" \
    as_nobody flock -n "$work/files/usr/bin/q9_korvane_xml_events_ctl" true
nobody_cannot_open() {
    ! as_nobody flock -n "$1" true 2>/dev/null
}
check "uid 65534 cannot open the daemon's executable, so cannot hold its lock" nobody_cannot_open "$daemon_file"
check "root can open it and take its lock" flock -n "$daemon_file" true
units=$work/files/lib/systemd/system
check "the service names the packaged daemon" \
    grep -qx 'ExecStart=/usr/sbin/q9_korvane_xml_events_d' "$units/q9_korvane_xml_events_d.service"
check "the socket unit is the one of the tree" \
    cmp -s "$units/q9_korvane_xml_events_d.socket" "$top/packaging/q9_korvane_xml_events_d.socket"
check "systemd accepts the units; the service's exposure is 2.0 or below" \
    "$top/tests/tools/unit_verify_test.sh" "$units/q9_korvane_xml_events_d.service" \
    "$work/files/usr/sbin/q9_korvane_xml_events_d" "$units/q9_korvane_xml_events_d.socket"
# What the maintainer scripts do to a unit: their lines that name it.
script_lines_naming() {
    control_file "$daemon_deb" "$1" 2>/dev/null | grep -F "'$2'" | sed 's/^[[:space:]]*//'
}
socket_unit=q9_korvane_xml_events_d.socket
service_unit=q9_korvane_xml_events_d.service
check "the postinst enables both units" \
    [ "$(script_lines_naming postinst "$socket_unit" | grep -c "^deb-systemd-helper enable ")$(
        script_lines_naming postinst "$service_unit" | grep -c "^deb-systemd-helper enable ")" = 11 ]
check "the postinst starts the socket unit, on upgrade too, and never restarts it" \
    [ "$(script_lines_naming postinst "$socket_unit" | grep deb-systemd-invoke)" = \
      "deb-systemd-invoke start '$socket_unit' >/dev/null || true" ]
check "the postinst restarts the service on upgrade, and the service only" \
    [ "$(control_file "$daemon_deb" postinst | grep -A4 '_dh_action=restart' | grep deb-systemd-invoke |
        sed 's/^[[:space:]]*//')" = "deb-systemd-invoke \$_dh_action '$service_unit' >/dev/null || true" ]
check "the socket unit is stopped on removal only, never before an upgrade" \
    [ "$(control_file "$daemon_deb" preinst 2>/dev/null | grep -c "$socket_unit")$(
        control_file "$daemon_deb" prerm | grep -B1 "deb-systemd-invoke stop '$socket_unit'" | head -n 1 |
        grep -c '"$1" = remove')" = 01 ]
check "the metrics service runs the packaged client into the node exporter's folder" \
    grep -qx 'ExecStart=/usr/bin/q9_korvane_xml_events_ctl metrics --output /var/lib/prometheus/node-exporter/q9_korvane_xml_events_d.prom' \
    "$work/files/lib/systemd/system/q9_korvane_xml_events_d_metrics.service"
check "the alert rules are shipped as they are in the source" \
    cmp -s "$work/files/usr/share/doc/q9-korvane-xml-events-d/q9_korvane_xml_events_d.rules.yml" \
    "$top/packaging/q9_korvane_xml_events_d.rules.yml"
check "the package suggests the node exporter" \
    [ "$(dpkg-deb -f "$daemon_deb" Suggests)" = prometheus-node-exporter ]
check "the maintainer scripts never call systemctl to enable, start or stop" \
    bash -c '! grep -E "systemctl +(enable|disable|start|stop|restart)" <(dpkg-deb --ctrl-tarfile "$0" | tar -xOf - ./postinst ./prerm ./postrm)' "$daemon_deb"

echo "== install, upgrade, remove and purge in a scratch root"
mkdir "$work/upper" "$work/overlay-work" "$work/root"
mount -t overlay q9-package-root -o "lowerdir=/,upperdir=$work/upper,workdir=$work/overlay-work" "$work/root"
root=$work/root
mount -t tmpfs q9-package-run "$root/run"
dpkg_in_root() {
    dpkg --root="$root" "$@" </dev/null >>"$work/dpkg.log" 2>&1
}
status_of() {
    dpkg-query --admindir="$root/var/lib/dpkg" -W -f '${db:Status-Abbrev}${Version}' "$1" 2>/dev/null
}
conffile=$root/etc/q9_korvane_xml_events_d.toml
wants=$root/etc/systemd/system/multi-user.target.wants/q9_korvane_xml_events_d.service
socket_wants=$root/etc/systemd/system/sockets.target.wants/q9_korvane_xml_events_d.socket
timer_wants=$root/etc/systemd/system/timers.target.wants/q9_korvane_xml_events_d_metrics.timer
edit='# kept by the operator'

check "install runs without error" dpkg_in_root -i "$daemon_deb" "$sim_deb"
check "both packages are installed" \
    [ "$(status_of q9-korvane-xml-events-d) $(status_of q9-appliance-sim)" = "ii $version ii $version" ]
check "the daemon is in place" [ -x "$root/usr/sbin/q9_korvane_xml_events_d" ]
check "the simulator is in place" [ -x "$root/usr/bin/q9_appliance_sim" ]
check "the conffile is in place" cmp -s "$conffile" "$top/packaging/q9_korvane_xml_events_d.toml"
check "the service is enabled" [ "$(readlink "$wants")" = /lib/systemd/system/q9_korvane_xml_events_d.service ]
check "the socket unit is enabled" \
    [ "$(readlink "$socket_wants")" = /lib/systemd/system/q9_korvane_xml_events_d.socket ]
check "the metrics timer is not enabled" [ ! -L "$timer_wants" ]

echo "$edit" >>"$conffile"
dpkg-deb -R "$daemon_deb" "$work/next"
sed -i "s/^Version: .*/Version: $version+next/" "$work/next/DEBIAN/control"
dpkg-deb -b --root-owner-group "$work/next" "$work/next.deb" >/dev/null
check "upgrade runs without error or question" dpkg_in_root -i "$work/next.deb"
check "the upgrade is installed" [ "$(status_of q9-korvane-xml-events-d)" = "ii $version+next" ]
check "the operator's conffile is kept on upgrade" [ "$(tail -n 1 "$conffile")" = "$edit" ]
both_enabled() {
    [ -L "$wants" ] && [ -L "$socket_wants" ]
}
check "both units stay enabled on upgrade" both_enabled
check "the metrics timer stays off on upgrade" [ ! -L "$timer_wants" ]

check "removal runs without error" dpkg_in_root -r q9-korvane-xml-events-d q9-appliance-sim
check "the programs are gone" \
    [ -z "$(ls "$root/usr/sbin/q9_korvane_xml_events_d" "$root/usr/bin/q9_appliance_sim" 2>/dev/null)" ]
check "the operator's conffile is kept on removal" [ "$(tail -n 1 "$conffile")" = "$edit" ]

check "purge runs without error" dpkg_in_root -P q9-korvane-xml-events-d q9-appliance-sim
check "the conffile is gone after purge" [ ! -e "$conffile" ]
check "both units are forgotten after purge" \
    [ -z "$(ls -d "$wants" "$socket_wants" "$root"/var/lib/systemd/deb-systemd-helper-enabled/*q9_korvane* 2>/dev/null)" ]
check "nothing of either package is left in dpkg's records" \
    [ -z "$(status_of q9-korvane-xml-events-d)$(status_of q9-appliance-sim)" ]

if [ "$failures" -ne 0 ]; then
    echo "== dpkg's output in the scratch root"
    cat "$work/dpkg.log"
fi
echo "packages: $passes passed, $failures failed"
[ "$failures" -eq 0 ]
