#!/bin/bash
# A file with static probes as the build makes it: with them, with TERN_STATIC_PROBES off, and where sys/sdt.h is absent.
#   no_static_probes_test.sh SOURCE_FOLDER COMPILER
set -eu
source_folder=$1 compiler=$2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
objects=(typed/CMakeFiles/tern-dbus-typed.dir/call_probe.cpp.o
    platform/basic_log/CMakeFiles/tern-basic-log.dir/observer.cpp.o
    CMakeFiles/tern-dbus-service.dir/foundation/known_objects.cpp.o)
# probes_with FLAGS...: how many notes and counters of probes are in the objects.
probes_with() {
    rm -rf "$folder/build"
    { cmake -S "$source_folder" -B "$folder/build" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_BUILD_TYPE=Release \
        -DTERN_BUILD_TESTS=OFF -DTERN_BUILD_TEST_SUPPORT=OFF -DTERN_BUILD_EXAMPLES=OFF -DTERN_BUILD_TOOLS=OFF "$@" &&
        cmake --build "$folder/build" --target "${objects[@]}"; } >"$folder/log" 2>&1 || { cat "$folder/log" >&2; exit 1; }
    for object in "${objects[@]}"; do
        readelf -SW "$folder/build/$object"
    done | grep -cE '\.note\.stapsdt|\.probes' || true
}
with=$(probes_with -DTERN_STATIC_PROBES=ON)
off=$(probes_with -DTERN_STATIC_PROBES=OFF)
# What the build finds out where the header is not there.
absent=$(probes_with -DTERN_STATIC_PROBES=ON -DTERN_HAS_SDT_H=0)
echo "sections with probes: $with, switched off: $off, without the header: $absent"
[ "$off" -eq 0 ] && [ "$absent" -eq 0 ] || exit 1
[ "$with" -ge 4 ] || { echo "sys/sdt.h is not there: nothing to leave out"; exit 77; }
