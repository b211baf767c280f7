#!/bin/bash
# The library's notes name a static probe for every event that it tells of, and a debugger stops at one.
#   static_probes_test.sh LIBRARY PROGRAM     PROGRAM: the tests of foundation/tell.h
set -u
library=$1 program=$2
if ! readelf -n "$library" 2>/dev/null | grep -q 'Provider: tern'; then
    echo "built without static probes (sys/sdt.h was not there, or TERN_STATIC_PROBES is off)"
    exit 77
fi

# What the library does not do itself, but libtern-diagnostics: calls and messages.
expected=$(sed -n 's/^ *X([A-Za-z]*, \([a-z_]*\)).*/\1/p' "$(dirname "$0")/../../foundation/tell_events.h" |
    grep -vxE 'call_began|call_ended|message' | sort)
found=$(readelf -n "$library" | grep -A1 'Provider: tern' | sed -n 's/^ *Name: //p' | sort -u)
[ "$(wc -w <<<"$expected")" -gt 15 ] || { echo "the list of events was not read"; exit 1; }
diff <(echo "$expected") <(echo "$found") || { echo "the probes are not the events"; exit 1; }
if readelf -n "$library" | grep -A3 'Provider: tern' | grep 'Arguments:' | grep -vE 'Arguments: \S+@\S+ \S+@\S+'; then
    echo "a probe has not two arguments"
    exit 1
fi

command -v gdb >/dev/null || { echo "there is no gdb to stop at a probe"; exit 77; }
output=$(gdb -nx -batch -ex 'set breakpoint pending on' -ex 'break -probe-stap tern:job_began' -ex run \
    -ex 'printf "object is set: %d\n", $_probe_arg0 != 0' -ex 'printf "arguments: %d\n", $_probe_argc' -ex kill \
    --args "$program" --gtest_filter=Tell.PoolTellsOfEveryJobOnce 2>&1)
if grep -q 'ptrace: Operation not permitted' <<<"$output"; then
    echo "debuggers are not allowed here"
    exit 77
fi
if ! grep -q '^object is set: 1$' <<<"$output" || ! grep -q '^arguments: 2$' <<<"$output"; then
    echo "gdb did not stop at tern:job_began:"
    echo "$output"
    exit 1
fi
echo "$(wc -w <<<"$found") probes, and gdb stopped at one"
