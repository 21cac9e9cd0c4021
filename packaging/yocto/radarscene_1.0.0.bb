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
           nlohmann-json systemd zstd lz4 zlib openssl permo2 tessel-os-varro"

inherit cmake pkgconfig python3-dir

EXTRA_OECMAKE = " \
    -DRADARSCENE_DEVICE_PLATFORM=ON \
    -DRADARSCENE_BUILD_TESTS=OFF \
    -DRADARSCENE_BUILD_BENCHMARKS=OFF \
    -DRADARSCENE_SDBUSCPP_XML2CPP=${STAGING_BINDIR_NATIVE}/sdbus-c++-xml2cpp \
    -DRADARSCENE_PROTOC=${STAGING_BINDIR_NATIVE}/protoc \
    -DRADARSCENE_PYTHON_DIR=${@os.path.relpath(d.getVar('PYTHON_SITEPACKAGES_DIR'), d.getVar('prefix'))} \
"

PACKAGES =+ "${PN}-tools python3-${PN}"
FILES:${PN} += "${datadir}/dbus-1/system.d/com.tessel.RadarSceneProvider1.conf"
FILES:${PN}-dev += "${datadir}/radarscene/scene.proto ${datadir}/dbus-1/interfaces ${libdir}/cmake"
FILES:${PN}-tools = "${bindir} ${docdir}/radarscene/examples ${mandir}/man1 ${datadir}/radarscene/view \
                     ${datadir}/dbus-1/system.d/com.tessel.GeoLocation1.conf"
RDEPENDS:${PN}-tools = "${PN}"
FILES:python3-${PN} = "${PYTHON_SITEPACKAGES_DIR}/radarscene"
RDEPENDS:python3-${PN} = "python3-core python3-protobuf python3-dbus"

# The radarscene system user and group run a producer that owns the
# provider's name; other members of the group may do so too.
inherit useradd
USERADD_PACKAGES = "${PN}"
GROUPADD_PARAM:${PN} = "--system radarscene"
USERADD_PARAM:${PN} = "--system --no-create-home --home-dir /nonexistent \
                       --shell /sbin/nologin --gid radarscene radarscene"
