#!/bin/bash
# What is wrong does not compile, and says why. Each FOLDER/*.cpp begins with a line
#   // fails with: TEXT         the first error has TEXT
#   // fails once with: TEXT    as above, and there is no other error
#   // fails alone with: TEXT   the first error has TEXT, where no header of another program is read before
# and compiles once MENDED is defined, so that nothing else is wrong with it; for that g++ is enough.
#   compile_fail_test.sh FOLDER COMPILER [FLAGS...]
set -u
folder=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
log=$work/log

# All headers that any of them includes, once for all: reading them takes most of the time.
compiler=("$@" -std=c++20 -Wall -Wextra -Werror)
grep -hE '^#include <' "$folder"/* | sort -u >"$work/all.h"
"${compiler[@]}" -x c++-header "$work/all.h" -o "$work/all.h.gch" >"$log" 2>&1 ||
    { cat "$log"; echo "the headers do not compile"; exit 1; }
compiler+=(-fsyntax-only)
alone=("${compiler[@]}")
if [[ $1 == *clang* ]]; then
    compiler+=(-include-pch "$work/all.h.gch")
else
    compiler+=(-include "$work/all.h" -Winvalid-pch)
fi

failures=0
fail() {
    echo "$*"
    head -40 "$log"
    failures=$((failures + 1))
}

checked=0
for program in "$folder"/*.cpp; do
    name=$(basename "$program")
    IFS= read -r first <"$program"
    if [[ $first =~ ^"// fails "(once |alone )?"with: "(.+)$ ]]; then
        how=${BASH_REMATCH[1]} text=${BASH_REMATCH[2]}
    else
        : >"$log"
        fail "$name does not say in its first line how it fails"
        continue
    fi
    checked=$((checked + 1))
    with=("${compiler[@]}")
    [ "$how" != "alone " ] || with=("${alone[@]}")
    if "${with[@]}" "$program" >"$log" 2>&1; then
        fail "$name compiles"
    elif ! grep -m1 'error: ' "$log" | grep -qF -- "$text"; then
        fail "$name: the first error does not have '$text'"
    elif [ "$how" = "once " ] && [ "$(grep -c 'error: ' "$log")" -ne 1 ]; then
        fail "$name: there is more than one error"
    fi
    [[ ${compiler[0]} != *clang* ]] || continue
    "${with[@]}" -DMENDED "$program" >"$log" 2>&1 || fail "$name does not compile without its mistake"
done
echo "$checked programs checked, $failures failures"
[ "$failures" -eq 0 ] && [ "$checked" -gt 0 ]
