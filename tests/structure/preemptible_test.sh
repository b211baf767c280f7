#!/bin/bash
# The variables that the library exports are those that its list of preemptible names has: one that is missing there would be
# there twice in a program that has a copy of it. And the list was used: type information is not looked up by name.
#   preemptible_test.sh LIBRARY LIST
set -eu
library=$1 list=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# Tables and type information are found by other means.
nm -D --defined-only "$library" | awk '$2 ~ /^[BDGRSVu]$/ {print $3}' | grep -v '^_ZT[VTIS]' | sort >"$work/exported"
grep -oE '_Z[A-Za-z0-9_]+;' "$list" | tr -d ';' | sort >"$work/listed"
[ -s "$work/exported" ] || { echo "$library exports no variable: nothing was compared"; exit 1; }
diff -u "$work/listed" "$work/exported" || { echo "cmake/tern-preemptible.list and what $library exports differ"; exit 1; }
# Of relocations by name alone: newer binutils name what lies at the places of relative ones, too.
if readelf -rW "$library" | grep ' R_' | grep -oE '_ZT[VTIS]N3?2?mwl?[A-Za-z0-9_]*' | grep .; then
    echo "$library looks up what it has itself"
    exit 1
fi
echo "$(wc -l <"$work/listed") variables compared"
