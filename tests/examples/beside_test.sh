#!/bin/bash
# The four programs of docs/beside-other-libraries.md do the same: each is started on a private bus, called and stopped.
#   beside_test.sh FOLDER      FOLDER holds the programs; one that was not built is skipped, the one on this library is needed
set -u
programs=$1
work=$(mktemp -d)
bus_pid="" service_pid=""
cleanup() {
    for pid in $service_pid $bus_pid; do kill -KILL "$pid" 2>/dev/null; done
    wait 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT
failures=0
is() { # is WHAT EXPECTED SEEN
    if [ "$2" = "$3" ]; then echo "ok $1"; else
        echo "FAILED $1: '$3' instead of '$2'"
        failures=$((failures + 1))
    fi
}
call() { busctl --system --timeout=10 "$@" 2>&1; }
heater="com.example.Heater /com/example/Heater com.example.Heater1"

ran=0
for name in typed sd_bus sdbus_cpp gdbus; do
    [ -x "$programs/$name" ] || { echo "SKIPPED: $name was not built"; continue; }
    ran=$((ran + 1))
    # An address each: a daemon that ends removes its socket when it gets to it.
    export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/$name
    bus_pid=$(dbus-daemon --session --fork --nopidfile --nosyslog --address="$DBUS_SYSTEM_BUS_ADDRESS" --print-pid)
    "$programs/$name" 2>"$work/log" &
    service_pid=$!
    gdbus wait --system --timeout 30 com.example.Heater || { echo "FAILED $name does not start"; cat "$work/log"; exit 1; }
    # shellcheck disable=SC2086
    {
        for _ in $(seq 100); do
            call introspect $heater >"$work/seen" && grep -q '^.Target' "$work/seen" && break
            sleep 0.05
        done
        is "$name: Boost" "" "$(call call $heater Boost u 60)"
        is "$name: too long" "Call failed: more than an hour" "$(call call $heater Boost u 4000)"
        is "$name: set" "" "$(call set-property $heater Target d 21.5)"
        is "$name: get" "d 21.5" "$(call get-property $heater Target)"
        is "$name: out of range" 1 "$(call set-property $heater Target d 99 | grep -c 'the target is 5 to 30 degrees')"
        is "$name: members" ".Boost .Measured .Target " "$(awk '/^\./ {print $1}' "$work/seen" | LC_ALL=C sort | tr '\n' ' ')"
    }
    kill -TERM "$service_pid"
    wait "$service_pid"
    is "$name: stopped" 0 $?
    service_pid=""
    kill "$bus_pid"
    bus_pid=""
done
[ -x "$programs/typed" ] || { echo "FAILED the program on this library is missing"; failures=1; }
echo "$ran programs, $failures failures"
[ "$failures" -eq 0 ]
