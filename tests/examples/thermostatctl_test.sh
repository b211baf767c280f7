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
check "export with a password among the arguments" 2 "thermostatctl: 'export' takes no argument$hint" export secret
check "set nonsense" 2 "thermostatctl: '20x' is not a temperature$hint" set 20x
check "set infinity" 2 "thermostatctl: 'inf' is not a temperature$hint" set inf
check "boost a fraction" 2 "thermostatctl: '1.5' is not a number of seconds$hint" boost 1.5
check "boost a negative time" 2 "thermostatctl: '-1' is not a number of seconds$hint" boost -1
check "help" 0 'Usage: thermostatctl COMMAND.*show.*watch.*Exit status.*' --help
no_bus='there is no system bus: is dbus running, is DBUS_SYSTEM_BUS_ADDRESS right\?'
check "list without a bus" 1 "thermostatctl: cannot list the services of the bus: $no_bus" list
check "show without a bus" 1 "thermostatctl: cannot read the thermostat's properties: $no_bus" show
check "set without a bus" 1 "thermostatctl: cannot set the target: $no_bus" set 20
check "watch without a bus" 1 "thermostatctl: cannot watch the thermostat: $no_bus" watch

# refuses_to_start WHAT PATTERN: the extension ends with status 1 and says what a person can act on.
refuses_to_start() {
    local status
    timeout 20 "$programs/tern-thermostat" "$work/settings.ini" 2>"$work/refused.log"
    status=$?
    if [ "$status" -eq 1 ] && grep -qE -- "$2" "$work/refused.log"; then
        echo "ok $1"
    else
        echo "FAILED $1: status $status, log without '$2':"
        cat "$work/refused.log"
        failures=$((failures + 1))
    fi
}
with_settings() { printf '%s\n' "$@" >"$work/settings.ini"; }
with_settings target=20 sampling_ms=5
refuses_to_start "a setting out of range" "settings\.ini:2: 'sampling_ms' is '5' and has to be a whole number from 10 to 1000"
with_settings target=20 target=warm
refuses_to_start "a setting that is no number" "settings\.ini:2: 'target' is 'warm' and has to be a number from 5 to 30"
with_settings colour=red
refuses_to_start "an unknown setting" "settings\.ini:1: there is no setting 'colour', only target, sampling_ms"
with_settings state_folder=state
refuses_to_start "a relative folder" "settings\.ini:1: 'state_folder' is 'state' and has to be an absolute path"
rm "$work/settings.ini"
refuses_to_start "no settings" 'settings\.ini cannot be read: NotFound'
with_settings "state_folder=$work/state" "log_folder=$work/log"
refuses_to_start "no bus" 'There is no system bus: is dbus running\?'
[ ! -e "$work/state" ] && [ ! -e "$work/log" ] && echo "ok a start without a bus touches no folder" ||
    { echo "FAILED folders made without a bus"; failures=$((failures + 1)); }

# start_bus [RULE]: with a rule of its policy besides the ones that allow everything.
start_bus() {
    cat >"$work/bus.conf" <<XML
<busconfig><listen>unix:path=$work/bus</listen>
  <policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>${1:-}</policy></busconfig>
XML
    dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile --nosyslog --print-address >"$work/address" 2>/dev/null &
    bus_pid=$!
    # Told when it listens; the socket is there before.
    wait_for test -s "$work/address"
}
start_bus '<deny own="com.example.Thermostat"/>'
refuses_to_start "the name refused by the policy" \
    "The bus's policy refuses the name com\.example\.Thermostat: is com\.example\.Thermostat\.conf installed"
kill "$bus_pid"
wait "$bus_pid"
start_bus
check "list without the service" 0 '' list
not_running='the thermostat is not running, and the bus does not know how to start it'
check "show without the service" 1 "thermostatctl: cannot read the thermostat's properties: $not_running" show
check "set without the service" 1 "thermostatctl: cannot set the target: $not_running" set 20

with_settings "state_folder=$work/missing/state" "log_folder=$work/log"
refuses_to_start "no folder for the state" "The folder of the target, $work/missing/state, cannot be used: NotFound"

mkdir "$work/log"
echo 17.5,0 >"$work/log/measurements.csv"
with_settings "state_folder=$work/state" "log_folder=$work/log" sampling_ms=1000
"$programs/tern-thermostat" "$work/settings.ini" 2>"$work/service.log" &
service_pid=$!
wait_for "$programs/thermostatctl" show
# With a second between measurements the first answers come before the first of them.
check "a temperature before the first measurement" 0 $'.*Temperature +1[0-9]\\.[0-9]+' show
kill "$service_pid"
wait "$service_pid"
with_settings "state_folder=$work/state" "log_folder=$work/log"
"$programs/tern-thermostat" "$work/settings.ini" 2>"$work/service.log" &
service_pid=$!
wait_for "$programs/thermostatctl" show
refuses_to_start "the name taken" 'The name com\.example\.Thermostat is taken: another instance is running'
refuses_to_start "the name taken again" 'The name com\.example\.Thermostat is taken: another instance is running'
if [ "$(head -1 "$work/log/measurements.csv")" = 17.5,0 ] && [ ! -e "$work/log/measurements.1.csv" ]; then
    echo "ok measurements survive a restart and two failed starts"
else
    echo "FAILED measurements were rotated away"
    ls -l "$work/log"
    failures=$((failures + 1))
fi
check "list" 0 'com\.example\.Thermostat' list
check "show" 0 $'Heating +(yes|no)\nTarget +20\\.00\nTemperature +[0-9.]+' show
check "set" 0 '' set 21.5
check "show after set" 0 $'Heating +(yes|no)\nTarget +21\\.50\nTemperature +[0-9.]+' show
check "set too much" 1 'thermostatctl: cannot set the target: the target has to be between 5 and 30 degrees' set 99
check "boost" 0 '' boost 1
check "boost too long" 1 'thermostatctl: cannot boost: 7200 seconds are more than an hour' boost 7200

check "export without a password" 1 'thermostatctl: cannot export the log: no password on standard input' export </dev/null
check "export with an empty password" 1 'thermostatctl: cannot export the log: no password on standard input' export <<<''
check "export" 0 "$work/state/log.zip" export <<<secret
# The reply came when the archive was complete: nothing is waited for here.
if 7z t -psecret "$work/state/log.zip" 2>&1 | grep -q 'Everything is Ok' &&
    ! 7z t -pwrong "$work/state/log.zip" >/dev/null 2>&1; then
    echo "ok the archive opens with the password only"
else
    echo "FAILED the archive"
    failures=$((failures + 1))
fi
# Many at once: each caller hears that its own archive is complete, or that another one is being written.
exports=""
for number in $(seq 8); do
    "$programs/thermostatctl" export <<<"secret$number" >"$work/export.$number" 2>&1 &
    exports="$exports $!"
done
done_exports=0
for pid in $exports; do wait "$pid" && done_exports=$((done_exports + 1)); done
told=$(cat "$work"/export.? | grep -cE "^$work/state/log\.zip$|^thermostatctl: cannot export the log: an export is running already, try again when it is done$")
[ "$done_exports" -ge 1 ] && [ "$told" -eq 8 ] && echo "ok exports at the same time: $done_exports done, the others told" ||
    { echo "FAILED exports at the same time: $done_exports done, $told told"; cat "$work"/export.?; failures=$((failures + 1)); }

mv "$work/state" "$work/away"
check "export that fails" 1 "thermostatctl: cannot export the log: the archive $work/state/log.zip could not be written: [A-Za-z]+" export <<<secret
check "set that cannot be stored" 1 'thermostatctl: cannot set the target: the target could not be stored' set 25
mv "$work/away" "$work/state"
check "show after a target that was not stored" 0 $'.*Target +21\\.50\n.*' show

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

# The library's messages in the same pipe keep SIGPIPE from ending it.
for stream in quiet with-messages; do
    level=critical
    [ $stream = quiet ] || level=debug
    TERN_LOG_LEVEL=$level timeout 20 "$programs/thermostatctl" watch 2>&1 | head -n 1 >"$work/watch"
    status=${PIPESTATUS[0]}
    [ "$status" -ne 0 ] && [ "$status" -ne 124 ] && echo "ok watch ends with its reader, $stream" ||
        { echo "FAILED watch without a reader, $stream: $status"; failures=$((failures + 1)); }
done
# Success would be a lie where nothing has arrived.
for command in --help list show watch export; do
    output=$(timeout 20 "$programs/thermostatctl" $command <<<secret 2>&1 >/dev/full)
    status=$?
    [ "$status" -eq 1 ] && [ "$output" = "thermostatctl: cannot write the output: No space left on device" ] &&
        echo "ok $command to a full disk" ||
        { echo "FAILED $command to a full disk: $status, '$output'"; failures=$((failures + 1)); }
done

"$programs/thermostatctl" watch >"$work/watch" 2>&1 &
watch_pid=$!
wait_for grep -q '^measured' "$work/watch"
kill -KILL "$bus_pid"
wait "$bus_pid" 2>/dev/null
bus_pid=""
wait "$watch_pid"
status=$?
if [ "$status" -eq 1 ] && grep -qE "^thermostatctl: cannot watch the thermostat: $no_bus\$" "$work/watch"; then
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
