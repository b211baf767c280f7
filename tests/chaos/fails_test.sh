#!/bin/bash
# Chaos notices: with a deliberate fault in the extension it fails, and says so in these words.
#   fails_test.sh PROJECT_FOLDER BUILD_FOLDER
set -u
python3 "$1/tests/chaos/judge_test.py" || exit 1
# notices FAULT HARM PATTERN
notices() {
    local output report status
    output=$(mktemp -d)
    report=$("$1/scripts/chaos" --built "$2" --output "$output" --short --only "$4" --fault "$3" 1 1 2>&1)
    status=$?
    rm -rf "$output"
    [ $status -ne 77 ] || { tail -n 1 <<<"$report"; exit 77; }
    if [ $status -ne 1 ] || ! grep -qE "^PROBLEM: .*$5" <<<"$report"; then
        echo "FAILED: with the fault '$3' the status was $status instead of 1, or nothing like '$5' was reported:"
        echo "$report"
        exit 1
    fi
    grep -m1 -E "^PROBLEM: .*$5" <<<"$report"
}
notices "$1" "$2" keep SIGSTOP "was promised the number [0-9]+ .* and [0-9]+ is kept"
notices "$1" "$2" crash SIGSTOP "it ended, as 'cut-off', although nothing was done to it"
notices "$1" "$2" descriptor SIGSTOP "descriptors .* at rest"
