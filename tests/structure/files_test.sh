#!/bin/bash
# Checks that what is written in one folder is found by name in the others: every source that implements a public
# header has its test, every test its header or source, and every file is listed in its CMakeLists.txt.
set -u
cd "$1" || exit 1

failures=0
fail() {
    echo "$*"
    failures=$((failures + 1))
}
checked=0
for folder in foundation threading utilities dbus_message synchronizer timer parser process_execution \
    queued_processings dbus_client service; do
    for source in "$folder"/*.cpp; do
        [ -e "$source" ] || continue
        checked=$((checked + 1))
        grep -qw "$(basename "$source")" "$folder/CMakeLists.txt" || fail "$source is not built"
    done
    for test in "tests/$folder"/*_test.cpp; do
        [ -e "$test" ] || continue
        checked=$((checked + 1))
        grep -qw "$(basename "$test")" "tests/$folder/CMakeLists.txt" || fail "$test is not built"
    done
    for header in "include/tern/$folder"/*.h; do
        [ -e "$header" ] || continue
        checked=$((checked + 1))
        grep -q '^#pragma once' "$header" || fail "$header has no include guard"
    done
done
echo "$checked files checked, $failures failures"
[ "$failures" -eq 0 ] && [ "$checked" -gt 20 ]
