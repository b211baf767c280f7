#!/bin/bash
# Reads the Debian packages with lintian, installs them into a scratch root, checks and uses what is there, and purges
# them. The dependencies are checked against the packages of this machine.
#   packages_test.sh SOURCE_FOLDER FOLDER_OF_THE_PACKAGES
set -u
source=$1 packages=$2
if [ "$(id -u)" -ne 0 ] && [ -z "${FAKEROOTKEY:-}" ]; then
    command -v fakeroot >/dev/null || { echo "SKIPPED: the package fakeroot is missing"; exit 77; }
    exec fakeroot "$0" "$@"
fi
command -v lintian >/dev/null || { echo "SKIPPED: the package lintian is missing"; exit 77; }
export PATH=$PATH:/usr/sbin:/sbin
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root
failures=0
ok() { echo "ok $*"; }
fail() {
    echo "FAILED $*"
    failures=$((failures + 1))
}
# check WHAT COMMAND...: the command has to succeed; its output is shown only when it does not.
check() {
    local what=$1
    shift
    if "$@" >"$work/output" 2>&1; then ok "$what"; else
        fail "$what"
        cat "$work/output"
    fi
}

shopt -s nullglob
debs=("$packages"/*.deb)
names=(libtern-dbus-service-dev libtern-dbus-service-doc libtern-dbus-service0 libtern-dbus-typed0 libtern-diagnostics0 tern-thermostat ternctl)
found=$(for deb in "${debs[@]}"; do dpkg-deb -f "$deb" Package; done | sort | tr '\n' ' ')
[ "$found" = "$(printf '%s\n' "${names[@]}" | sort | tr '\n' ' ')" ] && ok "seven packages" || fail "packages: $found"
version=$(sed -n 's/^project(.*VERSION \([0-9.]*\).*/\1/p' "$source/CMakeLists.txt")-1
for deb in "${debs[@]}"; do
    is=$(dpkg-deb -f "$deb" Version)
    [ "$is" = "$version" ] || fail "version of $deb is $is, not $version"
done

# Root may run it here: the files are our own.
check "lintian finds neither error nor warning" lintian --allow-root --fail-on error,warning "${debs[@]}"

# What was stripped is in packages of its own, found by the build id, and explains the very library that is shipped.
for package in libtern-dbus-service0 libtern-dbus-typed0 libtern-diagnostics0 tern-thermostat ternctl; do
    symbols=("$packages/$package-dbgsym_"*)
    [ ${#symbols[@]} -eq 1 ] && dpkg-deb -x "${symbols[0]}" "$work/symbols" || fail "$package has no debug symbols package"
done
debug_file() { readelf -n "$1" | sed -nE 's!.*Build ID: (..)(.*)!usr/lib/debug/.build-id/\1/\2.debug!p'; }

# A root of its own with this machine's package data base, so that dependencies count.
mkdir -p "$root"/{etc,var/lib/dpkg/{info,updates,triggers}}
cp /var/lib/dpkg/status "$root/var/lib/dpkg/status"
in_root() { dpkg --root="$root" --force-script-chrootless --force-not-root "$@" 2>"$work/dpkg.err" >"$work/dpkg.out"; }
# What the documents say to install is complete: each command in a root of its own.
for page in README.md docs/installing.md; do
    named=$(sed -e ':a' -e '/\\$/{N;s/\\\n//;ba' -e '}' "$source/$page" | sed -n 's/.*apt install \(\.\/build.*\)/\1/p')
    eval "files=(${named//.\/build\/packages\/debian/\"\$packages\"})"
    rm -rf "$work/said" && cp -a "$root" "$work/said"
    if [ ${#files[@]} -gt 1 ] && (root=$work/said && in_root -i "${files[@]}"); then
        ok "$page names what belongs together"
    else
        fail "$page: what it names cannot be installed: $named"
        grep -v 'files list file' "$work/dpkg.err"
    fi
done
if in_root -i "${debs[@]}"; then ok "installed"; else
    fail "installation"
    grep -v 'files list file' "$work/dpkg.err"
fi
for name in "${names[@]}"; do
    [ "$(dpkg-query --admindir="$root/var/lib/dpkg" -W -f='${db:Status-Status}' "$name" 2>/dev/null)" = installed ] &&
        ok "$name is configured" || fail "$name is not configured"
    check "$name: check sums" dpkg --root="$root" --verify "$name"
done

triplet=$(dpkg-architecture -q DEB_HOST_MULTIARCH)
lib=usr/lib/$triplet
content() { # content PACKAGE PATH...: the package holds these paths
    local package=$1 path
    shift
    for path in "$@"; do
        dpkg-query --admindir="$root/var/lib/dpkg" -L "$package" | grep -qxF "/$path" && [ -e "$root/$path" ] ||
            fail "$package has no $path"
    done
    ok "$package: content"
}
# What a package holds besides a list of patterns is a mistake.
only() {
    local package=$1 pattern=$2 extra
    extra=$(dpkg-query --admindir="$root/var/lib/dpkg" -L "$package" |
        while read -r path; do [ -d "$root$path" ] || echo "$path"; done | grep -vE "^/($pattern)$")
    [ -z "$extra" ] && ok "$package: nothing else" || fail "$package holds also: $extra"
}
documents="usr/share/doc/PACKAGE/(copyright|changelog(\.Debian)?\.gz)|usr/share/lintian/overrides/PACKAGE"
so_files="" so_links=" $lib/libtern-dbus-typed.so $lib/libtern-diagnostics.so"
pc_files=" $lib/pkgconfig/libtern-dbus-typed.pc $lib/pkgconfig/libtern-diagnostics.pc"
for library in tern-dbus-service tern-foundation tern-basic-log; do
    so_files+=" $lib/lib$library.so.0 $lib/lib$library.so.${version%-*}"
    so_links+=" $lib/lib$library.so"
    pc_files+=" $lib/pkgconfig/lib$library.pc"
done
headers=$(cd "$source/include" && find tern -name '*.h' -printf 'usr/include/%p ')
# shellcheck disable=SC2086
{
    content libtern-dbus-service0 $so_files
    content libtern-dbus-typed0 $lib/libtern-dbus-typed.so.0 $lib/libtern-dbus-typed.so.${version%-*}
    content libtern-diagnostics0 $lib/libtern-diagnostics.so.0 $lib/libtern-diagnostics.so.${version%-*}
    content libtern-dbus-service-dev $so_links $pc_files $headers $lib/cmake/TernDBusService/TernDBusServiceConfig.cmake \
        $lib/libtern-test-support.a $lib/pkgconfig/libtern-test-support.pc usr/bin/tern-{new-extension,dbus-codegen} \
        usr/share/libtern-dbus-service/extension/CMakeLists.txt.in usr/share/man/man1/tern-{new-extension,dbus-codegen}.1.gz \
        usr/share/libtern-dbus-service/tern-dbus-codegen $lib/cmake/TernDBusService/TernGenerate.cmake usr/include/tern-test/private_bus.h usr/include/tern-foundation/status_code.h usr/include/tern-basic-log/root_logger.h
    content libtern-dbus-service-doc usr/share/doc/libtern-dbus-service-doc/{README.md,docs/{packaging,tutorial}.md} \
        usr/share/doc/libtern-dbus-service-doc/html/{index,search,docs/tutorial,reference/typed/bus}.html \
        usr/share/doc/libtern-dbus-service-doc/examples/{greeter,tutorial}/{CMakeLists.txt,main.cpp} \
        usr/share/doc/libtern-dbus-service-doc/examples/thermostat/{CMakeLists.txt,main.cpp} \
        usr/share/doc/libtern-dbus-service-doc/examples/type-gallery/{CMakeLists.txt,main.cpp} \
        usr/share/doc/libtern-dbus-service-doc/examples/hostname-client/{CMakeLists.txt,hostname1.xml,main.cpp}
    content ternctl usr/bin/ternctl usr/share/man/man1/ternctl.1.gz usr/share/bash-completion/completions/ternctl
    content tern-thermostat usr/libexec/tern-thermostat usr/bin/thermostatctl \
        usr/share/man/man1/thermostatctl.1.gz usr/share/man/man8/tern-thermostat.8.gz usr/share/dbus-1/system.d/com.example.Thermostat.conf \
        usr/share/dbus-1/system-services/com.example.Thermostat.service usr/lib/systemd/system/tern-thermostat.service \
        usr/lib/sysusers.d/tern-thermostat.conf etc/tern-thermostat.ini
}
only libtern-dbus-typed0 "$lib/libtern-dbus-typed\.so\.0(\.[0-9.]+)?|${documents//PACKAGE/libtern-dbus-typed0}"
only libtern-diagnostics0 "$lib/libtern-diagnostics\.so\.0(\.[0-9.]+)?|${documents//PACKAGE/libtern-diagnostics0}"
only libtern-dbus-service0 "$lib/libtern-(dbus-service|foundation|basic-log)\.so\.0(\.[0-9.]+)?|${documents//PACKAGE/libtern-dbus-service0}"
[ -z "$(find "$root/usr" "$root/etc" \( ! -user root -o ! -group root -o -perm /o+w ! -type l \) -print -quit)" ] &&
    ok "everything is root's" || fail "owners or modes"

for library in tern-dbus-service tern-dbus-typed tern-diagnostics tern-foundation tern-basic-log; do
    package=libtern-dbus-service0
    [ $library != tern-dbus-typed ] || package=libtern-dbus-typed0
    [ $library != tern-diagnostics ] || package=libtern-diagnostics0
    file=$root/$lib/lib$library.so.0
    readelf -d "$file" >"$work/dynamic"
    grep -q "SONAME.*\[lib$library\.so\.0\]" "$work/dynamic" && ok "$library: soname" || fail "$library: soname"
    grep -qE 'RPATH|RUNPATH' "$work/dynamic" && fail "$library: search path inside"
    readelf -S "$file" | grep -q '\.debug_info' && fail "$library is not stripped"
    readelf -S "$work/symbols/$(debug_file "$file")" 2>/dev/null | grep -q '\.debug_info' && ok "$library: debug symbols" ||
        fail "$library has no debug symbols"
    grep -qaF "${source%/}/" "$file" && fail "$library: a path of the build machine"
    grep -q "^lib$library 0 $package " "$root/var/lib/dpkg/info/$package.shlibs" ||
        fail "$library: shlibs"
done
for program in usr/libexec/tern-thermostat usr/bin/thermostatctl usr/bin/ternctl; do
    readelf -d "$root/$program" | grep -qE 'RPATH|RUNPATH' && fail "$program: search path inside"
done

# What the maintainer scripts did in the scratch root, and nowhere else.
dpkg-deb --ctrl-tarfile "$packages"/libtern-dbus-service0_*.deb | tar -xO ./triggers | grep -q 'noawait ldconfig' ||
    fail "no trigger for the running system's linker"
ldconfig -p -C "$root/etc/ld.so.cache" | grep -qF libtern-dbus-service.so.0 && ok "ldconfig" || fail "ldconfig"
grep -q '^tern-thermostat:' "$root/etc/passwd" && grep -q '^tern-thermostat:' "$root/etc/group" && ok "system user" ||
    fail "system user"
[ -L "$root/etc/systemd/system/multi-user.target.wants/tern-thermostat.service" ] && ok "unit enabled" || fail "unit"
grep -q '^tern-thermostat:' /etc/passwd && fail "the user was made outside the scratch root"
[ -e /etc/systemd/system/multi-user.target.wants/tern-thermostat.service ] && fail "enabled outside the scratch root"

# Closed by default: what the unit leaves open, by systemd's own measure (0 nothing, 100 all).
unit=$root/usr/lib/systemd/system/tern-thermostat.service
for line in Type=notify WatchdogSec= Restart=on-failure StartLimitIntervalSec=0 RestartSteps= RestartMaxDelaySec= \
    FileDescriptorStoreMax=1 NoNewPrivileges=yes ProtectSystem=strict; do
    grep -q "^$line" "$unit" && ok "unit has $line" || fail "unit has no $line"
done
# Systemd's own reading of the unit, with the units and programs that it names; a mistake has to be noticed.
mkdir -p "$root/usr/lib/systemd/system"
for other in multi-user sysinit basic shutdown sockets; do
    printf '[Unit]\nDescription=stands in\n' >"$root/usr/lib/systemd/system/$other.target"
done
printf '[Socket]\nListenStream=/run/dbus/system_bus_socket\n' >"$root/usr/lib/systemd/system/dbus.socket"
printf '[Service]\nExecStart=/usr/libexec/tern-thermostat\n' >"$root/usr/lib/systemd/system/dbus.service"
# The growing pauses are news of version 254; before it they may be ignored, and nothing else.
news="Unknown key( name)? 'Restart(Steps|MaxDelaySec)' in section .*, ignoring"
[ "$(systemd-analyze --version | sed -n '1s/^systemd \([0-9]*\).*/\1/p')" -lt 254 ] || news='^$'
verify() {
    local seen status
    seen=$(systemd-analyze verify --man=no --root="$root" "$1" 2>&1)
    status=$?
    grep -vE "$news" <<<"$seen"
    return $status
}
seen=$(verify tern-thermostat.service) && [ -z "$seen" ] && ok "systemd reads the unit" || fail "systemd on the unit: $seen"
sed 's/^WatchdogSec=.*/WatchdogSec=often/' "$unit" >"$root/usr/lib/systemd/system/mistaken.service"
seen=$(verify mistaken.service)
grep -qE 'mistaken\.service:[0-9]+: Failed to parse' <<<"$seen" && ok "systemd notices a mistake" || fail "systemd notices no mistake: $seen"
rm "$root"/usr/lib/systemd/system/{mistaken.service,dbus.s*,*.target}
check "unit's exposure" systemd-analyze security --no-pager --offline=true --threshold=20 "$unit"

# Used from where it lies: the programs run, a foreign project builds and runs.
export LD_LIBRARY_PATH=$root/$lib
check "the client runs" "$root/usr/bin/thermostatctl" --help
check "ternctl runs" "$root/usr/bin/ternctl" --version
check "the extension runs" "$root/usr/libexec/tern-thermostat" --help
check "a foreign project is configured" cmake -S "$source/tests/consumer" -B "$work/consumer" \
    -DCMAKE_PREFIX_PATH="$root/usr" -DCMAKE_LIBRARY_ARCHITECTURE="$triplet"
grep -q "TernDBusService_DIR:PATH=$root/" "$work/consumer/CMakeCache.txt" || fail "another copy of the library was found"
check "a foreign project is built" cmake --build "$work/consumer"
check "a foreign project runs" env DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nowhere "$work/consumer/uses-foundation"
check "the typed layer works" "$work/consumer/uses-typed"
check "the test support works" "$work/consumer/uses-test-support"
flags=$(PKG_CONFIG_PATH=$root/$lib/pkgconfig pkg-config --define-variable=prefix="$root/usr" --cflags --libs \
    libtern-dbus-service)
check "the generator finds its templates" "$root/usr/bin/tern-new-extension" fan-control "$work/generated"
check "the generator of C++ is found by its link" "$root/usr/bin/tern-dbus-codegen" "$source/tests/consumer/generated/room.xml" \
    "$work/room"
[ -s "$work/room/room_contract.h" ] && [ -s "$work/room/room.md" ] && ok "C++ of XML" || fail "no C++ of XML"
check "a project of XML" "$root/usr/bin/tern-new-extension" --interface "$source/tests/consumer/generated/room.xml" fan \
    "$work/from-xml"
[[ $flags == *"-I$root/usr/include"*"-L$root/$lib"* ]] && ok "pkg-config" || fail "pkg-config: $flags"
unset LD_LIBRARY_PATH

# Away again: removing keeps the settings, purging leaves nothing behind but the user.
mkdir -p "$root/var/lib/tern-thermostat"
in_root -r tern-thermostat && [ -e "$root/etc/tern-thermostat.ini" ] && [ ! -e "$root/usr/bin/thermostatctl" ] &&
    ok "removed, settings kept" || fail "removal"
in_root -P tern-thermostat ternctl libtern-dbus-service-dev libtern-dbus-service-doc libtern-diagnostics0 libtern-dbus-typed0 libtern-dbus-service0 && ok "purged" ||
    { fail "purge"; cat "$work/dpkg.err"; }
left=$(find "$root" -path "$root/var/lib/dpkg" -prune -o ! -type d -print | grep -iE 'tern' )
[ -z "$left" ] && [ ! -e "$root/var/lib/tern-thermostat" ] && ok "nothing is left" || fail "left: $left"

echo "$failures failures"
[ "$failures" -eq 0 ]
