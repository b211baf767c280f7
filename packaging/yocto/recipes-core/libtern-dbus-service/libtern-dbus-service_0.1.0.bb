SUMMARY = "Frame and tools for service processes on the system D-Bus"
DESCRIPTION = "C++20 library on which the service processes of an embedded device are built: an sd-event loop on one \
D-Bus thread, message readers, a small client, supervised threads, timers and common tools."
SECTION = "libs"

# The owner has not chosen a licence: build it for your own devices with the authors' permission only.
LICENSE = "CLOSED"

# Where your copy of the sources is: a folder on the build machine, or set SRC_URI and SRCREV to your repository.
inherit externalsrc
EXTERNALSRC ?= "${THISDIR}/../../../.."

DEPENDS = "systemd libzip expat"

inherit cmake pkgconfig ptest features_check
REQUIRED_DISTRO_FEATURES = "systemd"

PACKAGECONFIG ??= "${@bb.utils.contains('PTEST_ENABLED', '1', 'tests', '', d)}"
PACKAGECONFIG[tests] = "-DTERN_BUILD_TESTS=ON -DTERN_BUILD_TEST_SUPPORT=ON,-DTERN_BUILD_TESTS=OFF,googletest"
PACKAGECONFIG[ternctl] = "-DTERN_BUILD_TOOLS=ON,-DTERN_BUILD_TOOLS=OFF"
PACKAGECONFIG[thermostat] = "-DTERN_BUILD_EXAMPLES=ON,-DTERN_BUILD_EXAMPLES=OFF"

# libzip is loaded with the first archive, which the list of linked libraries does not show.
RDEPENDS:${PN} += "libzip"
# So is expat, with the first introspection data, which few services read.
RRECOMMENDS:${PN} += "expat"
RDEPENDS:${PN}-ptest += "dbus bash"

SRC_URI += "file://run-ptest"

do_install_ptest() {
    install -d ${D}${PTEST_PATH}/tests
    # Every unit test is a program of its own.
    find ${B}/tests -maxdepth 2 -type f -perm -u+x -name '*_test' -exec install -m 0755 {} ${D}${PTEST_PATH}/tests/ \;
}

PACKAGES =+ "${PN}-thermostat ternctl"
FILES:ternctl = "${bindir}/ternctl ${datadir}/bash-completion"
FILES:${PN}-thermostat = "${libexecdir}/tern-thermostat ${bindir}/thermostatctl ${sysconfdir}/tern-thermostat.ini \
    ${nonarch_libdir}/systemd/system ${nonarch_libdir}/sysusers.d ${datadir}/dbus-1"
FILES:${PN}-dev += "${bindir}/tern-new-extension ${bindir}/tern-dbus-codegen ${datadir}/libtern-dbus-service"
RDEPENDS:${PN}-dev += "bash python3-core python3-xml"
