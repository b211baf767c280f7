#!/bin/bash
# Runs a peer against the type gallery on a private bus, then looks whether the gallery has survived it.
#   with_gallery.sh GALLERY COMMAND [ARGUMENT...]
# The exit status is the command's (77: skipped), or 1 when the gallery died, ended badly or told of a fault of its own.
set -u
gallery=$1
shift
work=$(mktemp -d)
bus_pid="" gallery_pid=""

cleanup() {
    for pid in $gallery_pid $bus_pid; do
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
    cat "$work/gallery.log"
    exit 1
}

cat >"$work/bus.conf" <<XML
<busconfig><listen>unix:path=$work/bus</listen>
  <policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/></policy></busconfig>
XML
# Peers of another user have to reach the socket.
chmod 711 "$work"
dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile --nosyslog --print-address >"$work/address" 2>"$work/bus.log" &
bus_pid=$!
# Told when it listens; the socket is there before.
wait_for test -s "$work/address"
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/bus
export LC_ALL=C.UTF-8

"$gallery" 2>"$work/gallery.log" &
gallery_pid=$!
wait_for busctl call com.example.TypeGallery /com/example/TypeGallery com.example.TypeGallery1 EchoByte y 1

"$@"
status=$?

if ! kill "$gallery_pid" 2>/dev/null; then
    echo "FAILED the gallery did not survive"
    status=1
fi
wait "$gallery_pid"
ended=$?
gallery_pid=""
if [ "$ended" -ne 0 ]; then
    echo "FAILED the gallery ended with status $ended"
    status=1
fi
# What a peer sends is no fault of the service; what Throw throws and a second Add at one path are told as errors.
if grep -E '^<[0-3]>|ERROR: |WARNING: ThreadSanitizer|runtime error' "$work/gallery.log" |
    grep -vE '^<3>\[[0-9]+\]\[Typed\] (com\.example\.TypeGallery1\.Throw of .* threw |Failed to export )'; then
    echo "FAILED the gallery told of a fault"
    status=1
fi
[ "$status" -eq 0 ] || [ "$status" -eq 77 ] || tail -50 "$work/gallery.log"
exit "$status"
