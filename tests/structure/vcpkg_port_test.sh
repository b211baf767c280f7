#!/bin/bash
# Runs the vcpkg port with stand-ins for vcpkg's own functions, which install this build. The generators that the port
# moves to the tools find what they need there.
#   vcpkg_port_test.sh SOURCE_FOLDER BUILD_FOLDER
set -eu
source=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cat >"$work/run.cmake" <<END
set(PORT libtern-dbus-service)
set(CURRENT_PACKAGES_DIR "$work/packages")
function(vcpkg_cmake_configure)
endfunction()
function(vcpkg_cmake_install)
  execute_process(COMMAND \${CMAKE_COMMAND} --install "$build" --prefix \${CURRENT_PACKAGES_DIR}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
endfunction()
function(vcpkg_cmake_config_fixup)
endfunction()
function(vcpkg_fixup_pkgconfig)
endfunction()
function(vcpkg_install_copyright ignored file)
  if(NOT EXISTS "\${file}")
    message(FATAL_ERROR "there is no \${file}")
  endif()
endfunction()
include("$source/packaging/vcpkg/libtern-dbus-service/portfile.cmake")
END
cmake -P "$work/run.cmake"
echo "installed by the port"

tools=$work/packages/tools/libtern-dbus-service
"$tools/tern-new-extension" fan-control "$work/plain" >"$work/output"
[ -e "$work/plain/src/fan_control_server.cpp" ] || { echo "no project was written"; exit 1; }
"$tools/tern-new-extension" --open --interface "$source/examples/hostname-client/hostname1.xml" fan-control "$work/from-xml" >"$work/output"
[ -e "$work/from-xml/src/fan_control_interface.cpp" ] || { echo "no project was written from XML"; exit 1; }
echo "the generators work where the port puts them"
