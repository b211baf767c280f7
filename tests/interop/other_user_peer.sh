#!/bin/bash
# A caller that is neither root nor the service's user: what is open is open to it, what is closed is not.
set -u
[ "$(id -u)" -eq 0 ] || { echo "only root can be another user"; exit 77; }
command -v setpriv >/dev/null || { echo "setpriv is not installed (package util-linux)"; exit 77; }
failures=0
# check NAME STATUS OUTPUT MEMBER [ARGUMENT...]: exit status and whole output of the call by the user nobody.
check() {
    local name=$1 expected=$2 wanted=$3 output status
    shift 3
    output=$(setpriv --reuid=65534 --regid=65534 --clear-groups gdbus call --system --dest com.example.TypeGallery \
        --object-path /com/example/TypeGallery --method "com.example.TypeGallery1.$1" "${@:2}" 2>&1)
    status=$?
    if [ "$status" -eq "$expected" ] && [ "$output" = "$wanted" ]; then
        echo "ok $name"
    else
        printf 'FAILED %s: status %s, output:\n%s\n' "$name" "$status" "$output"
        failures=$((failures + 1))
    fi
}
denied="Error: GDBus.Error:org.freedesktop.DBus.Error.AccessDenied: Access to com.example.TypeGallery1.Closed() not permitted."
check "an open method" 0 "('hello',)" EchoString hello
check "a closed method" 1 "$denied" Closed
check "a closed method again, when the caller's user may be known" 1 "$denied" Closed
check "a late answer" 0 "('later',)" Later 50 later
echo "$failures failures"
[ "$failures" -eq 0 ]
