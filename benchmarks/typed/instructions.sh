#!/bin/bash
# Instructions of a client for each asynchronous call (valgrind's callgrind): the difference of two runs of different
# length. Prints one row for each kind of call, and the ratio to the call by hand. Takes some minutes.
#   instructions.sh PROGRAM [KIND...]     PROGRAM: call_instructions, of a release build
set -euo pipefail
program=$1
shift
kinds=("$@")
[ ${#kinds[@]} -gt 0 ] || kinds=(empty number text property)
few=200 many=1200
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# total SIDE KIND COUNT: instructions of the whole run of the client; its children have files of their own.
total() {
    rm -f "$work"/out.*
    valgrind --tool=callgrind --callgrind-out-file="$work/out.%p" "$program" "$@" >/dev/null 2>"$work/log" &
    local pid=$!
    wait "$pid" || { cat "$work/log" >&2; return 1; }
    grep -h '^summary' "$work/out.$pid" | cut -d' ' -f2
}
each() {
    local short long
    short=$(total "$1" "$2" "$few")
    long=$(total "$1" "$2" "$many")
    echo $(((long - short) / (many - few)))
}

printf '%-10s %10s %18s %18s %18s\n' call hand handler awaited sdbus-c++
for kind in "${kinds[@]}"; do
    hand=$(each hand "$kind")
    row=$(printf '%-10s %10d' "$kind" "$hand")
    for side in handler awaited sdbus-c++; do
        count=$(each "$side" "$kind") || { row+=$(printf ' %18s' -); continue; }
        row+=$(awk -v c="$count" -v h="$hand" 'BEGIN { printf " %10d (%.3f)", c, c / h }')
    done
    echo "$row"
done
