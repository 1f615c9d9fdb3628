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
QUILLWICK_CONF_OPTS = -DBUILD_TESTING=OFF -DQUILLWICK_EMULATOR=OFF

define QUILLWICK_LINUX_CONFIG_FIXUPS
	$(call KCONFIG_ENABLE_OPT,CONFIG_I2C)
	$(call KCONFIG_ENABLE_OPT,CONFIG_I2C_CHARDEV)
endef

define QUILLWICK_USERS
	quillwick -1 quillwick -1 * / - i2c,systemd-journal quillwick journal daemon
endef

# For a root file system that is read-only when tmpfiles.d would make it.
define QUILLWICK_PERMISSIONS
	/var/logperm d 0770 root quillwick - - - - -
endef

# The unit comes with the files that CMake installs. journald keeps its journal where the daemon
# reads it.
define QUILLWICK_INSTALL_INIT_SYSTEMD
	$(INSTALL) -D -m 0644 $(@D)/packaging/journald/quillwick.conf \
		$(TARGET_DIR)/usr/lib/systemd/journald.conf.d/quillwick.conf
endef

$(eval $(cmake-package))
