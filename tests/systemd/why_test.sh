#!/bin/bash
# How a life ended, told by the next one: for each kind of end, under a real systemd, in one container. What ternctl
# shows and what the journal has first of the new life are the same, and true.
#   why_test.sh BUILD_FOLDER TEST_FOLDER
set -u
build=$1
. "$2/box.sh"
. "$2/checks.sh"
path=/com/example/Thermostat interface=com.example.Thermostat1 name=com.example.Thermostat

# There are two thermostats, each on a bus of its own: one of them takes two minutes for one of its ends.
unit=tern-thermostat bus=unix:path=/run/dbus/system_bus_socket
on_bus() { box timeout 30 env DBUS_SYSTEM_BUS_ADDRESS=$bus "$@"; }
property() { box systemctl show "$unit" -p "$1" --value; }
trial() { on_bus busctl --system call $name $path $interface Trial s "$1" >/dev/null 2>&1; }
answers() { on_bus busctl --system get-property $name $path $interface Target >/dev/null 2>&1; }
is_new_start() { [ "$(property InvocationID)" != "$1" ] && [ "$(property SubState)" = running ] && answers; }
# The program's messages of the life that runs, in their order, without the threads' numbers.
messages() {
    box journalctl --sync
    box journalctl --no-pager -o cat -t tern-thermostat "_SYSTEMD_INVOCATION_ID=$(property InvocationID)" | sed 's/^\[[0-9]*\]//'
}

# tells WHAT KIND PATTERN...: the life that runs says so of its former one: to who asks, and at its beginning. KIND may be
# two, as "cut-off|hanging".
tells() {
    local what=$1 kinds=$2 kind why logged sentence count
    shift 2
    why=$(on_bus ternctl why --json $name 2>&1)
    mapfile -t sentences < <(python3 -c 'import json, sys; print(*json.load(sys.stdin)["Sentences"], sep="\n")' <<<"$why")
    kind=$(python3 -c 'import json, sys; print(json.load(sys.stdin)["Ended"])' <<<"$why")
    if [[ "|$kinds|" == *"|$kind|"* ]]; then ok "$what: kind"; else fail "$what: kind: '$kind' instead of '$kinds'"; fi
    for sentence in "$@"; do
        if grep -qE -- "$sentence" < <(printf '%s\n' "${sentences[@]}"); then ok "$what: $sentence"; else
            fail "$what: nothing like '$sentence' in:"
            printf '    %s\n' "${sentences[@]}"
        fi
    done
    logged=$(messages)
    count=$((${#sentences[@]} < 5 ? ${#sentences[@]} : 5))
    is "$what: the first lines of the journal" \
        "$(printf '[Diagnostics] Former life: %s\n' "${sentences[@]:0:count}")" "$(head -$count <<<"$logged")"
    is "$what: no more lines than five" "$count" "$(grep -c 'Former life: ' <<<"$logged")"
    is "$what: one descriptor is kept" 1 "$(property NFileDescriptorStore)"
    on_bus ternctl why $name | sed 's/^/    /'
}
# ends WHAT SECONDS KIND PATTERN... -- COMMAND...: the command ends the life; the next one comes within the time and tells.
ends() {
    local what=$1 seconds=$2 former
    shift 2
    local expected=()
    while [ "$1" != -- ]; do
        expected+=("$1")
        shift
    done
    shift
    wait_for 10 answers || { fail "$what: no service to begin with"; return; }
    box systemctl reset-failed $unit
    former=$(property InvocationID)
    "$@"
    if ! wait_for "$seconds" is_new_start "$former"; then
        fail "$what: not restarted within $seconds s"
        box journalctl -u $unit --no-pager -n 20
        return
    fi
    tells "$what" "${expected[@]}"
}

stage=$(mktemp -d)
for component in runtime typed diagnostics ternctl thermostat; do
    DESTDIR=$stage cmake --install "$build" --prefix /usr --component $component >/dev/null ||
        { echo "FAILED: nothing to install"; exit 1; }
done
box_up
cp -a "$stage/usr/." "$BOX_ROOT/usr/"
cp -a "$stage/etc/." "$BOX_ROOT/etc/"
rm -rf "$stage"
box ldconfig
box systemd-sysusers 2>/dev/null
units=$BOX_ROOT/etc/systemd/system
mkdir -p "$units/$unit.service.d"
# As shipped, but for times: the test cannot wait for the long ones.
cat >"$units/$unit.service.d/test.conf" <<INI
[Service]
WatchdogSec=2
RestartSec=100ms
RestartSteps=0
INI
printf 'target=20\nsampling_ms=20\ndebug=1\n' >"$BOX_ROOT/etc/tern-thermostat.ini"
sed -e '/^BusName=/d' -e 's/^StateDirectory=.*/StateDirectory=second/' -e 's/^LogsDirectory=.*/LogsDirectory=second/' \
    -e 's!^ExecStart=.*!ExecStart=/usr/libexec/tern-thermostat /etc/second.ini!' \
    -e 's!^\[Service\]!&\nEnvironment=DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/second-bus!' \
    "$BOX_ROOT/usr/lib/systemd/system/$unit.service" >"$units/second.service"
cp -r "$units/$unit.service.d" "$units/second.service.d"
# Its job hangs for two minutes, in which a busy machine's pauses are not to end it.
sed -i 's/^WatchdogSec=.*/WatchdogSec=30/' "$units/second.service.d/test.conf"
printf 'target=20\nsampling_ms=20\ndebug=1\nstate_folder=/var/lib/second\nlog_folder=/var/log/second\n' >"$BOX_ROOT/etc/second.ini"
cat >"$BOX_ROOT/etc/second-bus.conf" <<XML
<busconfig><listen>unix:path=/run/second-bus</listen><policy context="default"><allow user="*"/><allow own="*"/>
  <allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/></policy></busconfig>
XML
cat >"$units/second-bus.service" <<INI
[Service]
ExecStart=/usr/bin/dbus-daemon --config-file=/etc/second-bus.conf --nofork --nopidfile
INI
box systemctl daemon-reload
second() {
    local unit=second bus=unix:path=/run/second-bus
    "$@"
}

box systemctl start second-bus
wait_for 10 test -S "$BOX_ROOT/run/second-bus" || fail "the second bus"
box systemctl start second || { fail "start of the second thermostat"; box journalctl -u second --no-pager -n 30; exit 1; }
hung=$(second property InvocationID)
second trial hang-pool

box systemctl start $unit || { fail "start"; box journalctl -u $unit --no-pager -n 30; exit 1; }
answers || fail "no answer"
is "the first life knows of none" none "$(on_bus ternctl why --json $name | python3 -c 'import json, sys; print(json.load(sys.stdin)["Ended"])')"
is "the first life says nothing" 0 "$(messages | grep -c 'Former life')"

times='Process [0-9]+ \(tern-thermostat\) was last heard of at 20[0-9-]+ [0-9:]+ UTC, [0-9.]+ s after its start'
ends "orderly stop" 10 stopped '^It stopped in order\.$' \
    '^Process [0-9]+ \(tern-thermostat\) ended at 20[0-9-]+ [0-9:]+ UTC, [0-9.]+ s after its start\.$' \
    -- box systemctl restart $unit
ends "SIGKILL from outside" 10 cut-off '^It just ended, without a word' "^$times" \
    -- box systemctl kill -s KILL --kill-who=main $unit
# A restart that takes longer than half of the watchdog's two seconds, as on a busy machine, leaves open whether the handler hung.
ends "abort in a handler" 10 'cut-off|hanging' '^It just ended, without a word|, for 0\.[0-9]+ s at least and ' \
    "[Tt]he D-Bus thread was in the handler of '$interface\.Trial'" "^$times" -- trial abort
ends "exit in a handler" 10 'cut-off|hanging' "[Tt]he D-Bus thread was in the handler of '$interface\.Trial'" -- trial exit
ends "exception in a job of the pool" 10 exception \
    "^An exception ended it: std::runtime_error: the trial of a failing job, in the thread '.*'; the watched thread 'ThreadPool::Thread[01]' was in a job of a thread pool\.$" \
    -- trial fail-pool
ends "exception in a component" 10 exception \
    "^An exception ended it: the trial of a failing control loop, in the thread 'control'\.$" \
    'caught exception \[the trial of a failing control loop\], restart the extension$' \
    -- trial fail-control
ends "hang of the D-Bus thread" 20 hanging "^The D-Bus thread was in the handler of '$interface\.Trial' when it ended, for [12]\.[0-9] s at least and [1-5]\.[0-9] s at most\.$" \
    -- trial hang-bus
ends "dead bus" 20 lost-bus '^It lost its connection to the bus, and ended itself for that\.$' \
    -- box systemctl kill -s KILL --kill-who=main dbus
ends "hang of a component" 60 blocked \
    "^The watcher killed it, as the watched thread 'control' had not reported for 2[0-9]\.[0-9] s; it had been in a run of the component 'control' for 2[0-9]\.[0-9] s\.$" \
    -- trial hang-control
ends "orderly stop after a failure" 20 stopped '^It stopped in order\.$' -- box systemctl restart $unit
hold_up() {
    trial hang-pool
    box systemctl restart $unit
}
ends "stop that a job holds up" 40 hanging \
    '^It had not finished its stop when it ended, after [0-9.]+ s at least and ([5-9]|1[0-9])\.[0-9] s at most\.$' \
    "^When it was last heard of, the watched thread 'ThreadPool::Thread[01]' was in a job of a thread pool\.$" \
    -- hold_up

lives=$(on_bus ternctl why --json $name | python3 -c 'import json, sys; print(json.load(sys.stdin)["Restarts"])')
is "it counts its lives" 11 "$lives"
[ "$(on_bus ternctl list | grep -c "^$name ")" -eq 1 ] && ok "it is in the list" || fail "not in the list: $(on_bus ternctl list 2>&1)"

# The store is kept over a restart, not over a stop.
box systemctl stop $unit
box systemctl start $unit
wait_for 10 answers
is "after a stop nothing is known" none "$(on_bus ternctl why --json $name | python3 -c 'import json, sys; print(json.load(sys.stdin)["Ended"])')"

# Whom the bus's policy lets through is not let look inside.
box useradd --system --no-create-home member 2>/dev/null
box usermod -aG tern-thermostat member
box systemctl reload dbus
box setpriv --reuid member --regid member --init-groups thermostatctl set 21 || fail "a member of the group may not call"
refused=$(box setpriv --reuid member --regid member --init-groups ternctl why $name 2>&1)
status=$?
[ $status -eq 1 ] && ok "a member of the group is refused: $refused" || fail "a member of the group: status $status, $refused"
box setpriv --reuid tern-thermostat --regid tern-thermostat --init-groups ternctl why $name >/dev/null &&
    ok "the service's own user is not" || fail "the service's own user is refused"

if second wait_for 170 is_new_start "$hung"; then
    second tells "hang of a pool job" blocked \
        "^The watcher killed it, as the watched thread 'ThreadPool::Thread[01]' had not reported for 2 min [0-9]+ s; it had been in a job of a thread pool for 2 min [0-9]+ s\.$"
else
    fail "hang of a pool job: not restarted"
    box journalctl -u second --no-pager -n 20
fi
echo "$failures failures"
[ $failures -eq 0 ]
