#!/bin/bash
# The thermostat's client against the extension on a private bus: every command, wrong use, refusals, no bus.
#   thermostatctl_test.sh FOLDER_OF_THE_PROGRAMS
set -u
programs=$1
work=$(mktemp -d)
bus_pid="" service_pid=""
failures=0

cleanup() {
    for pid in $service_pid $bus_pid; do
        kill "$pid" 2>/dev/null
        wait "$pid" 2>/dev/null
    done
    rm -rf "$work"
}
trap cleanup EXIT

wait_for() {
    for _ in $(seq 600); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.05
    done
    echo "did not happen: $*"
    exit 1
}

# check NAME STATUS PATTERN ARGUMENT...: exit status and whole output (both streams) of thermostatctl.
check() {
    local name=$1 expected=$2 pattern=$3 output status
    shift 3
    output=$("$programs/thermostatctl" "$@" 2>&1)
    status=$?
    if [ "$status" -ne "$expected" ] || ! [[ $output =~ ^$pattern$ ]]; then
        printf 'FAILED %s: status %s instead of %s, output:\n%s\nwhere this was expected:\n%s\n' \
            "$name" "$status" "$expected" "$output" "$pattern"
        failures=$((failures + 1))
    else
        echo "ok $name"
    fi
}
hint=$'\n'"Try 'thermostatctl --help'."

export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/bus
check "no command" 2 "thermostatctl: no command$hint"
check "unknown command" 2 "thermostatctl: unknown command 'dance'$hint" dance
check "set without degrees" 2 "thermostatctl: 'set' takes one argument$hint" set
check "list with an argument" 2 "thermostatctl: 'list' takes no argument$hint" list all
check "set nonsense" 2 "thermostatctl: '20x' is not a temperature$hint" set 20x
check "set infinity" 2 "thermostatctl: 'inf' is not a temperature$hint" set inf
check "boost a fraction" 2 "thermostatctl: '1.5' is not a number of seconds$hint" boost 1.5
check "boost a negative time" 2 "thermostatctl: '-1' is not a number of seconds$hint" boost -1
check "help" 0 'Usage: thermostatctl COMMAND.*show.*watch.*Exit status.*' --help
check "list without a bus" 1 'thermostatctl: cannot list the services of the bus: NotFound' list
check "show without a bus" 1 "thermostatctl: cannot read the thermostat's properties: NotFound" show
check "set without a bus" 1 'thermostatctl: cannot set the target: NotFound' set 20
check "watch without a bus" 1 'thermostatctl: cannot watch the thermostat: NotFound' watch

cat >"$work/bus.conf" <<XML
<busconfig><listen>unix:path=$work/bus</listen>
  <policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/></policy></busconfig>
XML
dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile --nosyslog 2>/dev/null &
bus_pid=$!
wait_for test -S "$work/bus"
check "list without the service" 0 '' list
check "show without the service" 1 "thermostatctl: cannot read the thermostat's properties: [A-Za-z0-9()]+" show

printf 'state_folder=%s\nlog_folder=%s\n' "$work/state" "$work/log" >"$work/settings.ini"
"$programs/tern-thermostat" "$work/settings.ini" 2>"$work/service.log" &
service_pid=$!
wait_for "$programs/thermostatctl" show
check "list" 0 'com\.example\.Thermostat' list
check "show" 0 $'Heating +(yes|no)\nTarget +20\\.00\nTemperature +[0-9.]+' show
check "set" 0 '' set 21.5
check "show after set" 0 $'Heating +(yes|no)\nTarget +21\\.50\nTemperature +[0-9.]+' show
check "set too much" 1 'thermostatctl: cannot set the target: the target has to be between 5 and 30 degrees' set 99
check "boost" 0 '' boost 1
check "boost too long" 1 'thermostatctl: cannot boost: 7200 seconds are more than an hour' boost 7200

check "export without a password" 1 'thermostatctl: cannot export the log: the log is exported only with a password' export ''
check "export" 0 "$work/state/log.zip" export secret
wait_for test -s "$work/state/log.zip"
if 7z t -psecret "$work/state/log.zip" 2>&1 | grep -q 'Everything is Ok' &&
    ! 7z t -pwrong "$work/state/log.zip" >/dev/null 2>&1; then
    echo "ok the archive opens with the password only"
else
    echo "FAILED the archive"
    failures=$((failures + 1))
fi
[ "$(cat "$work/state/target")" = 21.500000 ] && echo "ok target stored" ||
    { echo "FAILED target not stored"; failures=$((failures + 1)); }

"$programs/thermostatctl" watch >"$work/watch" 2>&1 &
watch_pid=$!
wait_for grep -q '^measured' "$work/watch"
wait_for grep -q '^Temperature' "$work/watch"
"$programs/thermostatctl" set 22
wait_for grep -qE '^Target +22' "$work/watch"
kill -INT "$watch_pid"
wait "$watch_pid"
status=$?
[ "$status" -eq 0 ] && echo "ok watch until interrupted" || { echo "FAILED watch: $status"; failures=$((failures + 1)); }

"$programs/thermostatctl" watch >"$work/watch" 2>&1 &
watch_pid=$!
wait_for grep -q '^measured' "$work/watch"
kill -KILL "$bus_pid"
wait "$bus_pid" 2>/dev/null
bus_pid=""
wait "$watch_pid"
status=$?
if [ "$status" -eq 1 ] && grep -q '^thermostatctl: cannot watch the thermostat: Failure$' "$work/watch"; then
    echo "ok watch when the bus goes"
else
    echo "FAILED watch when the bus goes: $status"
    failures=$((failures + 1))
fi
# The extension fails with it, so that it would be restarted.
wait "$service_pid"
status=$?
service_pid=""
[ "$status" -eq 1 ] && echo "ok the extension fails with the bus" || { echo "FAILED extension: $status"; failures=$((failures + 1)); }

if grep -E 'ERROR: |WARNING: ThreadSanitizer|runtime error' "$work/service.log"; then
    failures=$((failures + 1))
fi
echo "$failures failures"
[ "$failures" -eq 0 ]
