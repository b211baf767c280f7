#!/bin/bash
# Compares the messages that the unit tests emitted with the list of the library's messages, word for word.
#   compare.sh LIST FOLDER     LIST: tests/messages.tsv; FOLDER: what each test program recorded (TERN_LOG_COVERAGE)
# Fails when a message of the list was not emitted and gives no reason, when one with a reason was emitted after all,
# and when a logger of the list wrote something that the list does not know.
set -euo pipefail
export LC_ALL=C
list=$1 folder=$2
shopt -s nullglob
records=("$folder"/*.tsv)
[ ${#records[@]} -gt 0 ] || { echo "no test program recorded anything in $folder"; exit 1; }

awk -F '\t' '
    FILENAME != list { emitted[$0] = 1; logger[$0] = $2; next }
    FNR == 1 { next }
    {
        row = $1 FS $2 FS $3
        if (row in listed) { print "listed twice: " row; ++failures }
        listed[row] = 1
        known[$2] = 1
        ++total
        if (row in emitted) {
            ++seen
            if ($4 != "") { print "emitted, although the list says why not: " row; ++failures }
        } else if ($4 == "") { print "missing: " row; ++failures }
        else { print "argued: " row "\n    " $4; ++argued }
    }
    END {
        for (row in emitted) {
            if (logger[row] in known && !(row in listed)) { print "not in the list: " row; ++failures }
        }
        printf "%d of %d messages emitted, %d argued, %d failures\n", seen, total, argued, failures
        exit (failures > 0 || total < 200)
    }' list="$list" "${records[@]}" "$list"
