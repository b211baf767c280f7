#!/bin/bash
# Instructions of a service for each signal that it receives, by a plain match and by a subscription, from two runs of
# different length under callgrind.
#   instructions.sh SIGNAL_RECEIVER
set -euo pipefail
program=$(realpath "$1")
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

total() {
    valgrind --tool=callgrind --trace-children=no --callgrind-out-file="$folder/out.%p" --log-file="$folder/log.%p" \
        "$program" "$@" >/dev/null
    # The program itself: what it forks is another, or none.
    sed -n 's/^summary: //p' "$folder"/out.* | sort -n | tail -1
    rm -f "$folder"/out.* "$folder"/log.*
}

for name in "" unique; do
    for kind in number text four doubles; do
        for how in hand typed; do
            short=$(total $how $kind 1000 $name)
            long=$(total $how $kind 6000 $name)
            declare "$how=$(((long - short) / 5000))"
        done
        awk -v kind="$kind" -v name="${name:-well-known}" -v hand="$hand" -v typed="$typed" \
            'BEGIN { printf "%-8s %-10s match %6d, subscription %6d, ratio %.3f\n", kind, name, hand, typed, typed / hand }'
    done
done
