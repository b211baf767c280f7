#!/bin/bash
# Checks that what is written in one folder is found by name in the others: every source that implements a public
# header has its test, every test its header or source; exceptions are named below, with their reason. Every source and
# test is listed in its CMakeLists.txt, every public header has its include guard.
set -u
cd "$1" || exit 1

failures=0
fail() {
    echo "$*"
    failures=$((failures + 1))
}

# Sources of public headers without a test of their own: a logger's name, or an interface's destructor and nothing else.
declare -A untested=()
for name in foundation/service_common threading/common \
    threading/{signals,threads_monitor,threads_watcher}_interface timer/timer_interface \
    queued_processings/{component,executor}_interface service/component_interface; do
    untested[$name]=1
done
# Tests of a rule that several classes keep, or of one operation or side of a class, which its own test leaves out.
declare -A of_their_own=()
for name in dbus_message/hostile_messages dbus_message/key_rule service/stop_order service/hung_bus \
    utilities/file_system_copy_file typed/churn typed/guide diagnostics/guide typed/{calls,task,tools}_guide \
    timer/short_period_timer_{callback,failures,thread} timer/timer_{expiry,notification} \
    process_execution/command_{children,failures,input,time_limit} \
    utilities/zipper_{programs,unzip,unzip_whole} utilities/folder_monitor_stop \
    service/message_pipe_close service/dbus_server_manager_objects typed/bus_{changes,objects} typed/task_end; do
    of_their_own[$name]=1
done

# check_tested NAME: the source NAME, FOLDER/STEM, implements a public header.
check_tested() {
    if [ -e "tests/$1_test.cpp" ]; then
        [ -z "${untested[$1]:-}" ] || fail "$1 has a test and is named as one that has none"
    else
        [ -n "${untested[$1]:-}" ] || fail "$1 implements a public header and has no test tests/$1_test.cpp"
    fi
    unset "untested[$1]"
}
# check_subject NAME FILE...: the test NAME belongs to one of the files.
check_subject() {
    local name=$1 found=""
    shift
    for file in "$@"; do
        [ ! -e "$file" ] || found=$file
    done
    if [ -n "$found" ]; then
        [ -z "${of_their_own[$name]:-}" ] || fail "tests/${name}_test.cpp belongs to $found and is named as one of its own"
    else
        [ -n "${of_their_own[$name]:-}" ] || fail "tests/${name}_test.cpp belongs to no header and no source"
    fi
    unset "of_their_own[$name]"
}

checked=0
for folder in foundation threading utilities dbus_message synchronizer timer parser process_execution \
    queued_processings dbus_client service typed diagnostics; do
    for source in "$folder"/*.cpp; do
        [ -e "$source" ] || continue
        checked=$((checked + 1))
        grep -qw "$(basename "$source")" "$folder/CMakeLists.txt" || fail "$source is not built"
        [ ! -e "include/tern/${source%.cpp}.h" ] || check_tested "${source%.cpp}"
    done
    for test in "tests/$folder"/*_test.cpp; do
        [ -e "$test" ] || continue
        checked=$((checked + 1))
        grep -qw "$(basename "$test")" "tests/$folder/CMakeLists.txt" || fail "$test is not built"
        stem=$folder/$(basename "$test" _test.cpp)
        check_subject "$stem" "include/tern/$stem.h" "$stem.h" "$stem.cpp"
    done
    for header in "include/tern/$folder"/*.h; do
        [ -e "$header" ] || continue
        checked=$((checked + 1))
        grep -q '^#pragma once' "$header" || fail "$header has no include guard"
    done
done
# The platform libraries share one folder of tests.
for header in platform/*/include/*/*.h; do
    stem=$(basename "$header" .h)
    for source in platform/*/"$stem.cpp"; do
        [ -e "$source" ] || continue
        checked=$((checked + 1))
        check_tested "platform/$stem"
    done
done
for test in tests/platform/*_test.cpp; do
    checked=$((checked + 1))
    grep -qw "$(basename "$test")" tests/platform/CMakeLists.txt || fail "$test is not built"
    stem=$(basename "$test" _test.cpp)
    check_subject "platform/$stem" platform/*/include/*/"$stem.h" platform/*/"$stem.cpp" platform/"$stem.h"
done
for name in "${!untested[@]}" "${!of_their_own[@]}"; do
    fail "$name is named as an exception and is not there"
done
echo "$checked files checked, $failures failures"
[ "$failures" -eq 0 ] && [ "$checked" -gt 20 ]
