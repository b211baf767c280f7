#!/bin/bash
# Installs the build into a scratch prefix and builds and runs a foreign project against it, found by find_package and
# by pkg-config. Nothing needs LD_LIBRARY_PATH there, nor leaves a search path in what is installed below /usr.
#   consumer_test.sh SOURCE_FOLDER BUILD_FOLDER CXX [FLAGS...]
set -eu
source=$1 build=$2 cxx=$3
shift 3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/no-bus-here

touch "$work/begin"
cmake --install "$build" --prefix "$work/prefix" >"$work/install.log"
# The build folder is only read, so that it can be installed from several times at once. Looked at are the folders that are
# installed from: other tests have folders of their own in it, to install into as well.
installed_from() {
    echo "$1"
    sed -n 's|.*include("\(.*\)/cmake_install.cmake").*|\1|p' "$1/cmake_install.cmake" | while read -r folder; do
        installed_from "$folder"
    done
}
find "$work/prefix" -type f -printf '%f\n' | sort -u >"$work/names"
mapfile -t folders < <(installed_from "$build")
[ "${#folders[@]}" -gt 10 ] || { echo "too few folders are installed from: ${folders[*]}"; exit 1; }
written=$(find "${folders[@]}" -maxdepth 1 -type f -newer "$work/begin" -printf '%f %p\n' |
    awk 'NR == FNR { names[$1]; next } $1 in names { print $2 }' "$work/names" -)
[ -z "$written" ] || { echo "installing has written in the build folder: $written"; exit 1; }
libdir=$(dirname "$(find "$work/prefix" -name libtern-dbus-service.so.0)")
for library in dbus-service dbus-typed foundation basic-log; do
    soname=$(readelf -d "$libdir/libtern-$library.so" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
    [ "$soname" = "libtern-$library.so.0" ] || { echo "soname of $library is $soname"; exit 1; }
done
echo "installed, sonames as stated"
# What the prefix is at installation decides, whatever was configured: the system's settings are in /etc.
if [ -e "$build/examples/thermostat/cmake_install.cmake" ]; then
    DESTDIR=$work/image cmake --install "$build" --prefix /usr >"$work/install.log"
    settings=$(cd "$work" && find . -path '*/etc/tern-thermostat.ini' | sort | tr '\n' ' ')
    [ "$settings" = "./image/etc/tern-thermostat.ini ./prefix/etc/tern-thermostat.ini " ] ||
        { echo "settings are at $settings"; exit 1; }
    echo "settings are where they are read"
    unit=lib/systemd/system/tern-thermostat.service
    # A unit names its program by an absolute path, however the prefix is given.
    (cd "$work" && cmake --install "$build" --component thermostat --prefix here) >"$work/install.log"
    grep -qx "ExecStart=$work/here/libexec/tern-thermostat $work/here/etc/tern-thermostat.ini" "$work/here/$unit" ||
        { echo "the unit of a relative prefix names other places"; grep Exec "$work/here/$unit"; exit 1; }
    grep -qx 'ExecStart=/usr/libexec/tern-thermostat /etc/tern-thermostat.ini' "$work/image/usr/$unit" &&
        grep -qx "ExecStart=$work/prefix/libexec/tern-thermostat $work/prefix/etc/tern-thermostat.ini" "$work/prefix/$unit" ||
        { echo "the units name other places"; grep Exec "$work/image/usr/$unit" "$work/prefix/$unit"; exit 1; }
    for file in "$work"/image/usr/lib*/libtern-*.so.0.* "$work"/image/usr/lib*/*/libtern-*.so.0.* "$work"/image/usr/bin/thermostatctl \
        "$work"/image/usr/libexec/tern-thermostat; do
        [ ! -e "$file" ] || ! readelf -d "$file" | grep -E 'R(UN)?PATH' || { echo "$file has a search path"; exit 1; }
    done
    for program in "$work"/prefix/bin/thermostatctl "$work"/prefix/libexec/tern-thermostat; do
        "$program" --help >"$work/help" || { echo "$program does not start"; exit 1; }
    done
    echo "what is installed starts as it is"
fi
if [ -e "$build/tools/ternctl/cmake_install.cmake" ]; then
    "$work/prefix/bin/ternctl" --version >"$work/version" || { echo "ternctl does not start"; exit 1; }
fi
# tells LIBRARY FEATURE LOADED: the note of what it loads while it runs.
tells() {
    local library=$libdir/$1.so notes
    notes=$(readelf -nW "$library" 2>&1) || true  # it does not know this kind
    if ! grep -q FDO <<<"$notes" || grep -qi 'corrupt' <<<"$notes" ||
        ! strings "$library" | grep -qE '^\[\{"feature":"'"$2"'",.*"soname":\["'"$3"'\.so\.[0-9]+"\]\}\]$' ||
        readelf -d "$library" | grep -F "[$3."; then
        echo "$1 does not tell that it loads $3, or is linked with it:"
        echo "$notes"
        exit 1
    fi
}
tells libtern-dbus-service archive libzip
tells libtern-dbus-typed introspection libexpat
echo "the libraries tell what they load later"

# run_all FOLDER [LIBRARY_PATH]
run_all() {
    for program in uses-foundation uses-log uses-service; do
        LD_LIBRARY_PATH=${2:-} "$1/$program" 2>"$work/log" || { echo "$program failed"; cat "$work/log"; exit 1; }
    done
    grep -q 'Failed to connect to system bus (-2, No such file or directory)' "$work/log" ||
        { echo "no bus, but no message either"; cat "$work/log"; exit 1; }
}

cmake -S "$source/tests/consumer" -B "$work/by-cmake" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_CXX_FLAGS="$*" >"$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; exit 1; }
cmake --build "$work/by-cmake" >"$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; exit 1; }
run_all "$work/by-cmake"
"$work/by-cmake/uses-typed" || { echo "uses-typed failed"; exit 1; }
env -u DBUS_SYSTEM_BUS_ADDRESS "$work/by-cmake/uses-test-support" || { echo "test support failed"; exit 1; }
echo "find_package: built and ran"

export PKG_CONFIG_PATH=$libdir/pkgconfig
mkdir "$work/by-pkg-config"
for pair in foundation:libtern-foundation log:libtern-basic-log service:libtern-dbus-service; do
    # shellcheck disable=SC2046
    "$cxx" -std=c++17 -Wall -Wextra -Wpedantic -Werror "$@" "$source/tests/consumer/${pair%%:*}.cpp" \
        -o "$work/by-pkg-config/uses-${pair%%:*}" $(pkg-config --cflags --libs "${pair#*:}") \
        -Wl,-rpath-link,"$libdir"
done
run_all "$work/by-pkg-config" "$libdir"
# shellcheck disable=SC2046
"$cxx" -std=c++20 -Wall -Wextra -Wpedantic -Werror "$@" "$source/tests/consumer/typed.cpp" \
    -o "$work/by-pkg-config/uses-typed" $(pkg-config --cflags --libs libtern-dbus-typed) -Wl,-rpath-link,"$libdir"
LD_LIBRARY_PATH=$libdir "$work/by-pkg-config/uses-typed" || { echo "uses-typed by pkg-config failed"; exit 1; }
# shellcheck disable=SC2046
"$cxx" -std=c++20 -Wall -Wextra -Wpedantic -Werror "$@" "$source/tests/consumer/test_support.cpp" \
    -o "$work/by-pkg-config/uses-test-support" \
    $(pkg-config --cflags --libs libtern-test-support libtern-dbus-service) \
    -Wl,-rpath-link,"$libdir"
env -u DBUS_SYSTEM_BUS_ADDRESS LD_LIBRARY_PATH="$libdir" "$work/by-pkg-config/uses-test-support" ||
    { echo "test support by pkg-config failed"; exit 1; }
echo "pkg-config: built and ran"

# The sources inside another project. In the build folder, as the library is built once more: the next time it is there.
[ $# -eq 0 ] || exit 0
cmake -S "$source/tests/consumer/vendored" -B "$build/vendored" -DTERN_SOURCE="$source" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_BUILD_TYPE=Debug >"$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; exit 1; }
cmake --build "$build/vendored" -j 2 >"$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; exit 1; }
"$build/vendored/uses-service" 2>"$work/log" || { echo "the vendored library does not run"; cat "$work/log"; exit 1; }
if grep -E '^TERN_(BUILD_[A-Z_]+|WARNINGS_AS_ERRORS|DEBIAN_PACKAGES|COVERAGE):BOOL=ON' "$build/vendored/CMakeCache.txt" ||
    find "$build/vendored" -name '*_test' -o -name 'tern-thermostat' | grep .; then
    echo "a project that vendors the sources gets what it did not ask for"
    exit 1
fi
echo "vendored: built and ran"
