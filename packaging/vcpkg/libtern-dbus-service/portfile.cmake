# An overlay port inside the sources that it builds: vcpkg install libtern-dbus-service --overlay-ports=packaging/vcpkg
get_filename_component(SOURCE_PATH "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)

vcpkg_cmake_configure(
  SOURCE_PATH "${SOURCE_PATH}"
  OPTIONS
    -DTERN_BUILD_TESTS=OFF
    -DTERN_BUILD_TEST_SUPPORT=OFF
    -DTERN_BUILD_EXAMPLES=OFF -DTERN_BUILD_TOOLS=OFF)
vcpkg_cmake_install()
vcpkg_cmake_config_fixup(PACKAGE_NAME TernDBusService CONFIG_PATH lib/cmake/TernDBusService)
vcpkg_fixup_pkgconfig()

# Nothing of these differs between the builds.
file(REMOVE_RECURSE "${CURRENT_PACKAGES_DIR}/debug/include" "${CURRENT_PACKAGES_DIR}/debug/share")
# Scripts for people, which need no build of their own; the other one is a link to what lies with the data.
file(MAKE_DIRECTORY "${CURRENT_PACKAGES_DIR}/tools/${PORT}")
file(RENAME "${CURRENT_PACKAGES_DIR}/bin/tern-new-extension" "${CURRENT_PACKAGES_DIR}/tools/${PORT}/tern-new-extension")
file(COPY "${CURRENT_PACKAGES_DIR}/share/libtern-dbus-service/tern-dbus-codegen"
  DESTINATION "${CURRENT_PACKAGES_DIR}/tools/${PORT}")
file(REMOVE_RECURSE "${CURRENT_PACKAGES_DIR}/bin" "${CURRENT_PACKAGES_DIR}/debug/bin")
vcpkg_install_copyright(FILE_LIST "${SOURCE_PATH}/packaging/debian/copyright")
