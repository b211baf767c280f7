################################################################################
#
# libtern-dbus-service
#
################################################################################

LIBTERN_DBUS_SERVICE_VERSION = 0.1.0
# This tree lies inside the sources that it builds.
LIBTERN_DBUS_SERVICE_SITE = $(BR2_EXTERNAL_TERN_PATH)/../..
LIBTERN_DBUS_SERVICE_SITE_METHOD = local
# The owner has not chosen a licence: for your own devices, with the authors' permission only.
LIBTERN_DBUS_SERVICE_LICENSE = PROPRIETARY
LIBTERN_DBUS_SERVICE_LICENSE_FILES = packaging/debian/copyright
LIBTERN_DBUS_SERVICE_REDISTRIBUTE = NO
LIBTERN_DBUS_SERVICE_INSTALL_STAGING = YES
LIBTERN_DBUS_SERVICE_DEPENDENCIES = host-pkgconf systemd expat libzip
LIBTERN_DBUS_SERVICE_CONF_OPTS = \
	-DTERN_BUILD_TESTS=OFF \
	-DTERN_BUILD_TEST_SUPPORT=OFF \
	-DTERN_BUILD_TOOLS=$(if $(BR2_PACKAGE_LIBTERN_DBUS_SERVICE_TERNCTL),ON,OFF) \
	-DTERN_BUILD_EXAMPLES=$(if $(BR2_PACKAGE_LIBTERN_DBUS_SERVICE_THERMOSTAT),ON,OFF)

ifeq ($(BR2_PACKAGE_LIBTERN_DBUS_SERVICE_THERMOSTAT),y)
define LIBTERN_DBUS_SERVICE_USERS
	tern-thermostat -1 tern-thermostat -1 * - - - Thermostat extension
endef
endif

$(eval $(cmake-package))
