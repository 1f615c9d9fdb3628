SUMMARY = "Journal daemon that keeps the newest entries in FRAM"
DESCRIPTION = "Reads every entry of the systemd runtime journal up to a configured priority and \
stores it at once in a FRAM chip on the I2C bus, where it survives a loss of power. Batches go into a \
rolling log file. The same program is the client that prints the newest entries and follows them. \
quillwick-decode reads the image of a chip, and quillwick-tail ships every line once."
SECTION = "console/utils"
LICENSE = "LicenseRef-quillwick"
NO_GENERIC_LICENSE[quillwick] = "LICENSES/LicenseRef-quillwick.txt"
LIC_FILES_CHKSUM = "file://LICENSES/LicenseRef-quillwick.txt;md5=6f693bbd002e65744cfb2b581b81d84f"

# The newest commit of the clone that holds this layer. To build a release from a mirror, set both in
# local.conf or in the distribution:
#   QUILLWICK_SRC_URI = "git://HOST/PATH;protocol=https;branch=BRANCH"
#   QUILLWICK_SRCREV = "COMMIT"
QUILLWICK_SRC_URI ?= "git://${QUILLWICK_CLONE};protocol=file;usehead=1"
QUILLWICK_SRCREV ?= "${AUTOREV}"
SRC_URI = "${QUILLWICK_SRC_URI} file://run-ptest"
SRCREV = "${QUILLWICK_SRCREV}"
PV = "1.0.0+git"

DEPENDS = "log4cplus systemd"

inherit cmake pkgconfig systemd useradd features_check bash-completion ptest

REQUIRED_DISTRO_FEATURES = "systemd"

# Where the board has what the daemon uses. Set them in local.conf or in the machine's configuration.
QUILLWICK_I2C_DEVICE ?= "/dev/i2c-2"
QUILLWICK_SLAVE_ADDRESS ?= "0x50"
QUILLWICK_LOG_FOLDER ?= "/var/logperm"
QUILLWICK_CONTROL_SOCKET ?= "/tmp/quillwick"
QUILLWICK_CONFIGURATION ?= "/etc/quillwick.conf"

# The tests and the stand-in chip need a developer's machine.
EXTRA_OECMAKE = " \
    -DBUILD_TESTING=OFF \
    -DQUILLWICK_EMULATOR=OFF \
    -DQUILLWICK_I2C_DEVICE=${QUILLWICK_I2C_DEVICE} \
    -DQUILLWICK_SLAVE_ADDRESS=${QUILLWICK_SLAVE_ADDRESS} \
    -DQUILLWICK_LOG_FOLDER=${QUILLWICK_LOG_FOLDER} \
    -DQUILLWICK_CONTROL_SOCKET=${QUILLWICK_CONTROL_SOCKET} \
    -DQUILLWICK_CONFIGURATION=${QUILLWICK_CONFIGURATION} \
"

# journald keeps its journal where the daemon reads it.
do_install:append() {
    install -D -m 0644 ${S}/packaging/journald/quillwick-storage.conf \
        ${D}${nonarch_libdir}/systemd/journald.conf.d/quillwick-storage.conf
}

# The names that the board's own checks need.
do_install_ptest() {
    install -m 0644 ${B}/boardPaths.sh ${D}${PTEST_PATH}/
}

# Enabled in the image. quillwick-tail@.service is an example, and not among them.
SYSTEMD_SERVICE:${PN} = "quillwick.service quillwick-wakeup.socket"

# As sysusers.d/quillwick.conf has them, which adds nothing to an image that has them already.
USERADD_PACKAGES = "${PN}"
GROUPADD_PARAM:${PN} = "--system i2c; --system systemd-journal; --system quillwick"
USERADD_PARAM:${PN} = "--system --gid quillwick --no-create-home --home-dir / \
    --shell ${base_sbindir}/nologin --comment 'quillwick journal daemon' quillwick"

CONFFILES:${PN} = "${QUILLWICK_CONFIGURATION}"
FILES:${PN} += " \
    ${QUILLWICK_CONFIGURATION} \
    ${systemd_system_unitdir}/quillwick-tail@.service \
    ${nonarch_libdir}/systemd/journald.conf.d \
    ${nonarch_libdir}/modules-load.d/quillwick.conf \
    ${nonarch_libdir}/sysusers.d/quillwick.conf \
    ${nonarch_libdir}/tmpfiles.d/quillwick.conf \
    ${nonarch_libdir}/udev/rules.d/60-quillwick.rules \
"
RRECOMMENDS:${PN} = "kernel-module-i2c-dev"
RDEPENDS:${PN}-ptest += "util-linux-logger"
