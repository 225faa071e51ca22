SUMMARY = "Runtime library for the daemons of an embedded device"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=8c02fab2c533b1d8c738cbd76fae5f70"

SRC_URI = "git://git.example.com/libfrwk.git;protocol=https;branch=main;tag=v${PV}"
S = "${WORKDIR}/git"

inherit cmake pkgconfig

EXTRA_OECMAKE = "-DFRWK_BUILD_TESTS=OFF -DFRWK_BUILD_EXAMPLES=OFF"

# The C library loads libgcc_s by itself when a thread is cancelled; no binary names it.
RDEPENDS:${PN} += "libgcc"
