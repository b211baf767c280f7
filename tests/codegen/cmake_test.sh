#!/bin/bash
# tern_dbus_generate in a foreign project: with the installed package, for another machine whose programs must not be run, and
# with the sources inside the project. What has not changed is not made again; a mistake stops the build.
#   cmake_test.sh SOURCE_FOLDER BUILD_FOLDER CXX
set -u
source=$1 build=$2 cxx=$(command -v "$3")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
ok() { echo "ok $*"; }
fail() {
    echo "FAILED $*"
    failures=$((failures + 1))
}
# must WHAT COMMAND...: or the test ends here.
must() {
    local what=$1
    shift
    if "$@" >"$work/output" 2>&1; then ok "$what"; else
        tail -50 "$work/output"
        echo "FAILED $what"
        exit 1
    fi
}
changed() { stat -c %Y.%y "$1"; }

for component in runtime typed diagnostics dev; do
    must "installed: $component" cmake --install "$build" --prefix "$work/sysroot/usr" --component $component
done
"$work/sysroot/usr/bin/tern-dbus-codegen" --format >"$work/output" && [ "$(cat "$work/output")" = 1 ] && ok "the program runs" ||
    fail "the installed program does not run"

# A project's folder with blanks, and XML that the test changes.
project="$work/a project"
cp -r "$source/tests/consumer/generated" "$project"
xml=$project/room.xml
configure=(cmake -S "$project" -G "Unix Makefiles" -DROOM_XML=room.xml -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_BUILD_TYPE=Debug)

must "configured with the package" "${configure[@]}" -B "$work/package" -DCMAKE_PREFIX_PATH="$work/sysroot/usr"
grep -q "TernDBusService_DIR:PATH=$work/sysroot/" "$work/package/CMakeCache.txt" || fail "another copy of the package was found"
must "built" cmake --build "$work/package"
must "runs" env LD_LIBRARY_PATH="$(dirname "$(find "$work/sysroot" -name libtern-dbus-typed.so.0)")" "$work/package/uses-generated"
grep -q '<method name="Boost">' "$work/output" || fail "the interface is not what the XML says"
[ -s "$work/package/pages/room.md" ] || fail "there is no page"

headers=$work/package/tern-dbus/uses-generated
before=$(changed "$headers/room_skeleton.h")
must "built again" cmake --build "$work/package"
! grep -qE 'Generating|Building' "$work/output" && [ "$(changed "$headers/room_skeleton.h")" = "$before" ] &&
    ok "what has not changed is not made again" || fail "something was made again: $(grep -E 'Generating|Building' "$work/output")"
sleep 1.1  # file systems' and make's clocks
sed -i 's/"Boost"/"Heat"/' "$xml"
cmake --build "$work/package" >"$work/output" 2>&1 && fail "the program was not compiled again"
grep -q 'Generating room from room.xml' "$work/output" && grep -q 'Heat' "$headers/room_skeleton.h" && grep -q "Boost" "$work/output" &&
    ok "changed XML is generated and compiled again" || fail "changed XML: $(tail -20 "$work/output")"
sed -i 's/"Heat"/"Boost"/; s/type="d" access/type="dd" access/' "$xml"
cmake --build "$work/package" >"$work/output" 2>&1 && fail "a mistake does not stop the build"
grep -q "room.xml:8: com.example.Room1.Temperature: the signature 'dd' is of several types; one is wanted" "$work/output" &&
    ok "a mistake stops the build and is told" || fail "mistake: $(tail -20 "$work/output")"
cp "$source/tests/consumer/generated/room.xml" "$xml"
must "built when fixed" cmake --build "$work/package"

# wrong TEXT CALL: the project is not configured.
wrong() {
    mkdir -p "$work/wrong"
    sed "/^tern_dbus_generate/d" "$project/CMakeLists.txt" >"$work/wrong/CMakeLists.txt"
    cp "$project/main.cpp" "$project/room.xml" "$work/wrong"
    printf '%s\n' "$2" >>"$work/wrong/CMakeLists.txt"
    rm -rf "$work/wrong-build"
    if cmake -S "$work/wrong" -B "$work/wrong-build" -DCMAKE_PREFIX_PATH="$work/sysroot/usr" -DCMAKE_CXX_COMPILER="$cxx" \
        >"$work/output" 2>&1; then
        fail "is configured: $2"
    else
        tr -s ' \n' ' ' <"$work/output" | grep -qF "$1" && ok "refused: $2" || fail "$2: $(tail -20 "$work/output")"
    fi
}
wrong "a TARGET and an XML file are needed" "tern_dbus_generate(XML room.xml)"
wrong "'COLOUR' is unknown or has no value" "tern_dbus_generate(TARGET uses-generated XML room.xml COLOUR)"
wrong "there is no target 'nothing' yet" "tern_dbus_generate(TARGET nothing XML room.xml)"
wrong "there is no file" "tern_dbus_generate(TARGET uses-generated XML none.xml)"
wrong "has files called room already" "tern_dbus_generate(TARGET uses-generated XML room.xml)
tern_dbus_generate(TARGET uses-generated XML room.xml CLIENT)"

wrong "the files cannot be called 'a-b': letters, digits and '_'" "tern_dbus_generate(TARGET uses-generated XML room.xml NAME a-b)"
wrong "'INTERFACES' is unknown or has no value" "tern_dbus_generate(TARGET uses-generated XML room.xml INTERFACES)"
wrong "another call writes $work/wrong-build/pages/room.md" "tern_dbus_generate(TARGET uses-generated XML room.xml DOCS pages)
add_library(other STATIC main.cpp)
tern_dbus_generate(TARGET other XML room.xml DOCS pages)"

# Every option: XML that another command makes, which declares an entity and has two interfaces.
mkdir "$work/options"
sed "/^tern_dbus_generate/d" "$project/CMakeLists.txt" >"$work/options/CMakeLists.txt"
cp "$project/main.cpp" "$work/options"
{
    echo '<!DOCTYPE node [<!ENTITY boost "Boost">]>'
    sed -e 's/"Boost"/"\&boost;"/' -e 's!</node>!<interface name="com.example.Other"/><interface name="com.example.Door"/></node>!' \
        "$project/room.xml"
} >"$work/options/input.txt"
cat >>"$work/options/CMakeLists.txt" <<'CMAKE'
add_custom_command(OUTPUT made.xml COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_CURRENT_SOURCE_DIR}/input.txt made.xml
  DEPENDS input.txt)
tern_dbus_generate(TARGET uses-generated XML ${CMAKE_CURRENT_BINARY_DIR}/made.xml NAME room NAMESPACE acme DOCS . OPEN ENTITIES
  INTERFACES com.example.Room1 com.example.Door SERVER CLIENT)
CMAKE
must "configured with every option" cmake -S "$work/options" -B "$work/options-build" -DCMAKE_PREFIX_PATH="$work/sysroot/usr" \
    -DCMAKE_CXX_COMPILER="$cxx"
must "generated with every option" make -C "$work/options-build" -f CMakeFiles/uses-generated.dir/build.make \
    tern-dbus/uses-generated/room_contract.h
is=$(grep -E '^struct|OPEN' "$work/options-build/tern-dbus/uses-generated/room_contract.h" | tr -s ' \n' ' ')
[[ $is == "struct Room1 { "*"OPEN"*" struct Door { " ]] && ok "the options are handed over" || fail "options: $is"
sed -i 's/<!DOCTYPE.*//' "$work/options/input.txt"
make -C "$work/options-build" -f CMakeFiles/uses-generated.dir/build.make tern-dbus/uses-generated/room_contract.h \
    >"$work/output" 2>&1 && fail "an entity that is not declared was taken"
grep -q 'made.xml:[0-9]*: no XML: undefined entity' "$work/output" && ok "made XML is made and read again" ||
    fail "made XML: $(tail -20 "$work/output")"

# As for another machine: everything is looked for in its file system, whose Python is no program of this one.
printf '#!/bin/sh\ntouch "%s"\nexit 1\n' "$work/was-run" >"$work/sysroot/usr/bin/python3"
chmod +x "$work/sysroot/usr/bin/python3"
cat >"$work/toolchain.cmake" <<CMAKE
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR $(uname -m))
set(CMAKE_FIND_ROOT_PATH "$work/sysroot")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(PKG_CONFIG_EXECUTABLE $(command -v pkg-config) CACHE FILEPATH "")
set(CMAKE_MAKE_PROGRAM $(command -v make) CACHE FILEPATH "")
CMAKE
must "configured for another machine" "${configure[@]}" -B "$work/cross" -DCMAKE_TOOLCHAIN_FILE="$work/toolchain.cmake" \
    -DCMAKE_PREFIX_PATH="$work/sysroot/usr;/usr"
grep -q "TernDBusService_DIR:PATH=$work/sysroot/" "$work/cross/CMakeCache.txt" || fail "another copy of the package was found"
must "built for another machine" cmake --build "$work/cross"
[ ! -e "$work/was-run" ] && ok "this machine's Python was used" || fail "the other machine's Python was run"
rm "$work/sysroot/usr/bin/python3"

# With the sources: configured, and what is generated compiled; the library's own build is another test's.
must "configured with the sources" "${configure[@]}" -B "$work/sources" -DTERN_SOURCE="$source"
must "generated and compiled with the sources" make -C "$work/sources" -f CMakeFiles/uses-generated.dir/build.make \
    tern-dbus/uses-generated/room_contract.h CMakeFiles/uses-generated.dir/main.cpp.o
[ -s "$work/sources/tern-dbus/uses-generated/room_proxy.h" ] || fail "the sources' function generates nothing"

echo "$failures failures"
[ "$failures" -eq 0 ]
