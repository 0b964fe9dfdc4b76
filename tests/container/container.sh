# shellcheck shell=bash disable=SC2034  # what is set here, the caller reads
# tests/container/container.sh: sourced by the booted-container test and the
# restart benchmark.  A small Debian root made with Debian's own tools and
# cached on this machine, booted with systemd in a container of its own:
# private mount, PID and network namespaces (loopback only), so the
# container's port 9876, /run and /etc are never this machine's.
#
# The caller first runs container_start, which runs it again in a private
# mount and PID namespace: when the caller ends, however it ends,
# the kernel ends every process of the container with it, and the mounts
# (a private /run holding the container's writable layer and
# systemd-nspawn's own files) go away.

container_cache=/var/cache/q9_korvane_xml_events_d-test
container_mirror=http://deb.debian.org/debian
# The suite of this machine, whose libraries the packages are built against.
# dpkg -i installs no dependencies, so the root holds what the packages need
# beyond a minimal system: procps for the unit's /bin/kill.
container_suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
container_packages_in_root=systemd,systemd-sysv,dbus,procps
container_recipe="mmdebstrap --variant=minbase --include=$container_packages_in_root $container_suite ROOT $container_mirror"
container_leader=
container_nspawn=

# Prints "NAME: WHAT" on one line and ends the caller with status 1.
container_fail() {
    echo "$container_name: $1"
    exit 1
}

# container_start NAME DEFAULT_BUILD "$0" "$@": what the test and the
# benchmark do first.  --help prints the calling script's header; then,
# after checking that this machine can boot a container at all, the script
# runs again in a private mount and PID namespace (once), and its options
# set packages (--packages DIR, default none) and build (--build DIR).
container_start() {
    container_name=$1
    build=$2
    shift 2
    case ${2:-} in
    -h | --help)
        sed -n '2,/^set -eu/p' "$1" | sed '$d' | sed 's/^# \{0,1\}//'
        exit 0
        ;;
    esac
    [ "$(id -u)" = 0 ] || container_fail "needs root"
    if [ "${Q9_CONTAINER_NAMESPACE:-}" != 1 ]; then
        local tool
        for tool in mmdebstrap systemd-nspawn nsenter unshare; do
            command -v "$tool" >/dev/null ||
                container_fail "cannot boot a container: $tool is missing (scripts/deps installs it)"
        done
        Q9_CONTAINER_NAMESPACE=1 exec unshare --mount --pid --fork --kill-child --mount-proc -- "$@"
    fi
    export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
    shift
    packages=
    while [ $# -gt 0 ]; do
        case $1 in
        --packages) packages=$(cd "$2" && pwd) ;;
        --build) build=$(cd "$2" && pwd) ;;
        *) container_fail "unknown option '$1' (see --help)" ;;
        esac
        shift 2
    done
}

# Makes the cached root again when it is missing or its recipe changed, one
# caller at a time; prints nothing but mmdebstrap's failure.
container_root_ensure() {
    mkdir -p "$container_cache"
    exec {lock}>"$container_cache/lock"
    flock "$lock"
    if [ ! -d "$container_cache/root" ] || [ "$(cat "$container_cache/recipe" 2>/dev/null)" != "$container_recipe" ]; then
        rm -rf "$container_cache/root" "$container_cache/root.new" "$container_cache/recipe"
        if ! mmdebstrap --variant=minbase --include="$container_packages_in_root" "$container_suite" \
                "$container_cache/root.new" "$container_mirror" >"$container_cache/mmdebstrap.log" 2>&1; then
            flock -u "$lock"
            container_fail "cannot make the container's root (whole log: $container_cache/mmdebstrap.log)"
        fi
        mv "$container_cache/root.new" "$container_cache/root"
        echo "$container_recipe" >"$container_cache/recipe"
    fi
    flock -u "$lock"
    exec {lock}>&-
}

# container_boot PACKAGES: boots the cached root with a writable layer in
# container_work (the cached root is only ever read), PACKAGES visible
# read-only at /srv/q9-packages, and waits until systemd has started the
# system.  Sets container_leader (the container's init, for nsenter) and
# container_nspawn.  The container's root is $container_work/root here too.
container_boot() {
    local work=$container_work packages=$1
    mkdir "$work/upper" "$work/overlay-work" "$work/root"
    mount -t overlay q9-container-root \
        -o "lowerdir=$container_cache/root,upperdir=$work/upper,workdir=$work/overlay-work" "$work/root"
    systemd-nspawn --boot --register=no --keep-unit --private-network --console=passive \
        --link-journal=no --resolv-conf=off --timezone=off --machine="q9-test-$$" \
        --directory="$work/root" --bind-ro="$packages:/srv/q9-packages" >"$work/nspawn.log" 2>&1 &
    container_nspawn=$!
    local state='' child
    for _ in $(seq 300); do
        # The container's init is the child of systemd-nspawn that runs in
        # a PID namespace of its own (a first child only prepares it).
        for child in $(cat "/proc/$container_nspawn/task/$container_nspawn/children" 2>/dev/null); do
            [ "$(readlink "/proc/$child/ns/pid")" = "$(readlink /proc/self/ns/pid)" ] || container_leader=$child
        done
        if [ -n "$container_leader" ]; then
            state=$(in_container systemctl is-system-running 2>/dev/null) || true
            case $state in running | degraded) return 0 ;; esac
        fi
        kill -0 "$container_nspawn" 2>/dev/null || break
        sleep 0.1
    done
    container_fail "systemd did not boot in the container within 30 s (state '$state'; systemd-nspawn's last line: $(tail -n 1 "$work/nspawn.log"))"
}

# Makes container_work on a tmpfs over /run that only this mount namespace
# sees (systemd-nspawn keeps its locks and mount propagation under /run
# too), so that nothing of the run is left on this machine however it ends;
# an orderly end powers the container off first.
container_work_dir() {
    mount --make-rprivate /
    mount -t tmpfs q9-container-run /run
    container_work=$(mktemp -d "/run/q9-$1.XXXXXX")
    trap container_cleanup EXIT
}

container_cleanup() {
    stream_stop >/dev/null 2>&1 || true
    container_remove
}

# Powers the container off, and kills it when it does not go within 10 s.
container_remove() {
    [ -n "$container_nspawn" ] || return 0
    kill -TERM "$container_nspawn" 2>/dev/null || true
    for _ in $(seq 100); do
        kill -0 "$container_nspawn" 2>/dev/null || break
        sleep 0.1
    done
    # Killing the container's init ends every process of its PID namespace.
    [ -z "$container_leader" ] || kill -KILL "$container_leader" 2>/dev/null || true
    kill -KILL "$container_nspawn" 2>/dev/null || true
    wait "$container_nspawn" 2>/dev/null || true
    container_nspawn=
}

# Runs a command inside the container: its namespaces, root and a plain
# environment.
in_container() {
    nsenter --target "$container_leader" --all \
        env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 "$@"
}

container_top=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

# container_packages OUTDIR: builds the packages with scripts/package into
# OUTDIR unless they are there already (scripts/test hands over those that
# the package test built).
container_packages() {
    local out=$1
    ls "$out"/q9-korvane-xml-events-d_*.deb "$out"/q9-appliance-sim_*.deb >/dev/null 2>&1 && return 0
    if ! "$container_top/scripts/package" "$out" >"$out/package.log" 2>&1; then
        container_fail "scripts/package failed (whole log: $out/package.log)"
    fi
}

# ---- The daemon's unit in the container, seen from outside ----

unit=q9_korvane_xml_events_d.service
socket_unit=q9_korvane_xml_events_d.socket

# unit_property NAME: one property of the unit as systemctl shows it.
unit_property() {
    in_container systemctl show --property="$1" --value "$unit"
}

ctl() {
    in_container q9_korvane_xml_events_ctl "$@"
}

# The persistent media items, comma-separated ("none" when there is none).
items() {
    local list
    list=$(ctl list-pmi | sed -n 's/^item=//p' | paste -sd, -)
    echo "${list:-none}"
}

register_items() {
    local item
    for item in "$@"; do
        ctl register --target "$item" >/dev/null || return 1
    done
}

# Triggers the running daemon has handled since it started.
triggers_handled() {
    ctl status 2>/dev/null | awk '/^ *triggers handled / { print $3 }'
}

now_ms() {
    echo $(($(date +%s%N) / 1000000))
}

# wait_for_handled COUNT: until the running daemon has handled COUNT
# triggers, at most 15 s.
wait_for_handled() {
    local deadline=$(($(now_ms) + 15000))
    until [ "$(triggers_handled)" -ge "$1" ] 2>/dev/null; do
        [ "$(now_ms)" -lt "$deadline" ] || return 1
        sleep 0.05
    done
}

# wait_for_more_handled COUNT: until the running daemon has handled COUNT
# triggers more than it has now, at most 15 s.  Under the socket unit a new
# daemon first answers the triggers that waited for it, those of one kept
# connection at most 2,560 bytes per 250 ms; "now" is taken once it has
# caught up with them, when in half a second it answers no more than the
# 50 triggers that a stream of one every 10 ms sends, and a little slack.
wait_for_more_handled() {
    local before now deadline=$(($(now_ms) + 15000))
    now=$(triggers_handled)
    for (( ; ; )); do
        sleep 0.5
        before=$now
        now=$(triggers_handled)
        [ $((${now:-0} - ${before:-0})) -gt 60 ] || break
        [ "$(now_ms)" -lt "$deadline" ] || return 1
    done
    wait_for_handled $((${now:-0} + $1))
}

# wait_for_new_daemon OLD_PID SECONDS: until the unit is active with a main
# PID other than OLD_PID.
wait_for_new_daemon() {
    local deadline=$(($(now_ms) + $2 * 1000)) state
    for (( ; ; )); do
        state=$(in_container systemctl show --property=ActiveState,MainPID "$unit" | sort | paste -sd' ' -)
        case $state in
        "ActiveState=active MainPID=0" | "ActiveState=active MainPID=$1") ;;
        "ActiveState=active MainPID="*) return 0 ;;
        esac
        [ "$(now_ms)" -lt "$deadline" ] || return 1
        sleep 0.05
    done
}

# ---- The trigger stream, in the container's network namespace ----

stream_pid=

# stream_start OPTION...: q9_trigger_stream ($stream_binary, of this
# machine) in the background in the container's network namespace, where
# 127.0.0.1:9876 is the container's daemon; its summary goes to
# $container_work/stream.out.
stream_start() {
    # nsenter itself, not a subshell, is the background job: it becomes
    # the stream, which takes the window signals.
    nsenter --target "$container_leader" --net "$stream_binary" "$@" \
        >"$container_work/stream.out" 2>"$container_work/stream.err" &
    stream_pid=$!
}

# The restart window of the stream: open (the daemon is being restarted)
# or close (it is back).
stream_window() {
    case $1 in
    open) kill -USR1 "$stream_pid" ;;
    close) kill -USR2 "$stream_pid" ;;
    esac
}

stream_stop() {
    [ -n "$stream_pid" ] || return 0
    kill -TERM "$stream_pid" 2>/dev/null || true
    wait "$stream_pid" || true
    stream_pid=
}

# stream_value NAME: a line of the stream's summary.
stream_value() {
    sed -n "s/^$1=//p" "$container_work/stream.out"
}

# ---- Restarts ----

# disturb KIND: restart the daemon one way: restart (systemctl restart),
# upgrade (dpkg -i of the packages in /srv/q9-packages/next), watchdog (the
# daemon stopped with SIGSTOP until the watchdog ends it) or kill (kill -9).
disturb() {
    case $1 in
    restart) in_container systemctl restart "$unit" ;;
    upgrade) in_container sh -c 'dpkg -i /srv/q9-packages/next/*.deb' </dev/null >>"$container_work/dpkg.log" 2>&1 ;;
    watchdog) in_container systemctl kill --kill-who=main --signal=SIGSTOP "$unit" ;;
    kill) in_container systemctl kill --kill-who=main --signal=SIGKILL "$unit" ;;
    esac
}

# restart_under_stream KIND LIMIT STREAM_OPTION...: with the items
# "opening" and "closing" registered and the stream running, restarts the
# daemon by `disturb KIND` inside a window of the stream, waits up to LIMIT
# seconds for the new daemon, closes the window and ends the stream once the
# new daemon has answered triggers sent after it.  Sets restart_done (0 when the
# disturbance itself succeeded), restart_back (0 when a new daemon became
# active), restart_ms (from the disturbance to the unit active again),
# items_before, items_after; the stream's summary is in stream.out.
restart_under_stream() {
    local kind=$1 limit=$2 old begin
    shift 2
    # These tests restart the unit more often than its start limit
    # (StartLimitBurst in StartLimitIntervalSec) allows; the count starts
    # afresh for each restart.
    in_container systemctl reset-failed "$unit"
    # A daemon that does not answer shows in the stream's figures, which
    # the caller reads; the run goes on to give them.
    register_items opening closing || true
    items_before=$(items)
    old=$(unit_property MainPID)
    stream_start "$@"
    wait_for_more_handled 20 || true
    stream_window open
    begin=$(now_ms)
    restart_done=0
    disturb "$kind" || restart_done=1
    restart_back=0
    wait_for_new_daemon "$old" "$limit" || restart_back=1
    restart_ms=$(($(now_ms) - begin))
    stream_window close
    [ "$restart_back" != 0 ] || wait_for_more_handled 20 || restart_back=1
    stream_stop
    items_after=$(items)
}

# container_next_packages DIR: the packages in DIR again as the next
# version ("+next" appended), in DIR/next, for an upgrade.
container_next_packages() {
    local package version
    mkdir -p "$1/next"
    for package in "$1"/*.deb; do
        rm -rf "$1/next/tree"
        dpkg-deb -R "$package" "$1/next/tree"
        version=$(dpkg-deb -f "$package" Version)
        sed -i "s/^Version: .*/Version: $version+next/" "$1/next/tree/DEBIAN/control"
        dpkg-deb -b --root-owner-group "$1/next/tree" "$1/next/$(basename "$package" .deb)+next.deb" >/dev/null
    done
    rm -rf "$1/next/tree"
}

# Restarts by the watchdog take seconds: a drop-in of the container (never
# of the packages) shortens the packaged WatchdogSec=30.
watchdog_s=3
restart_s=$(sed -n 's/^RestartSec=//p' "$container_top/packaging/q9_korvane_xml_events_d.service.in")

# container_prepare PACKAGES BUILD: everything up to a booted container
# whose /srv/q9-packages holds the packages of PACKAGES (built there when
# empty) and, in next/, the same as a higher version; q9_trigger_stream
# built in BUILD ($stream_binary); the watchdog drop-in in place for the
# packages' first start.  Sets version (of the packages) and booted.
container_prepare() {
    local packages=$1 build=$2 work=$container_work
    echo "== the container's root ($container_cache)"
    container_root_ensure
    echo "== the packages and the trigger stream"
    mkdir "$work/packages"
    [ -n "$packages" ] || { packages=$work/built; mkdir "$packages"; }
    container_packages "$packages"
    cp "$packages"/q9-korvane-xml-events-d_*.deb "$packages"/q9-appliance-sim_*.deb "$work/packages/"
    container_next_packages "$work/packages"
    version=$(dpkg-deb -f "$work"/packages/q9-korvane-xml-events-d_*.deb Version)
    if ! { [ -f "$build/CMakeCache.txt" ] || cmake -S "$container_top" -B "$build"; } >"$work/stream-build.log" 2>&1 ||
       ! cmake --build "$build" --target q9_trigger_stream >>"$work/stream-build.log" 2>&1; then
        container_fail "cannot build q9_trigger_stream in $build: $(tail -n 1 "$work/stream-build.log")"
    fi
    stream_binary=$build/tests/container/q9_trigger_stream
    echo "== boot"
    container_boot "$work/packages"
    booted=$(date +%s)
    mkdir -p "$work/root/etc/systemd/system/$unit.d"
    printf '[Service]\nWatchdogSec=%s\n' "$watchdog_s" >"$work/root/etc/systemd/system/$unit.d/test-watchdog.conf"
}

# Installs the packages of /srv/q9-packages (not next/) in the container.
container_install() {
    in_container sh -c 'dpkg -i /srv/q9-packages/*.deb' </dev/null >>"$container_work/dpkg.log" 2>&1
}

# The configuration the restarts run with: the packaged one, whose [daemon]
# table switches wake_on_input on (a trigger every 10 ms on new connections
# is answered at once rather than four connections a pass), without its
# state file, as the classic daemon keeps no items.
restart_configuration() {
    grep -v '^state_file = ' "$container_top/packaging/q9_korvane_xml_events_d.toml"
}

# Where the packaged configuration keeps the items across restarts: the
# unit's state directory.
state_file=/var/lib/q9_korvane_xml_events_d/items

# The packaged configuration as it is, items kept in the state file.
kept_items_configuration() {
    cat "$container_top/packaging/q9_korvane_xml_events_d.toml"
}
