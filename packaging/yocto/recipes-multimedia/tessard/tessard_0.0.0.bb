# SPDX-License-Identifier: MIT
SUMMARY = "ONVIF metadata streaming daemon"
DESCRIPTION = "Streams the metadata of a network camera, as ONVIF XML, to local clients over a UNIX socket."
SECTION = "multimedia"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=933eb6094c28dae671582d8061ad4644"

# The recipe builds the tree that it is a part of. For a release, set EXTERNALSRC to "" and SRC_URI to its tarball.
EXTERNALSRC ?= "${@os.path.realpath('${THISDIR}/../../../..')}"

inherit externalsrc meson pkgconfig gobject-introspection manpages systemd useradd features_check

# The units are below /usr/lib.
REQUIRED_DISTRO_FEATURES = "systemd usrmerge"

DEPENDS = "glib-2.0 glib-2.0-native gstreamer1.0 gstreamer1.0-plugins-base systemd"

# The file that the daemon rewrites; its folder must be writable and outlive a restart.
TESSARD_PRODUCERS_CONF ?= "${sysconfdir}/tessard/producers.conf"

# "rtsp", "mqtt" and "view" need "plugins" and "tools"; "analytics" needs "plugins", "library" and GStreamer 1.24.
PACKAGECONFIG ??= "plugins library"
PACKAGECONFIG[analytics] = "-Danalytics=enabled,-Danalytics=disabled,gstreamer1.0-plugins-bad"
PACKAGECONFIG[library] = "-Dlibrary=true,-Dlibrary=false"
PACKAGECONFIG[manpages] = "-Ddocs=true,-Ddocs=false"
PACKAGECONFIG[mqtt] = "-Dmqtt=enabled,-Dmqtt=disabled,mosquitto"
PACKAGECONFIG[plugins] = "-Dplugins=true,-Dplugins=false,libxml2 simdjson"
PACKAGECONFIG[receiver] = "-Dreceiver=true,-Dreceiver=false"
PACKAGECONFIG[rtsp] = "-Drtsp=enabled,-Drtsp=disabled,gstreamer1.0-rtsp-server"
PACKAGECONFIG[tools] = "-Dtools=true,-Dtools=false,json-glib libxml2 simdjson"
PACKAGECONFIG[view] = "-Dview=enabled,-Dview=disabled,libsoup"

GIR_MESON_OPTION = "introspection"
GIR_MESON_ENABLE_FLAG = "enabled"
GIR_MESON_DISABLE_FLAG = "disabled"

EXTRA_OEMESON = "-Dproducers_conf=${TESSARD_PRODUCERS_CONF} -Dsim=false -Dtests=false -Dbenchmarks=false -Dfuzz=false"

PACKAGE_BEFORE_PN = " \
    ${PN}-receiver \
    ${PN}-tools \
    ${PN}-plugins \
    ${PN}-library \
    ${PN}-rtsp \
    ${PN}-mqtt \
    ${PN}-view \
"

FILES:${PN}-receiver = " \
    ${bindir}/tessard-receiver \
    ${datadir}/dbus-1/interfaces/com.quon.MetadataReceiver1.xml \
    ${datadir}/dbus-1/system.d/com.quon.MetadataReceiver1.conf \
    ${nonarch_libdir}/systemd/system/tessard-receiver.service \
    ${nonarch_libdir}/sysusers.d/tessard-receiver.conf \
"
FILES:${PN}-tools = " \
    ${bindir}/tessardctl \
    ${datadir}/bash-completion/completions/tessardctl \
    ${datadir}/zsh/site-functions/_tessardctl \
"
FILES:${PN}-plugins = "${libdir}/gstreamer-1.0/*.so"
FILES:${PN}-library = "${libdir}/libtessard-1.0.so.* ${libdir}/girepository-1.0/Tessard-1.0.typelib"
FILES:${PN}-rtsp = " \
    ${bindir}/tessard-rtsp \
    ${datadir}/bash-completion/completions/tessard-rtsp \
    ${datadir}/zsh/site-functions/_tessard-rtsp \
    ${nonarch_libdir}/systemd/system/tessard-rtsp.service \
    ${nonarch_libdir}/sysusers.d/tessard-rtsp.conf \
"
FILES:${PN}-mqtt = " \
    ${bindir}/tessard-mqtt \
    ${datadir}/bash-completion/completions/tessard-mqtt \
    ${datadir}/zsh/site-functions/_tessard-mqtt \
    ${nonarch_libdir}/systemd/system/tessard-mqtt.service \
    ${nonarch_libdir}/sysusers.d/tessard-mqtt.conf \
"
FILES:${PN}-view = " \
    ${bindir}/tessard-view \
    ${datadir}/bash-completion/completions/tessard-view \
    ${datadir}/zsh/site-functions/_tessard-view \
    ${nonarch_libdir}/systemd/system/tessard-view.service \
    ${nonarch_libdir}/sysusers.d/tessard-view.conf \
"
FILES:${PN} += " \
    ${datadir}/dbus-1/interfaces \
    ${datadir}/dbus-1/system.d \
    ${datadir}/tessard \
    ${nonarch_libdir}/systemd/system \
    ${nonarch_libdir}/sysusers.d \
    ${nonarch_libdir}/tmpfiles.d \
"
FILES:${PN}-dev += "${datadir}/gir-1.0"

CONFFILES:${PN} = "${TESSARD_PRODUCERS_CONF}"

# The payloader of each stream, and the elements through which the daemon feeds and empties its pipelines.
RDEPENDS:${PN} = "dbus gstreamer1.0-plugins-bad-gdp gstreamer1.0-plugins-base-app"
RDEPENDS:${PN}-rtsp = "${PN}-plugins"
RDEPENDS:${PN}-mqtt = "${PN}-plugins"
RDEPENDS:${PN}-view = "${PN}-plugins"
RRECOMMENDS:${PN} = "${@bb.utils.filter('PACKAGECONFIG', 'plugins', d) and '${PN}-plugins'}"

SYSTEMD_PACKAGES = "${PN} ${TESSARD_SERVICE_PACKAGES}"
SYSTEMD_SERVICE:${PN} = "tessard.socket tessard.service"
SYSTEMD_SERVICE:${PN}-receiver = "tessard-receiver.service"
SYSTEMD_SERVICE:${PN}-rtsp = "tessard-rtsp.service"
SYSTEMD_SERVICE:${PN}-mqtt = "tessard-mqtt.service"
SYSTEMD_SERVICE:${PN}-view = "tessard-view.service"
# The gateways serve other machines: the image enables them after it has configured who may connect.
SYSTEMD_AUTO_ENABLE:${PN}-rtsp = "disable"
SYSTEMD_AUTO_ENABLE:${PN}-mqtt = "disable"
SYSTEMD_AUTO_ENABLE:${PN}-view = "disable"

# The packages beside the daemon's that have a unit and a user, as far as they are built.
TESSARD_SERVICE_PACKAGES = "${@' '.join(d.getVar('PN') + '-' + name for name in \
    ('receiver', 'rtsp', 'mqtt', 'view') if bb.utils.contains('PACKAGECONFIG', name, True, False, d))}"

TESSARD_USER = "--system --no-create-home --home-dir / --shell ${base_sbindir}/nologin --user-group"
USERADD_PACKAGES = "${PN} ${TESSARD_SERVICE_PACKAGES}"
GROUPADD_PARAM:${PN} = "--system tessard-admin"
USERADD_PARAM:${PN} = "${TESSARD_USER} tessard"
GROUPADD_PARAM:${PN}-receiver = "--system tessard-producer"
USERADD_PARAM:${PN}-receiver = "${TESSARD_USER} tessard-receiver"
GROUPADD_PARAM:${PN}-rtsp = "--system tessard"
USERADD_PARAM:${PN}-rtsp = "${TESSARD_USER} --groups tessard tessard-rtsp"
GROUPADD_PARAM:${PN}-mqtt = "--system tessard"
USERADD_PARAM:${PN}-mqtt = "${TESSARD_USER} --groups tessard tessard-mqtt"
GROUPADD_PARAM:${PN}-view = "--system tessard"
USERADD_PARAM:${PN}-view = "${TESSARD_USER} --groups tessard tessard-view"
