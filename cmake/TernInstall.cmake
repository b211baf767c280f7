# Headers, libraries, the CMake package and the pkg-config files.
# The pkg-config files find the prefix from where they lie, so that `cmake --install FOLDER --prefix` works. Those of the
# system name it, so that pkg-config leaves out what the compiler knows by itself.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(TERN_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
else()
  file(RELATIVE_PATH TERN_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  string(REGEX REPLACE "/$" "" TERN_PC_PREFIX "\${pcfiledir}/${TERN_PC_PREFIX}")
endif()
set(TERN_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
set(TERN_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
set(TERN_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TernDBusService)

set(TERN_INSTALLED_TARGETS tern-dbus-service)
set(TERN_INSTALLED_PC libtern-dbus-service libtern-dbus-typed libtern-diagnostics)
set(TERN_PLATFORM_CONFIG "")
if(TERN_PLATFORM STREQUAL bundled)
  list(APPEND TERN_INSTALLED_TARGETS tern-foundation tern-basic-log)
  list(APPEND TERN_INSTALLED_PC libtern-foundation libtern-basic-log)
  install(DIRECTORY platform/foundation/include/ platform/basic_log/include/
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
else()
  file(READ cmake/TernSystemPlatform.cmake TERN_PLATFORM_CONFIG)
endif()

# In a prefix of its own the library finds the ones beside it without LD_LIBRARY_PATH. The system's folders are searched
# anyway; what the prefix is at installation decides, whatever was configured.
set_target_properties(${TERN_INSTALLED_TARGETS} tern-dbus-typed tern-diagnostics PROPERTIES INSTALL_RPATH "$ORIGIN")
# tern_no_rpath_in_usr(COMPONENT FILE): FILE as installed, below the prefix unless absolute.
function(tern_no_rpath_in_usr component file)
  if(NOT IS_ABSOLUTE "${file}")
    set(file "\${CMAKE_INSTALL_PREFIX}/${file}")
  endif()
  install(CODE "
    if(CMAKE_INSTALL_PREFIX MATCHES \"^/usr/?$\")
      file(RPATH_REMOVE FILE \"\$ENV{DESTDIR}${file}\")
    endif()" COMPONENT ${component})
endfunction()

install(TARGETS ${TERN_INSTALLED_TARGETS} EXPORT TernDBusServiceTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
foreach(target IN LISTS TERN_INSTALLED_TARGETS)
  tern_no_rpath_in_usr(runtime ${CMAKE_INSTALL_LIBDIR}/lib${target}.so.${PROJECT_VERSION})
endforeach()
# The typed layer is a package of its own for those at run time that do without it.
install(TARGETS tern-dbus-typed EXPORT TernDBusServiceTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT typed NAMELINK_COMPONENT dev)
tern_no_rpath_in_usr(typed ${CMAKE_INSTALL_LIBDIR}/libtern-dbus-typed.so.${PROJECT_VERSION})
# So are the diagnostics.
install(TARGETS tern-diagnostics EXPORT TernDBusServiceTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT diagnostics NAMELINK_COMPONENT dev)
tern_no_rpath_in_usr(diagnostics ${CMAKE_INSTALL_LIBDIR}/libtern-diagnostics.so.${PROJECT_VERSION})
install(DIRECTORY include/tern DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(EXPORT TernDBusServiceTargets NAMESPACE tern:: DESTINATION ${TERN_PACKAGE_DIR} COMPONENT dev)

set(TERN_CODEGEN ${CMAKE_INSTALL_DATADIR}/libtern-dbus-service/tern-dbus-codegen)
configure_package_config_file(cmake/TernDBusServiceConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TernDBusServiceConfig.cmake INSTALL_DESTINATION ${TERN_PACKAGE_DIR} PATH_VARS TERN_CODEGEN)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TernDBusServiceConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TernDBusServiceConfig.cmake cmake/TernGenerate.cmake
  ${PROJECT_BINARY_DIR}/TernDBusServiceConfigVersion.cmake DESTINATION ${TERN_PACKAGE_DIR} COMPONENT dev)

foreach(pc IN LISTS TERN_INSTALLED_PC)
  configure_file(cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endforeach()

set(TERN_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/libtern-dbus-service-doc)
install(FILES README.md CONTRIBUTING.md DESTINATION ${TERN_DOC_DIR} COMPONENT doc)
install(DIRECTORY docs DESTINATION ${TERN_DOC_DIR} COMPONENT doc PATTERN Doxyfile EXCLUDE
  PATTERN site EXCLUDE)
# The examples build on their own against the installed package.
install(DIRECTORY examples/greeter examples/thermostat examples/tutorial examples/type-gallery examples/hostname-client
  DESTINATION ${TERN_DOC_DIR}/examples COMPONENT doc)

# The generator of extension projects.
install(PROGRAMS scripts/tern-new-extension DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT dev)
install(DIRECTORY packaging/extension packaging/extension-xml DESTINATION ${CMAKE_INSTALL_DATADIR}/libtern-dbus-service COMPONENT dev)
install(FILES packaging/tern-new-extension.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT dev)

# The generator of C++ from XML. Where what is built for is another machine, nothing of that one's programs is at hand, so it
# lies with the data; people have it as a program.
install(PROGRAMS scripts/tern-dbus-codegen DESTINATION ${CMAKE_INSTALL_DATADIR}/libtern-dbus-service COMPONENT dev)
file(RELATIVE_PATH TERN_CODEGEN_FROM_BIN ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_DATADIR})
file(CREATE_LINK ${TERN_CODEGEN_FROM_BIN}/libtern-dbus-service/tern-dbus-codegen
  ${PROJECT_BINARY_DIR}/tern-dbus-codegen SYMBOLIC)
install(FILES ${PROJECT_BINARY_DIR}/tern-dbus-codegen DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT dev)
install(FILES packaging/tern-dbus-codegen.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT dev)
