SUMMARY = "Logging library for C++"
DESCRIPTION = "log4cplus writes log events to files, sockets and terminals. Loggers form a \
hierarchy, and a configuration file sets their levels and targets."
HOMEPAGE = "https://github.com/log4cplus/log4cplus"
SECTION = "libs"
LICENSE = "Apache-2.0 AND BSD-2-Clause AND Zlib"
LIC_FILES_CHKSUM = "file://LICENSE;md5=41e8e060c26822886b592ab4765c756b"

SRC_URI = "${SOURCEFORGE_MIRROR}/log4cplus/log4cplus-stable/${PV}/log4cplus-${PV}.tar.xz"
SRC_URI[sha256sum] = "f5949e713cf8635fc554384ab99b04716e3430f28eed6dd7d71ad03d959b91a0"

inherit autotools pkgconfig

EXTRA_OECONF = "--disable-tests"
PACKAGECONFIG ??= ""
PACKAGECONFIG[wchar] = "--with-wchar_t-support,--without-wchar_t-support"
