#!/bin/bash
# Installs the build into a scratch prefix and has the installed generator write a project, which is then built without a
# warning, passes its own tests, is installed, started on a private bus, called and stopped. Wrong names and folders are
# refused with nothing written.
#   generator_test.sh BUILD_FOLDER CXX
set -u
build=$1 cxx=$2
work=$(mktemp -d)
bus_pid="" extension_pid=""
failures=0
cleanup() {
    for pid in $extension_pid $bus_pid; do
        kill "$pid" 2>/dev/null
        wait "$pid" 2>/dev/null
    done
    rm -rf "$work"
}
trap cleanup EXIT
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
        cat "$work/output"
        echo "FAILED $what"
        exit 1
    fi
}
wait_for() {
    for _ in $(seq 600); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.05
    done
    return 1
}

must "installed" cmake --install "$build" --prefix "$work/prefix"
new() { "$work/prefix/bin/tern-new-extension" "$@"; }

# refused STATUS PATTERN ARGUMENT...
refused() {
    local expected=$1 pattern=$2 output status
    shift 2
    output=$(new "$@" 2>&1)
    status=$?
    if [ "$status" -eq "$expected" ] && [[ $output == "tern-new-extension: "$pattern ]] && [ ! -e "$work/refused" ]; then
        ok "refused: $*"
    else
        fail "$*: status $status, output: $output"
    fi
}
hint=$'\n'"Try 'tern-new-extension --help'."
refused 2 "a name and a folder are needed, not 0 arguments$hint"
refused 2 "a name and a folder are needed, not 3 arguments$hint" a b c
refused 2 "unknown option '--colour'$hint" --colour fan "$work/refused"
refused 2 "--domain takes a domain$hint" --domain
refused 2 "--interface takes a file$hint" --interface
refused 2 "--open goes with --interface$hint" --open fan "$work/refused"
refused 2 "--entities goes with --interface$hint" --entities fan "$work/refused"
for name in "" Fan fan_control fan--control -fan fan- 2fan "fan control" "fan/control" "fan;rm" fän $'fan\nx'; do
    case $name in -*) continue ;; esac  # an option, above
    refused 2 "'$name' is not a name: *$hint" "$name" "$work/refused"
done
refused 2 "'a23456789012345678901234567890bc' has 32 characters; *$hint" a23456789012345678901234567890bc "$work/refused"
refused 2 "'test' has a meaning of its own in CMake$hint" test "$work/refused"
refused 2 "'preinstall' has a meaning of its own in CMake$hint" preinstall "$work/refused"
refused 2 "'root' is a user, group or service of the system$hint" root "$work/refused"
refused 2 "'systemd-fan' is a user, *$hint" systemd-fan "$work/refused"
for domain in com "" com. com..example 2com.example com.ex-ample; do
    refused 2 "'$domain' is not a domain: *$hint" --domain "$domain" fan "$work/refused"
done
mkdir "$work/full" && touch "$work/full/mine" "$work/file"
refused 1 "$work/full is not empty; nothing was written" fan "$work/full"
[ "$(ls "$work/full")" = mine ] || fail "something was written into a folder that was not empty"
refused 1 "$work/file is no folder" fan "$work/file"
# Files that cannot be written, as on a full disk: neither files nor folders are left.
mkdir "$work/empty"
for folder in refused/deep empty; do
    is=$(trap '' XFSZ; ulimit -f 1; new fan "$work/$folder" 2>&1)
    [ $? -eq 1 ] && [[ $is == *"tern-new-extension: $work/$folder cannot be written; nothing was" ]] && [ ! -e "$work/refused" ] &&
        [ -z "$(ls -A "$work/empty")" ] && ok "refused: a full disk, $folder" || fail "a full disk, $folder: $is"
done
new --help | grep -q '^Usage: tern-new-extension' && ok "help" || fail "help"

# The longest name and a name that is a word of C++ build as well as any other.
name=fan-control bus=org.acme_2.FanControl path=/org/acme_2/FanControl
mkdir "$work/empty folder"
project="$work/empty folder"
must "written" new --domain org.acme_2 $name "$project"
next=$(tail -n 1 "$work/output")
(eval "${next%% && *}" 2>/dev/null && [ -e CMakeLists.txt ]) && ok "what is said to come next works" || fail "next: $next"
must "configured" cmake -S "$project" -B "$project/build" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_CXX_FLAGS=-Werror -DCMAKE_BUILD_TYPE=Debug
grep -q "TernDBusService_DIR:PATH=$work/prefix/" "$project/build/CMakeCache.txt" || fail "another copy was found"
must "built without a warning" cmake --build "$project/build"
export LD_LIBRARY_PATH
LD_LIBRARY_PATH=$(dirname "$(find "$work/prefix" -name libtern-dbus-service.so.0)")
must "its tests pass" ctest --test-dir "$project/build" --output-on-failure --no-tests=error
"$project/build/$name-test" --gtest_list_tests | grep -c '^  ' >"$work/count"
[ "$(cat "$work/count")" -ge 5 ] || fail "only $(cat "$work/count") tests"
# A program that dies at its start is told of at once by each test, with its exit status.
must "kept" mv "$project/build/$name" "$work/kept"
printf '#!/bin/sh\nexit 7\n' >"$project/build/$name"
chmod +x "$project/build/$name"
start=$(date +%s)
"$project/build/$name-test" >"$work/output" 2>&1 && fail "the tests passed without a program"
[ $(($(date +%s) - start)) -le 15 ] || fail "a dead program was waited for: $(($(date +%s) - start)) s"
[ "$(grep -c "/build/$name: process [0-9]* has ended with exit status 7" "$work/output")" -eq "$(cat "$work/count")" ] &&
    ok "a dead program is told of" || { cat "$work/output"; fail "a dead program is not told of"; }
must "put back" mv "$work/kept" "$project/build/$name"
! grep -rqi diagnos "$project" --include=*.cpp --include=*.h --include=CMakeLists.txt --exclude-dir=build &&
    ok "no diagnostics that nobody asked for" || fail "diagnostics that nobody asked for"
for name_of_cpp in switch a2345678901234567890123456789bc; do
    must "written: $name_of_cpp" new $([ $name_of_cpp = switch ] && echo --diagnostics) $name_of_cpp "$work/$name_of_cpp"
    must "configured: $name_of_cpp" cmake -S "$work/$name_of_cpp" -B "$work/$name_of_cpp/build" -DBUILD_TESTING=OFF \
        -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS=-Werror
    must "built: $name_of_cpp" cmake --build "$work/$name_of_cpp/build"
done

# From XML: each interface has a class, all are on the bus, and what is not written yet is refused.
cat >"$work/fan.xml" <<'XML'
<!DOCTYPE node [<!ENTITY turn "Turn">]><node>
  <interface name="org.acme.Fan1">
    <method name="&turn;"><arg name="speed" type="u"/><arg name="before" type="u" direction="out"/></method>
    <method name="Later"><annotation name="mwl.Typed.Deferred" value="true"/><arg name="reply" type="s"/></method>
    <method name="Files"><arg name="file" type="h"/></method>
    <property name="Speed" type="u" access="readwrite"/>
    <property name="Label" type="s" access="readwrite"/>
    <property name="File" type="h" access="read"/>
    <signal name="Stalled"/>
  </interface>
  <interface name="org.acme.Light1"><property name="mSpeed" type="as" access="readwrite"/></interface>
  <!-- As the project's own classes and constants. -->
  <interface name="org.acme.XmlFanServer"><method name="Play"/></interface>
  <interface name="org.acme.XmlFanExtension"><method name="Play"/></interface>
  <interface name="org.acme.StatusCode"><method name="Play"/></interface>
  <interface name="org.acme.LOGGER"><method name="Play"/></interface>
</node>
XML
must "written from XML" new --interface "$work/fan.xml" --open --entities --diagnostics xml-fan "$work/xml-fan"
must "configured: from XML" cmake -S "$work/xml-fan" -B "$work/xml-fan/build" -DCMAKE_PREFIX_PATH="$work/prefix" \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS=-Werror
must "built without a warning: from XML" cmake --build "$work/xml-fan/build"
must "its tests pass: from XML" ctest --test-dir "$work/xml-fan/build" --output-on-failure --no-tests=error
for test in HasItsInterfaces CanBeLookedInto; do
    "$work/xml-fan/build/xml-fan-test" --gtest_list_tests | grep -q $test || fail "from XML: no test $test"
done
# Through a pipe, which can be read once only: the project had an empty file.
must "written from a pipe" bash -c '"$0" --interface <(cat "$1") --open --entities --diagnostics xml-fan "$2"' \
    "$work/prefix/bin/tern-new-extension" "$work/fan.xml" "$work/piped"
diff -r -x build "$work/xml-fan" "$work/piped" && ok "from a pipe as from a file" || fail "from a pipe: another project"
sed -i 's/type="u" access/type="uu" access/' "$work/fan.xml"
is=$(new --interface "$work/fan.xml" --entities xml-fan "$work/refused" 2>&1)
[ $? -eq 1 ] && [[ $is == "$work/fan.xml:6: org.acme.Fan1.Speed: "*"tern-new-extension: $work/fan.xml cannot be used" ]] &&
    [ ! -e "$work/refused" ] && ok "refused: XML with a mistake" || fail "XML with a mistake: $is"
is=$(new --interface <(cat "$work/fan.xml") --entities xml-fan "$work/refused" 2>&1)
[ $? -eq 1 ] && [[ $is == "interface.xml:6: org.acme.Fan1.Speed: "*"tern-new-extension: /dev/fd/"*" cannot be used" ]] &&
    [ ! -e "$work/refused" ] && ok "refused: a mistake from a pipe" || fail "a mistake from a pipe: $is"

must "the project is installed" env DESTDIR="$work/root" cmake --install "$project/build" --prefix /usr
# A unit names its program by an absolute path, however the prefix is given.
(cd "$work" && cmake --install "$project/build" --prefix here && DESTDIR=$work/image cmake --install "$project/build" --prefix /) \
    >"$work/output" 2>&1
named=$(cd "$work" && sed -n 's/^ExecStart=//p' here/lib/systemd/system/*.service image/lib/systemd/system/*.service | tr '\n' ' ')
[ "$named" = "$work/here/libexec/$name /libexec/$name " ] && ok "units name their programs" || fail "the units name $named"
# Installed, it finds the library in a prefix of its own in the way that docs/installing.md says.
cmake -S "$project" -B "$project/build" -DCMAKE_INSTALL_RPATH_USE_LINK_PATH=ON >"$work/output" 2>&1 &&
    cmake --install "$project/build" --prefix "$work/there" >"$work/output" 2>&1
output=$(env -u LD_LIBRARY_PATH "$work/there/libexec/$name" unwanted 2>&1)
[ $? -eq 2 ] && [[ $output == Usage:* ]] && ok "finds the library" || fail "does not find the library: $output"
for file in libexec/$name lib/systemd/system/$name.service lib/sysusers.d/$name.conf share/dbus-1/system.d/$bus.conf \
    share/dbus-1/system-services/$bus.service; do
    [ -s "$work/root/usr/$file" ] || fail "not installed: $file"
done
unit=$work/root/usr/lib/systemd/system/$name.service
for line in Type=notify BusName=$bus WatchdogSec= Restart=on-failure StartLimitIntervalSec=0 RestartSteps= RestartMaxDelaySec= \
    FileDescriptorStoreMax=1 NoNewPrivileges=yes ProtectSystem=strict User=$name; do
    grep -q "^$line" "$unit" || fail "the unit has no $line"
done
# Systemd's own reading of it, with stand-ins for the units that it names.
for other in multi-user sysinit basic shutdown sockets; do
    printf '[Unit]\nDescription=stands in\n' >"$(dirname "$unit")/$other.target"
done
printf '[Socket]\nListenStream=/run/dbus/system_bus_socket\n' >"$(dirname "$unit")/dbus.socket"
printf '[Service]\nExecStart=/usr/libexec/%s\n' $name >"$(dirname "$unit")/dbus.service"
is=$(systemd-analyze verify --man=no --root="$work/root" $name.service 2>&1)
status=$?
# The growing pauses are news of version 254; before it they may be ignored, and nothing else.
[ "$(systemd-analyze --version | sed -n '1s/^systemd \([0-9]*\).*/\1/p')" -ge 254 ] ||
    is=$(grep -vE "Unknown key( name)? 'Restart(Steps|MaxDelaySec)' in section .*, ignoring" <<<"$is")
[ $status -eq 0 ] && [ -z "$is" ] && ok "systemd reads the unit" ||
    fail "systemd on the unit: $is"
# 0 leaves nothing open, 100 all.
must "the unit is closed" systemd-analyze security --no-pager --offline=true --threshold=15 "$unit"
grep -qx "u $name - .*" "$work/root/usr/lib/sysusers.d/$name.conf" || fail "system user"

# Started with the policy that it brings, in place of the system's: whoever runs this test is named in it.
sed "s/user=\"$name\"/user=\"$(id -un)\"/; /group=/,/policy>/d" "$work/root/usr/share/dbus-1/system.d/$bus.conf" >"$work/policy"
cat >"$work/bus.conf" <<XML
<busconfig><listen>unix:path=$work/bus</listen>
  <policy context="default"><allow user="*"/><deny own="*"/><deny send_type="method_call"/>
    <allow send_destination="org.freedesktop.DBus"/><allow send_type="signal"/><allow send_type="method_return"/>
    <allow send_type="error"/><allow receive_type="*"/></policy>
  <policy user="$(id -un)"><allow send_destination="$bus"/></policy>
  <include>$work/policy</include></busconfig>
XML
dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile --nosyslog --print-address >"$work/address" 2>"$work/bus.log" &
bus_pid=$!
# Told when it listens; the socket is there before.
wait_for test -s "$work/address" || { cat "$work/bus.log"; fail "no bus"; }
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/bus
"$work/root/usr/libexec/$name" 2>"$work/log" &
extension_pid=$!
wait_for busctl --system status $bus || { cat "$work/log"; fail "did not start"; }
is=$(busctl --system call $bus $path ${bus}1 Greet s world)
[ "$is" = 's "Hello, world"' ] && ok "answers" || fail "answer: $is"
is=$(busctl --system get-property $bus $path ${bus}1 Greetings)
[ "$is" = "u 1" ] && ok "counts" || fail "property: $is"
kill -TERM $extension_pid
wait $extension_pid
status=$?
extension_pid=""
[ $status -eq 0 ] && ok "stopped in order" || fail "ended with $status"

echo "$failures failures"
[ "$failures" -eq 0 ]
