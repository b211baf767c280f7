#!/bin/bash
# The soak notices: with this fault in the extension it fails, and says so in these words.
#   fault_test.sh PROJECT_FOLDER BUILD_FOLDER FAULT SECONDS PATTERN [PATTERN_OF_A_FURTHER_LINE...]
set -u
output=$(mktemp -d)
trap 'rm -rf "$output"' EXIT
report=$(TERN_SOAK_FAULT=$3 "$1/scripts/soak" --built "$2" --output "$output" --reply-limit 2 "$4s" 2>&1)
status=$?
if [ $status -ne 1 ] || ! grep -qE "^PROBLEM: .*$5" <<<"$report"; then
    echo "FAILED: with the fault '$3' the status was $status instead of 1, or nothing like '$5' was reported:"
    echo "$report"
    exit 1
fi
for pattern in "${@:6}"; do
    grep -qE "$pattern" <<<"$report" || { echo "FAILED: nothing like '$pattern' was reported:"; echo "$report"; exit 1; }
done
grep -m3 -E '^PROBLEM: ' <<<"$report"
