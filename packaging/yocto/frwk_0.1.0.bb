# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT

SUMMARY = "Runtime library for the daemons of an embedded device"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=8c02fab2c533b1d8c738cbd76fae5f70"

SRC_URI = "git://git.example.com/libfrwk.git;protocol=https;branch=main;tag=v${PV}"
S = "${WORKDIR}/git"

inherit cmake pkgconfig bash-completion ptest

EXTRA_OECMAKE = "-DFRWK_BUILD_TESTS=${@bb.utils.contains('PTEST_ENABLED', '1', 'ON', 'OFF', d)} \
                 -DFRWK_TESTS_DIR=${PTEST_PATH}"
DEPENDS += "${@bb.utils.contains('PTEST_ENABLED', '1', 'googletest', '', d)}"

# With run-ptest among them. Each case runs in a sandbox: of bubblewrap where the image has it, else on the device's own
# paths while no module runs.
do_install_ptest() {
    DESTDIR=${D} cmake --install ${B} --component tests
}

# A plain installation leaves the examples out: a device gets them when its image names their package.
do_install:append() {
    DESTDIR=${D} cmake --install ${B} --component examples
}

# The first package that names a file has it.
PACKAGES =+ "${PN}-tools ${PN}-examples"
FILES:${PN}-tools = "${bindir}/frwk-chart ${bindir}/logtool ${bindir}/monitor_tool ${libexecdir}/frwk/monitor ${sysconfdir}/lnav/formats/frwk/frwk_log.json ${libdir}/wireshark/plugins/frwk.lua"
FILES:${PN}-examples = "${libexecdir}/frwk ${docdir}/frwk-examples"

# Of the same version: the library and the programs agree on the table of modules.
RDEPENDS:${PN}-tools += "${PN} (= ${EXTENDPKGV})"
RDEPENDS:${PN}-examples += "${PN}-tools (= ${EXTENDPKGV})"
RDEPENDS:${PN}-ptest += "${PN}-tools (= ${EXTENDPKGV}) bash busybox coreutils grep sed util-linux python3-core python3-json \
                         python3-terminal python3-unittest"
# frwk-chart runs where the captures are looked at, mostly a desk; the device needs no Python for it.
RSUGGESTS:${PN}-tools += "python3-core python3-datetime python3-json python3-math python3-statistics"
RSUGGESTS:${PN}-examples += "python3-core"

# The C library loads libgcc_s by itself when a thread is cancelled; no binary names it.
RDEPENDS:${PN} += "libgcc"
