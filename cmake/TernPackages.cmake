# The Debian packages, built by cpack from the install components; scripts/build-packages is the command.
# Included with TERN_DEBIAN_PACKAGES only: it installs what Debian alone wants.
set(TERN_PACKAGE_MAINTAINER "libtern-dbus-service developers <tern-dbus-service@example.com>" CACHE STRING
  "Maintainer of the Debian packages, NAME <ADDRESS>")
set(TERN_PACKAGE_REVISION 1 CACHE STRING "Debian revision of the packages")
set(TERN_PACKAGE_VERSION ${PROJECT_VERSION}-${TERN_PACKAGE_REVISION})

# Two builds of one commit have the same date.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(COMMAND git -C ${PROJECT_SOURCE_DIR} log -1 --format=%ct
    OUTPUT_VARIABLE epoch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(epoch)
    set(ENV{SOURCE_DATE_EPOCH} "${epoch}")
  endif()
endif()
string(TIMESTAMP TERN_PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(debian ${PROJECT_BINARY_DIR}/debian-files)
configure_file(packaging/debian/changelog.in ${debian}/changelog.Debian @ONLY)

# The test support is a component of its own for those who install by hand; in Debian it is for developing, too.
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_COMPONENT_DEV_GROUP dev)
set(CPACK_COMPONENT_TEST-SUPPORT_GROUP dev)

# component:package
set(TERN_PACKAGES runtime:libtern-dbus-service0 typed:libtern-dbus-typed0
  diagnostics:libtern-diagnostics0 dev:libtern-dbus-service-dev doc:libtern-dbus-service-doc)
if(TERN_BUILD_TOOLS)
  list(APPEND TERN_PACKAGES ternctl:ternctl)
endif()
if(TERN_BUILD_EXAMPLES)
  list(APPEND TERN_PACKAGES thermostat:tern-thermostat)
endif()
set(CPACK_COMPONENTS_ALL "")
foreach(pair IN LISTS TERN_PACKAGES)
  string(REGEX MATCH "^([^:]+):(.+)$" matched ${pair})
  set(component ${CMAKE_MATCH_1})
  set(package ${CMAKE_MATCH_2})
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
  install(FILES packaging/debian/copyright ${debian}/changelog.Debian
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
  install(FILES CHANGELOG.md RENAME changelog
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
  # Maintainer scripts and the like carry the package's name here and none in the package.
  file(GLOB extras CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/packaging/debian/${package}.*)
  list(REMOVE_ITEM extras ${PROJECT_SOURCE_DIR}/packaging/debian/${package}.lintian-overrides)
  install(FILES packaging/debian/${package}.lintian-overrides RENAME ${package}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT ${component})
  foreach(extra IN LISTS extras)
    get_filename_component(name ${extra} LAST_EXT)
    string(SUBSTRING ${name} 1 -1 name)
    configure_file(${extra} ${debian}/${package}/${name} COPYONLY)
    list(APPEND CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA ${debian}/${package}/${name})
  endforeach()
endforeach()

# The site: guides and API reference, for reading without this project.
find_program(SPHINX_BUILD sphinx-build REQUIRED)
find_program(DOXYGEN doxygen REQUIRED)
set(site ${PROJECT_BINARY_DIR}/site)
file(GLOB_RECURSE described CONFIGURE_DEPENDS include/*.h platform/*/include/*.h tests/support/*.h docs/*)
add_custom_command(OUTPUT ${site}/html/index.html
  COMMAND scripts/build-docs --no-install ${site}
  DEPENDS scripts/build-docs README.md CONTRIBUTING.md CHANGELOG.md ${described}
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} VERBATIM COMMENT "Making the documentation site")
add_custom_target(tern-site ALL DEPENDS ${site}/html/index.html)
install(DIRECTORY ${site}/html DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libtern-dbus-service-doc COMPONENT doc
  PATTERN .buildinfo EXCLUDE PATTERN objects.inv EXCLUDE)

if(TERN_BUILD_TEST_SUPPORT)
  list(APPEND CPACK_COMPONENTS_ALL test-support)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libtern-dbus-service)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${TERN_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/debian)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Stripped, with what was stripped in packages of its own, for reading a crash from the field.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_READELF_EXECUTABLE ${PROJECT_SOURCE_DIR}/packaging/debian/readelf)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
  WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/debian/staged.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${TERN_PACKAGE_REVISION})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# Shared libraries' packages of the system are found by dpkg-shlibdeps, our own ones are named here.
set(same_version "(= ${TERN_PACKAGE_VERSION})")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}/platform/foundation
  ${PROJECT_BINARY_DIR}/platform/basic_log ${PROJECT_BINARY_DIR}/typed ${PROJECT_BINARY_DIR}/diagnostics)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # would be put before each description

# tern_package_of(NAME FILE...): sets NAME_package to the name of the package that holds the first of the files.
function(tern_package_of name file)
  file(REAL_PATH ${file} file)
  # dpkg may know it by its former place: /lib has become a link to /usr/lib.
  string(REGEX REPLACE "^/usr/lib/" "/lib/" former "${file}")
  execute_process(COMMAND dpkg-query -S ${file} OUTPUT_VARIABLE package ERROR_QUIET)
  if(package STREQUAL "")
    execute_process(COMMAND dpkg-query -S ${former} OUTPUT_VARIABLE package COMMAND_ERROR_IS_FATAL ANY)
  endif()
  string(REGEX REPLACE "[:,].*" "" package "${package}")
  set(${name}_package ${package} PARENT_SCOPE)
endfunction()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# libzip is loaded when it is first needed, so dpkg-shlibdeps does not see it. zip_encryption_method_supported, the
# youngest of the functions that are called, came with 1.7.0.
tern_package_of(libzip ${LIBZIP_LINK_LIBRARIES})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${libzip_package} (>= 1.7.0)")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "frame for services on the system D-Bus (libraries)
The service processes of an embedded Linux device are built on this C++20
library: an sd-event loop on one D-Bus thread, message readers, a small
client, supervised threads, timers and common tools.

This package holds the three shared libraries.")

set(CPACK_DEBIAN_TYPED_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_TYPED_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TYPED_PACKAGE_DEPENDS "libtern-dbus-service0 ${same_version}")
# Loaded when introspection data is first read, which most services never do.
tern_package_of(libexpat ${EXPAT_LINK_LIBRARIES})
set(CPACK_DEBIAN_TYPED_PACKAGE_RECOMMENDS ${libexpat_package})
set(CPACK_DEBIAN_TYPED_DESCRIPTION "typed interfaces on the system D-Bus (library)
Interfaces of services on the system D-Bus, described once in C++20 and
checked by the compiler, on top of libtern-dbus-service.")

set(CPACK_DEBIAN_DIAGNOSTICS_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DIAGNOSTICS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_DIAGNOSTICS_PACKAGE_DEPENDS
  "libtern-dbus-service0 ${same_version}, libtern-dbus-typed0 ${same_version}")
set(CPACK_DEBIAN_DIAGNOSTICS_DESCRIPTION "diagnostics of services on the system D-Bus (library)
What a service built on libtern-dbus-service is doing now, shown on the
bus, and how its former life ended, from a flight recorder that systemd
keeps.")

set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "libtern-dbus-service0 ${same_version}, libtern-dbus-typed0 ${same_version}, libtern-diagnostics0 ${same_version}, libsystemd-dev, pkgconf | pkg-config, python3:any")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS libtern-dbus-service-doc)
set(CPACK_DEBIAN_DEV_DESCRIPTION "frame for services on the system D-Bus (development files)
Headers, CMake and pkg-config files for building an extension on
libtern-dbus-service, and support for testing one on a private bus.")

set(CPACK_DEBIAN_DOC_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DOC_DESCRIPTION "frame for services on the system D-Bus (documents)
The guide to libtern-dbus-service, the reference of its headers, and the
sources of its examples: a service, its client, the tutorial's result, every
type that the typed layer carries, and a client that is generated from XML.")

set(CPACK_DEBIAN_TERNCTL_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TERNCTL_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TERNCTL_PACKAGE_DEPENDS
  "libtern-dbus-typed0 ${same_version}, libtern-diagnostics0 ${same_version}")
set(CPACK_DEBIAN_TERNCTL_PACKAGE_SUGGESTS "bash-completion, openssh-client")
set(CPACK_DEBIAN_TERNCTL_DESCRIPTION "looks into services on the system D-Bus
What the services built on libtern-dbus-service are doing, live or as a
page, what their flight recorders hold, how they ended before they were
restarted, and the thresholds of their logs, here or over ssh.")

set(CPACK_DEBIAN_THERMOSTAT_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_THERMOSTAT_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_THERMOSTAT_PACKAGE_DEPENDS "libtern-dbus-service0 ${same_version}, libtern-dbus-typed0 ${same_version}, \
libtern-diagnostics0 ${same_version}, dbus | dbus-system-bus, systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_THERMOSTAT_PACKAGE_SUGGESTS ternctl)
set(CPACK_DEBIAN_THERMOSTAT_DESCRIPTION "example extension on the system D-Bus
A thermostat that heats a simulated room: an extension built on
libtern-dbus-service with its unit, bus policy and command-line client.")

include(CPack)
