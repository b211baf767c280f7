#!/bin/bash
# The example extension under a real systemd, with the unit, user and bus policy that it ships.
#   thermostat_test.sh BUILD_FOLDER TEST_FOLDER CASE      CASE: supervision, pool-hang or control-hang
set -u
build=$1
. "$2/box.sh"
. "$2/checks.sh"
unit=tern-thermostat name=com.example.Thermostat path=/com/example/Thermostat interface=com.example.Thermostat1
property() { box systemctl show "$unit" -p "$1" --value; }
call() { box busctl --system call $name $path $interface "$@"; }
trial() { call Trial s "$1" >/dev/null 2>&1; }
answers() { box busctl --system get-property $name $path $interface Target >/dev/null 2>&1; }

# A start after the one that has this invocation id.
is_new_start() { [ "$(property InvocationID)" != "$1" ] && [ "$(property SubState)" = running ] && answers; }
# recovers WHAT SECONDS RESULT_PATTERN COMMAND...: the command breaks the service; systemd restarts it within the time
# and its journal tells the result.
recovers() {
    local what=$1 seconds=$2 pattern=$3 former
    shift 3
    wait_for 10 answers || { fail "$what: no service to begin with"; return; }
    box systemctl reset-failed $unit
    former=$(property InvocationID)
    "$@"
    if ! wait_for "$seconds" is_new_start "$former"; then
        fail "$what: not restarted within $seconds s"
        box journalctl -u $unit --no-pager -n 20
        return
    fi
    # Of that run, as systemd saw its end.
    if box journalctl --no-pager -o cat _SYSTEMD_INVOCATION_ID="$former" + INVOCATION_ID="$former" | grep -qE -- "$pattern"; then
        ok "$what: restarted"
    else
        fail "$what: restarted, but the journal has nothing like '$pattern'"
        box journalctl --no-pager -o cat _SYSTEMD_INVOCATION_ID="$former" + INVOCATION_ID="$former" | tail -15
    fi
}

stage=$(mktemp -d)
DESTDIR=$stage cmake --install "$build" --prefix /usr >/dev/null || { echo "FAILED: nothing to install"; exit 1; }
box_up
cp -a "$stage/usr/." "$BOX_ROOT/usr/"
cp -a "$stage/etc/." "$BOX_ROOT/etc/"
rm -rf "$stage"
box ldconfig
box systemd-sysusers 2>/dev/null
mkdir -p "$BOX_ROOT/etc/systemd/system/$unit.service.d"
# As shipped, but for times: the test cannot wait for the long ones. Where another than systemd is to end it, a busy machine's
# pauses are not to do so.
watchdog=2
[ "$3" = supervision ] || watchdog=30
cat >"$BOX_ROOT/etc/systemd/system/$unit.service.d/test.conf" <<INI
[Service]
WatchdogSec=$watchdog
RestartSec=100ms
RestartSteps=0
INI
printf 'target=20\nsampling_ms=20\ndebug=1\n' >"$BOX_ROOT/etc/tern-thermostat.ini"
box systemctl daemon-reload

case $3 in
pool-hang | control-hang)
    box systemctl start $unit || fail "start"
    recovers "hang of the ${3%-hang} worker" 200 'Thread .* is blocked, send kill on PID|status=9/KILL' trial "hang-${3%-hang}"
    ;;
supervision)
    box systemctl start $unit || { fail "start"; box journalctl -u $unit --no-pager -n 30; }
    is "started only after READY=1" "active running" "$(property ActiveState) $(property SubState)"
    answers && ok "answers at once" || fail "answers at once"
    is "runs as its own user" tern-thermostat "$(property User)"

    sleep 5  # two and a half watchdog periods without any call
    is "watchdog fed while idle" 0 "$(property NRestarts)"
    ended=$((SECONDS + 5))
    while [ $SECONDS -lt $ended ]; do answers; done
    is "watchdog fed under load" 0 "$(property NRestarts)"

    recovers "hang of the D-Bus thread" 15 'Watchdog timeout|status=6/ABRT' trial hang-bus
    recovers "failure of a worker" 10 'status=1/FAILURE' trial fail-control
    recovers "exit 3" 10 'status=3' trial exit
    recovers "SIGKILL" 10 'status=9/KILL' box systemctl kill -s KILL --kill-who=main $unit
    recovers "dead bus" 20 'sd_event_loop exited with -104|status=1/FAILURE' box systemctl kill -s KILL --kill-who=main dbus

    wait_for 10 answers
    began=$(date +%s%N)
    box systemctl stop $unit
    took=$((($(date +%s%N) - began) / 1000000))
    [ $took -lt 2000 ] && ok "stop took $took ms" || fail "stop took $took ms"
    is "stopped in order" "inactive success" "$(property ActiveState) $(property Result)"
    is "exit status of the stop" 0 "$(property ExecMainStatus)"

    # A worker that does not stop: the stopping status text stays visible until systemd's patience ends.
    box systemctl start $unit
    trial hang-pool
    box systemctl stop --no-block $unit
    is_stopping() { [ "$(property StatusText)" = "Stopping the workers" ] && [ "$(property SubState)" = stop-sigterm ]; }
    wait_for 5 is_stopping && ok "stopping status text visible" || fail "stopping status text: $(property StatusText)"
    is_over() { [ "$(property ActiveState)" = failed ]; }
    wait_for 15 is_over && is "ended at the unit's time limit" timeout "$(property Result)" || fail "not ended"
    box systemctl reset-failed $unit

    # The answer may come before systemd has read READY=1.
    is_running() { [ "$(property SubState)" = running ]; }
    answers && wait_for 10 is_running && ok "started by its first call on the bus" || fail "D-Bus activation: $(property SubState)"

    box useradd --system --no-create-home member 2>/dev/null
    box usermod -aG tern-thermostat member
    box useradd --system --no-create-home stranger 2>/dev/null
    box systemctl reload dbus
    box setpriv --reuid member --regid member --init-groups thermostatctl set 21 && ok "a member of the group may call" ||
        fail "a member of the group may call"
    if refused=$(box setpriv --reuid stranger --regid stranger --init-groups busctl --system get-property $name $path \
        $interface Target 2>&1); then
        fail "another user may not call: $refused"
    else
        grep -qi 'denied' <<<"$refused" && ok "another user is refused" || fail "another user: $refused"
    fi
    refused=$(box setpriv --reuid stranger --regid stranger --init-groups thermostatctl set 21 2>&1)
    is "thermostatctl says why" "thermostatctl: cannot set the target: the bus's policy refuses it: root and members of the group tern-thermostat may" "$refused"
    refused=$(box setpriv --reuid stranger --regid stranger --init-groups busctl --system call org.freedesktop.DBus \
        /org/freedesktop/DBus org.freedesktop.DBus RequestName su com.example.Thermostat 0 2>&1)
    grep -qiE 'not allowed to own|denied' <<<"$refused" && ok "another user may not be the thermostat" ||
        fail "another user may not be the thermostat: $refused"
    ;;
*)
    fail "no case '$3'"
    ;;
esac
echo "$failures failures"
[ $failures -eq 0 ]
