# To be sourced: a container that boots systemd over this machine's own file system; whatever is written in it stays
# in memory and vanishes. box_up skips (exit status 77) where the machine cannot do it, with the reason.

BOX_HIERARCHIES="/sys/fs/cgroup/systemd /sys/fs/cgroup/unified"

box_skip() {
    echo "SKIPPED: $*"
    exit 77
}

# Sets BOX (its name), BOX_ROOT (its file system, seen from here) and BOX_BUS (the address of its system bus).
box_up() {
    [ "$(id -u)" -eq 0 ] || box_skip "a container needs root"
    command -v systemd-nspawn >/dev/null || box_skip "systemd-nspawn (package systemd-container) is missing"
    local hierarchy
    for hierarchy in $BOX_HIERARCHIES; do
        [ -d "$hierarchy" ] && [ -w "$hierarchy" ] || box_skip "no writable cgroup hierarchy at $hierarchy"
    done
    # What a killed run left behind.
    find $BOX_HIERARCHIES -depth -type d -path '*/box*' -exec rmdir {} \; 2>/dev/null

    BOX=box$BASHPID BOX_WORK=$(mktemp -d)
    mkdir "$BOX_WORK/root"
    mount --bind / "$BOX_WORK/root" && mount --make-private "$BOX_WORK/root" ||
        { rm -rf "$BOX_WORK"; box_skip "the root file system cannot be bound to another place"; }
    for hierarchy in $BOX_HIERARCHIES; do mkdir -p "$hierarchy/$BOX"; done
    trap box_down EXIT
    (
        # A cgroup of its own, by which the end finds what to remove.
        for hierarchy in $BOX_HIERARCHIES; do echo $BASHPID >"$hierarchy/$BOX/cgroup.procs"; done
        exec setpriv --pdeathsig TERM systemd-nspawn -q -D "$BOX_WORK/root" --volatile=overlay --boot --register=no \
            --keep-unit --machine="$BOX" --console=read-only systemd.unit=basic.target systemd.mask=timers.target \
            systemd.mask=systemd-journal-flush.service
    ) </dev/null >"$BOX_WORK/console" 2>&1 &
    BOX_PID=$!
    for _ in $(seq 600); do
        BOX_LEADER=$(pgrep -P $BOX_PID | head -1)
        BOX_ROOT=/proc/$BOX_LEADER/root
        BOX_BUS=unix:path=$BOX_ROOT/run/dbus/system_bus_socket
        if [ -n "$BOX_LEADER" ] && [ -S "$BOX_ROOT/run/dbus/system_bus_socket" ] &&
            box systemctl -q is-system-running 2>/dev/null; then
            return 0
        fi
        kill -0 $BOX_PID 2>/dev/null || break
        sleep 0.05
    done
    tail -5 "$BOX_WORK/console"
    box_skip "systemd did not boot in the container"
}

# Runs a command inside.
box() { nsenter -t "$BOX_LEADER" -m -u -i -n -p -C -- env -u DBUS_SYSTEM_BUS_ADDRESS "$@"; }

box_down() {
    trap - EXIT
    [ -n "${BOX_LEADER:-}" ] && kill -KILL "$BOX_LEADER" 2>/dev/null
    kill -TERM $BOX_PID 2>/dev/null
    wait $BOX_PID 2>/dev/null
    local hierarchy
    for hierarchy in $BOX_HIERARCHIES; do
        find "$hierarchy/$BOX" -depth -type d -exec rmdir {} \; 2>/dev/null
    done
    umount "$BOX_WORK/root"
    rmdir "/run/systemd/nspawn/propagate/$BOX" 2>/dev/null
    rm -f "$BOX_WORK/console"
    rmdir "$BOX_WORK/root" "$BOX_WORK"
}
