#!/bin/bash
# package_contents_test.sh BUILD_DIR PREFIX
#
# Makes the Debian package from the build tree and checks that it holds
# exactly the daemon, both tools, the unit (naming the packaged daemon), the
# manual pages and the example configuration.
set -eu
build=$1
prefix=${2#/}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
(cd "$build" && cpack -G DEB -B "$work") >"$work/cpack.log" 2>&1 || { cat "$work/cpack.log"; exit 1; }
package=$(ls "$work"/*.deb)

expected="./$prefix/bin/q9_appliance_sim
./$prefix/bin/q9_korvane_xml_events_ctl
./$prefix/lib/systemd/system/q9_korvane_xml_events_d.service
./$prefix/sbin/q9_korvane_xml_events_d
./$prefix/share/doc/q9-korvane-xml-events-d/q9_korvane_xml_events_d.toml
./$prefix/share/man/man1/q9_appliance_sim.1.gz
./$prefix/share/man/man1/q9_korvane_xml_events_ctl.1.gz
./$prefix/share/man/man8/q9_korvane_xml_events_d.8.gz"
files=$(dpkg-deb -c "$package" | awk '$1 !~ /^d/ { print $6 }' | sort)
if [ "$files" != "$expected" ]; then
    echo "package files differ:"
    diff <(echo "$expected") <(echo "$files") || true
    exit 1
fi

[ "$(dpkg-deb -f "$package" Package)" = q9-korvane-xml-events-d ] || { echo "wrong package name"; exit 1; }
dpkg-deb -f "$package" Depends | grep -q libc6 || { echo "no dependency on libc6"; exit 1; }
dpkg-deb -I "$package" postinst prerm postrm >/dev/null || { echo "maintainer scripts missing"; exit 1; }

dpkg-deb -x "$package" "$work/root"
unit=$work/root/$prefix/lib/systemd/system/q9_korvane_xml_events_d.service
grep -qx "ExecStart=/$prefix/sbin/q9_korvane_xml_events_d" "$unit" || { echo "ExecStart does not name the packaged daemon"; exit 1; }
[ -x "$work/root/$prefix/sbin/q9_korvane_xml_events_d" ] || { echo "daemon not executable"; exit 1; }
for page in "$work/root/$prefix"/share/man/man*/*.gz; do
    zcat "$page" | head -1 | grep -q '^\.TH ' || { echo "$page is no manual page"; exit 1; }
done
echo "package ok: $(basename "$package")"
