# Written by the conventions of Yocto 5.0; not built here.
SUMMARY = "Requests and published changes between the processes of one device"
DESCRIPTION = "HTTP-like requests and replies, and publish and subscribe, over ZeroMQ sockets with protobuf messages"
SECTION = "libs"
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

# Your copy of the repository, and a commit of it.
SRC_URI = "git://git.example.com/tarn.git;protocol=https;branch=main"
SRCREV = "${AUTOREV}"
S = "${WORKDIR}/git"

DEPENDS = "cli11 cppzmq libmd nlohmann-json protobuf protobuf-native spdlog util-linux-libuuid zeromq"

inherit cmake pkgconfig systemd useradd features_check

REQUIRED_DISTRO_FEATURES = "systemd"

# The programs write manual and completion themselves, which takes a program that runs where it is built. The
# distribution may have flags of its own against memory errors (security_flags.inc); the project's come behind them.
EXTRA_OECMAKE = " \
    -DTARN_BUILD_TESTS=OFF \
    -DTARN_BUILD_EXAMPLES=OFF \
    -DTARN_BUILD_PAGES=OFF \
    -DTARN_INSTALL_RPATH=OFF \
"

# The project names its folders for systemd below the prefix.
do_install:append() {
    if [ "${systemd_system_unitdir}" != "${prefix}/lib/systemd/system" ]; then
        install -d ${D}${systemd_system_unitdir}
        mv ${D}${prefix}/lib/systemd/system/tarnd.service ${D}${systemd_system_unitdir}/
        rmdir ${D}${prefix}/lib/systemd/system
    fi
}

PACKAGE_BEFORE_PN = "libslate libtarn ${PN}-tools"

FILES:libslate = "${libdir}/libslate${SOLIBS}"
FILES:libtarn = "${libdir}/libtarn${SOLIBS}"
FILES:${PN}-tools = " \
    ${bindir}/tarn \
    ${bindir}/tarnd \
    ${systemd_system_unitdir}/tarnd.service \
    ${systemd_user_unitdir}/tarnd.service \
    ${nonarch_libdir}/sysusers.d/tarn.conf \
    ${nonarch_libdir}/tmpfiles.d/tarn.conf \
"
FILES:${PN}-dev += "${datadir}/tarn/proto ${libdir}/cmake"

# What a development package draws in is the libraries, not the programs.
ALLOW_EMPTY:${PN} = "1"
RDEPENDS:${PN} = "libslate libtarn ${PN}-tools"
RDEPENDS:${PN}-dev = "libslate (= ${EXTENDPKGV}) libtarn (= ${EXTENDPKGV})"

SYSTEMD_PACKAGES = "${PN}-tools"
SYSTEMD_SERVICE:${PN}-tools = "tarnd.service"

# The image's file system may be read-only when systemd-sysusers would run, so user and group are made with the image.
USERADD_PACKAGES = "${PN}-tools"
GROUPADD_PARAM:${PN}-tools = "--system corvane"
USERADD_PARAM:${PN}-tools = "--system --no-create-home --home-dir / --shell /sbin/nologin --user-group --groups corvane tarnd"
