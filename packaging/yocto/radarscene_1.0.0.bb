SUMMARY = "Radar scene distribution library"
DESCRIPTION = "Distributes the radar's frames to local subscribers over Unix \
sockets and to topics of the device's message broker."
LICENSE = "CLOSED"

# Point RADARSCENE_REPOSITORY at the project's repository in the layer or
# in local.conf.
SRC_URI = "git://${RADARSCENE_REPOSITORY};protocol=ssh;branch=main"
SRCREV = "${AUTOREV}"
PV = "1.0.0+git${SRCPV}"
S = "${WORKDIR}/git"

# The device's own broker client and access-policy libraries are linked
# instead of the development stand-ins.
DEPENDS = "sdbus-c++ sdbus-c++-tools-native protobuf protobuf-native \
           nlohmann-json systemd permo2 tessel-os-varro"

inherit cmake pkgconfig

EXTRA_OECMAKE = " \
    -DRADARSCENE_DEVICE_PLATFORM=ON \
    -DRADARSCENE_BUILD_TESTS=OFF \
    -DRADARSCENE_BUILD_BENCHMARKS=OFF \
    -DRADARSCENE_SDBUSCPP_XML2CPP=${STAGING_BINDIR_NATIVE}/sdbus-c++-xml2cpp \
    -DRADARSCENE_PROTOC=${STAGING_BINDIR_NATIVE}/protoc \
"

PACKAGES =+ "${PN}-tools"
FILES:${PN} += "${datadir}/dbus-1/system.d"
FILES:${PN}-dev += "${datadir}/radarscene ${datadir}/dbus-1/interfaces ${libdir}/cmake"
FILES:${PN}-tools = "${bindir} ${docdir}/radarscene/examples"
RDEPENDS:${PN}-tools = "${PN}"

# Members of this group may run a producer that owns the provider's name.
inherit useradd
USERADD_PACKAGES = "${PN}"
GROUPADD_PARAM:${PN} = "--system radarscene"
