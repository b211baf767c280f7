#!/bin/bash
# The client prints the host name that systemd's hostnamed tells on a private bus, and each new one. Where it may, hostnamed has a
# host name and an /etc/hostname of its own, so that the machine keeps its name; else names are only read.
#   hostname_client_test.sh PROGRAM
set -u
program=$1
hostnamed=/lib/systemd/systemd-hostnamed
[ -x "$hostnamed" ] || { echo "skipped: there is no $hostnamed"; exit 77; }
command -v dbus-daemon busctl >/dev/null || { echo "skipped: no dbus-daemon, or no busctl"; exit 77; }
work=$(mktemp -d)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null
        wait "$pid" 2>/dev/null
    done
    rm -rf "$work"
}
trap cleanup EXIT
failures=0
ok() { echo "ok $*"; }
fail() {
    echo "FAILED $*"
    head -50 "$work"/*.log "$work/said"
    failures=$((failures + 1))
}
# wait_for COMMAND...: 30 s at most.
wait_for() {
    for _ in $(seq 600); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.05
    done
    return 1
}

export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/bus
cat >"$work/bus.conf" <<XML
<busconfig><listen>$DBUS_SYSTEM_BUS_ADDRESS</listen>
  <policy context="default"><allow user="*"/><allow own="*"/><allow send_type="method_call"/><allow send_type="signal"/>
    <allow send_type="method_return"/><allow send_type="error"/><allow receive_type="*"/></policy></busconfig>
XML
dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile --nosyslog 2>"$work/bus.log" &
pids+=($!)
wait_for test -S "$work/bus" || { fail "no bus"; exit 1; }

touch "$work/hostname"
apart=(unshare --uts --mount sh -c "mount --bind '$work/hostname' /etc/hostname && exec \"\$@\"" -)
may_change=yes
"${apart[@]}" true 2>"$work/apart.log" || { may_change=no apart=(); }

: >"$work/said"
"$program" >"$work/said" 2>"$work/client.log" &
client=$!
pids+=($client)
wait_for busctl --system status com.example.HostnameClient || fail "the client is not on the bus"
# It came first: it hears of hostnamed when that appears.
"${apart[@]}" "$hostnamed" 2>"$work/hostnamed.log" &
pids+=($!)
wait_for grep -qx "$(hostname)" "$work/said" && ok "the host name is printed" || fail "the host name is not printed"

if [ $may_change = yes ]; then
    set_name() {
        busctl --system call org.freedesktop.hostname1 /org/freedesktop/hostname1 org.freedesktop.hostname1 SetHostname sb "$1" false
    }
    before=$(hostname)
    set_name kitchen >"$work/set.log" 2>&1 || fail "the name cannot be set"
    wait_for grep -qx kitchen "$work/said" && ok "a new name is printed" || fail "a new name is not printed"
    set_name cellar >"$work/set.log" 2>&1 || fail "the name cannot be set again"
    wait_for grep -qx cellar "$work/said" && ok "the next one, too" || fail "the next name is not printed"
    [ "$(tr '\n' ' ' <"$work/said")" = "$before kitchen cellar " ] && ok "each once" || fail "printed: $(cat "$work/said")"
    [ "$(hostname)" = "$before" ] && ok "the machine keeps its name" || fail "the machine is called $(hostname) now"
else
    echo "not tested: new names, as this user may not have a host name of its own"
fi

kill -TERM $client
wait $client
status=$?
[ $status -eq 0 ] && ok "ended in order" || fail "ended with $status"
echo "$failures failures"
[ "$failures" -eq 0 ]
