#!/bin/bash
# The libraries' notes name a static probe for every event, and a debugger stops at them and reads their arguments.
#   static_probes_test.sh PLATFORM SERVICE_LIBRARY TYPED_LIBRARY LOG_LIBRARY TELL_TEST DIAGNOSTICS_TEST ARCHIVE
# The last three are programs: the tests of foundation/tell.h and of the diagnostics, and a service.
set -u
platform=$1 service=$2 typed=$3 log=$4 tell_test=$5 diagnostics_test=$6 archive=$7
if ! readelf -n "$service" 2>/dev/null | grep -q 'Provider: tern'; then
    echo "built without static probes (sys/sdt.h was not there, or TERN_STATIC_PROBES is off)"
    exit 77
fi
# Those of a device maker's logger are his own.
libraries=("$service" "$typed")
foreign=none
if [ "$platform" = bundled ]; then libraries+=("$log"); else foreign=message; fi

expected=$(sed -n 's/^ *X([A-Za-z]*, \([a-z_]*\)).*/\1/p' "$(dirname "$0")/../../foundation/tell_events.h" |
    grep -vx $foreign | sort)
found=$(readelf -n "${libraries[@]}" | grep -A1 'Provider: tern' | sed -n 's/^ *Name: //p' | sort -u)
[ "$(wc -w <<<"$expected")" -gt 15 ] || { echo "the list of events was not read"; exit 1; }
diff <(echo "$expected") <(echo "$found") || { echo "the probes are not the events"; exit 1; }
# Two arguments, and three of calls and messages.
notes=$(readelf -n "${libraries[@]}" | grep -A3 'Provider: tern' |
    sed -n -e 's/^ *Name: //p' -e 's/^ *Arguments: //p' | paste - -)
if grep -vE '^(call_began|call_ended|message)\s' <<<"$notes" | grep -vE '^\S+\s\S+@\S+ \S+@\S+$' ||
    grep -E '^(call_began|call_ended|message)\s' <<<"$notes" | grep -vE '^\S+\s\S+@\S+ \S+@\S+ \S+@\S+$'; then
    echo "a probe has other arguments than it should"
    exit 1
fi

command -v gdb >/dev/null || { echo "there is no gdb to stop at a probe"; exit 77; }
# stop_at PROBE GDB_COMMANDS... -- PROGRAM...: leaves what gdb says in $output.
stop_at() {
    local commands=(-ex 'set breakpoint pending on' -ex 'set debuginfod enabled off' -ex "break -probe-stap tern:$1" -ex run)
    shift
    while [ "$1" != -- ]; do
        commands+=(-ex "$1")
        shift
    done
    shift
    output=$(gdb -nx -batch "${commands[@]}" -ex kill --args "$@" 2>&1 </dev/null)
    if grep -q 'ptrace: Operation not permitted' <<<"$output"; then
        echo "debuggers are not allowed here"
        exit 77
    fi
}
# says LINE: gdb has said so.
says() {
    grep -qxE "$1" <<<"$output" || { echo "gdb did not say '$1':"; echo "$output"; exit 1; }
}

stop_at job_began 'printf "object is set: %d\n", $_probe_arg0 != 0' 'printf "arguments: %d\n", $_probe_argc' -- \
    "$tell_test" --gtest_filter=Tell.PoolTellsOfEveryJobOnce
says 'object is set: 1'
says 'arguments: 2'

stop_at call_began 'printf "began %s, asked by %s\n", (char*)$_probe_arg1, (char*)$_probe_arg2' 'delete' \
    'break -probe-stap tern:call_ended' 'continue' 'printf "ended %s\n", (char*)$_probe_arg1' -- \
    "$diagnostics_test" --gtest_filter=DiagnosticsTest.CountsWhatTheBusThreadHandles
says 'began com\.example\.Room1\.Do, asked by :1\.[0-9]+'
says 'ended com\.example\.Room1\.Do'

if [ "$platform" = bundled ]; then
    # It says at once that this is no level.
    TERN_LOG_LEVEL=much stop_at message 'printf "level %d: %s\n", $_probe_arg2, (char*)$_probe_arg1' -- "$archive" /dev/null
    says "level 4: TERN_LOG_LEVEL is 'much', neither 0 to 7 nor the name of a level; using 6"
fi
echo "$(wc -w <<<"$found") probes, and gdb stopped at three kinds"
