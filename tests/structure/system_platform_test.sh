#!/bin/bash
# The package as it is with the device maker's own platform libraries: a project may look for it as often as it likes, as
# that of tern-new-extension does for the program and again for its test.
#   system_platform_test.sh SOURCE_FOLDER CXX
set -eu
source=$1 cxx=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

mkdir "$work/pkgconfig" "$work/prefix" "$work/project" "$work/project/part"
for name in foundation basic-log; do
    printf 'Name: libtern-%s\nDescription: of the device maker\nVersion: 1\nCflags: -DMAKERS_%s\n' $name ${name//-/_} \
        >"$work/pkgconfig/libtern-$name.pc"
done
export PKG_CONFIG_PATH=$work/pkgconfig${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}

# Only what the package says is taken from here; nothing is built.
cmake -S "$source" -B "$work/tern" -DTERN_PLATFORM=system -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER="$cxx" -DTERN_BUILD_TESTS=OFF \
    -DTERN_BUILD_TEST_SUPPORT=OFF -DTERN_BUILD_EXAMPLES=OFF -DTERN_BUILD_TOOLS=OFF >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
cp "$work"/tern/TernDBusServiceConfig*.cmake "$source/cmake/TernGenerate.cmake" "$work/prefix"
find "$work/tern" -path '*Export*' -name 'TernDBusServiceTargets.cmake' -exec cp {} "$work/prefix" \;
echo "configured with the device maker's libraries"

cat >"$work/project/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(Often LANGUAGES CXX)
add_subdirectory(part one)
add_subdirectory(part two)
find_package(TernDBusService CONFIG REQUIRED COMPONENTS typed)
find_package(TernDBusService CONFIG REQUIRED COMPONENTS typed)
END
cat >"$work/project/part/CMakeLists.txt" <<'END'
find_package(TernDBusService CONFIG REQUIRED COMPONENTS typed)
foreach(name FOUNDATION BASIC_LOG)
  string(TOLOWER ${name} target)
  string(REPLACE _ - target ${target})
  get_target_property(flags tern::${target} INTERFACE_COMPILE_OPTIONS)
  string(TOLOWER "${flags}" flags)
  string(TOLOWER "-DMAKERS_${name}" wanted)
  if(NOT flags STREQUAL wanted)
    message(FATAL_ERROR "tern::${target} has ${flags}")
  endif()
endforeach()
END
cmake -S "$work/project" -B "$work/built" -DTernDBusService_DIR="$work/prefix" -DCMAKE_CXX_COMPILER="$cxx" >"$work/log" 2>&1 ||
    { cat "$work/log"; exit 1; }
echo "found four times"
