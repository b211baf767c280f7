#!/bin/bash
# Checks that what is written in one folder is found by name in the others: every source that implements a public
# header has its test, every test its header or source; exceptions are named below, with their reason. Every source and
# test is listed in its CMakeLists.txt, every public header has its include guard. Every source includes its own header
# first, so that the compiler sees for each header that it needs nothing before it.
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
    utilities/file_system_copy_file typed/churn typed/guide diagnostics/guide typed/{calls,task,tools,watch}_guide \
    timer/short_period_timer_{callback,failures,thread} timer/timer_{expiry,notification} \
    process_execution/command_{children,failures,input,time_limit} \
    utilities/zipper_{programs,unzip,unzip_whole} utilities/folder_monitor_stop \
    service/message_pipe_close service/dbus_server_manager_objects typed/bus_{changes,objects} typed/task_end \
    dbus_message/parser_{dictionaries,variants} queued_processings/component_stop \
    threading/thread_pool_{loop,stop,watched} threading/threads_watcher_{kill,look} \
    typed/call_{end,failures} typed/implements_{properties,vtable} typed/{object_mirror,property_cache,subscription}_failures \
    utilities/file_system_copy_{links,trees} diagnostics/{diagnostics,ring_reader}_values diagnostics/without_recorder; do
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
        # The one whose place among all is chosen stands in the uppermost list.
        grep -qw "$(basename "$source")" "$folder/CMakeLists.txt" || grep -qw "$source" CMakeLists.txt ||
            fail "$source is not built"
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

# own_header SOURCE: how the source may name its own header; nothing when it has none.
own_header() {
    local folder=${1%/*} stem=${1##*/}
    stem=${stem%.cpp}
    [ ! -e "$folder/$stem.h" ] || printf '"%s"\n' "$folder/$stem.h" "${folder#*/}/$stem.h" "$stem.h"
    [ ! -e "include/tern/$folder/$stem.h" ] || echo "<tern/$folder/$stem.h>"
    case $folder in
    platform/*)
        for header in "$folder"/include/*/"$stem.h"; do
            [ ! -e "$header" ] || echo "<${header#"$folder"/include/}>"
        done
        ;;
    esac
}
with_header=0
while IFS= read -r source; do
    source=${source#./}
    names=$(own_header "$source")
    [ -n "$names" ] || continue
    with_header=$((with_header + 1))
    # The first include, and the line after it: the formatter sorts what stands in one block.
    { read -r first && read -r second; } < <(grep -A 1 -m 1 '^#[[:space:]]*include' "$source")
    first=${first#*include}
    first=${first%%//*}
    first=${first//[[:space:]]/}
    if ! grep -qxF -- "$first" <<<"$names"; then
        fail "$source includes ${first:-nothing} before its own header"
    elif [[ $second == '#include'* ]]; then
        fail "$source: its own header needs a block of its own, or the formatter moves it"
    fi
done < <(find . \( -path ./build -o -path './.*' \) -prune -o -name '*.cpp' -print)
[ "$with_header" -gt 200 ] || fail "only $with_header sources have a header of their own"
checked=$((checked + with_header))

for name in "${!untested[@]}" "${!of_their_own[@]}"; do
    fail "$name is named as an exception and is not there"
done
echo "$checked files checked, $failures failures"
[ "$failures" -eq 0 ] && [ "$checked" -gt 20 ]
