################################################################################
#
# quillwick
#
################################################################################

# The clone that this tree is a part of. Its folder build holds other builds.
QUILLWICK_VERSION = 1.0.0
QUILLWICK_SITE = $(BR2_EXTERNAL_QUILLWICK_PATH)/../..
QUILLWICK_SITE_METHOD = local
QUILLWICK_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude=/build
QUILLWICK_LICENSE = LicenseRef-quillwick
QUILLWICK_LICENSE_FILES = LICENSES/LicenseRef-quillwick.txt
QUILLWICK_REDISTRIBUTE = NO
QUILLWICK_DEPENDENCIES = host-pkgconf log4cplus systemd
# The tests and the stand-in chip need a developer's machine.
QUILLWICK_CONF_OPTS = \
	-DBUILD_TESTING=OFF \
	-DQUILLWICK_EMULATOR=OFF \
	-DQUILLWICK_I2C_DEVICE=$(BR2_PACKAGE_QUILLWICK_I2C_DEVICE) \
	-DQUILLWICK_SLAVE_ADDRESS=$(BR2_PACKAGE_QUILLWICK_SLAVE_ADDRESS) \
	-DQUILLWICK_LOG_FOLDER=$(BR2_PACKAGE_QUILLWICK_LOG_FOLDER) \
	-DQUILLWICK_CONTROL_SOCKET=$(BR2_PACKAGE_QUILLWICK_CONTROL_SOCKET) \
	-DQUILLWICK_CONFIGURATION=$(BR2_PACKAGE_QUILLWICK_CONFIGURATION)

define QUILLWICK_LINUX_CONFIG_FIXUPS
	$(call KCONFIG_ENABLE_OPT,CONFIG_I2C)
	$(call KCONFIG_ENABLE_OPT,CONFIG_I2C_CHARDEV)
endef

define QUILLWICK_USERS
	quillwick -1 quillwick -1 * / - i2c,systemd-journal quillwick journal daemon
endef

# For a root file system that is read-only when tmpfiles.d would make it.
define QUILLWICK_PERMISSIONS
	$(call qstrip,$(BR2_PACKAGE_QUILLWICK_LOG_FOLDER)) d 0770 root quillwick - - - - -
endef

# The units come with the files that CMake installs, and Buildroot enables all but templates.
# journald keeps its journal where the daemon reads it.
define QUILLWICK_INSTALL_INIT_SYSTEMD
	$(INSTALL) -D -m 0644 $(@D)/packaging/journald/quillwick-storage.conf \
		$(TARGET_DIR)/usr/lib/systemd/journald.conf.d/quillwick-storage.conf
endef

$(eval $(cmake-package))
