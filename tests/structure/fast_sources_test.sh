#!/bin/bash
# The fast and the small sources of a target, in a small project of its own: what is named is compiled as the build is, the
# rest for size, and a name that matches nothing ends the configuration.
#   fast_sources_test.sh SOURCE_FOLDER CXX
set -eu
source=$1 cxx=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/project/part" "$work/project/other"
touch "$work/project/part/"{quick,rare,unlisted}.cpp "$work/project/other/elsewhere.cpp"
cat >"$work/project/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(FastSources LANGUAGES CXX)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
include($source/cmake/TernFastSources.cmake)
add_library(thing SHARED)
add_subdirectory(other)
add_subdirectory(part)
tern_small_sources(thing)
END
echo 'target_sources(thing PRIVATE elsewhere.cpp)' >"$work/project/other/CMakeLists.txt"
# configure TYPE FAST...: with these names of fast sources.
configure() {
    local type=$1
    shift
    printf 'target_sources(thing PRIVATE quick.cpp rare.cpp)\ntern_fast_sources(thing %s)\n' "$*" \
        >"$work/project/part/CMakeLists.txt"
    rm -rf "$work/build"
    cmake -S "$work/project" -B "$work/build" -DCMAKE_BUILD_TYPE="$type" -DCMAKE_CXX_COMPILER="$cxx" >"$work/log" 2>&1
}
# small FILE: whether its compilation asks for a small one.
small() {
    grep '"command"' "$work/build/compile_commands.json" | grep "/$1\.cpp" | grep -qe ' -Os '
}
fail() {
    echo "$*"
    cat "$work/log"
    exit 1
}

configure RelWithDebInfo quick.cpp || fail "it cannot be configured"
grep -c '"command"' "$work/build/compile_commands.json" | grep -qx 3 || fail "not three sources are compiled"
! small quick || fail "a fast source is compiled for size"
small rare || fail "a source that is not named is not compiled for size"
small elsewhere || fail "a source of a folder that names none is not compiled for size"
configure Debug quick.cpp || fail "it cannot be configured for debugging"
for file in quick rare elsewhere; do
    ! small $file || fail "$file.cpp is compiled for size in a build for debugging"
done
for name in quikc.cpp unlisted.cpp elsewhere.cpp quick; do
    ! configure RelWithDebInfo quick.cpp $name || fail "'$name', which matches no source of the folder, is taken"
    grep -q "tern_fast_sources: $name is not among" "$work/log" || fail "no message about '$name'"
done
echo "fast sources are told apart, and a name that matches nothing is refused"
