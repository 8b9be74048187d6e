# SPDX-License-Identifier: MIT
################################################################################
#
# tessard
#
################################################################################

TESSARD_VERSION = 0.0.0
# The tree that this package is a part of.
TESSARD_SITE = $(abspath $(BR2_EXTERNAL_TESSARD_PATH)/../..)
TESSARD_SITE_METHOD = local
TESSARD_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude '/build*/'
TESSARD_LICENSE = MIT
TESSARD_LICENSE_FILES = LICENSE
# The headers, for applications.
TESSARD_INSTALL_STAGING = YES

TESSARD_DEPENDENCIES = host-pkgconf libglib2 gstreamer1 gst1-plugins-base systemd

TESSARD_CONF_OPTS = \
	-Dproducers_conf=$(call qstrip,$(BR2_PACKAGE_TESSARD_PRODUCERS_CONF)) \
	-Dsim=false \
	-Dtests=false \
	-Dbenchmarks=false \
	-Ddocs=false \
	-Dfuzz=false

ifeq ($(BR2_PACKAGE_TESSARD_PLUGINS),y)
TESSARD_CONF_OPTS += -Dplugins=true
TESSARD_DEPENDENCIES += libxml2 simdjson
else
TESSARD_CONF_OPTS += -Dplugins=false
endif

ifeq ($(BR2_PACKAGE_TESSARD_LIBRARY),y)
TESSARD_CONF_OPTS += -Dlibrary=true
else
TESSARD_CONF_OPTS += -Dlibrary=false
endif

ifeq ($(BR2_PACKAGE_TESSARD_LIBRARY)$(BR2_PACKAGE_GOBJECT_INTROSPECTION),yy)
TESSARD_CONF_OPTS += -Dintrospection=enabled
TESSARD_DEPENDENCIES += gobject-introspection
else
TESSARD_CONF_OPTS += -Dintrospection=disabled
endif

# Object detections of GStreamer 1.24.
ifeq ($(BR2_PACKAGE_TESSARD_PLUGINS)$(BR2_PACKAGE_TESSARD_LIBRARY),yy)
TESSARD_CONF_OPTS += -Danalytics=auto
TESSARD_DEPENDENCIES += gst1-plugins-bad
else
TESSARD_CONF_OPTS += -Danalytics=disabled
endif

ifeq ($(BR2_PACKAGE_TESSARD_RECEIVER),y)
TESSARD_CONF_OPTS += -Dreceiver=true
else
TESSARD_CONF_OPTS += -Dreceiver=false
endif

ifeq ($(BR2_PACKAGE_TESSARD_TOOLS),y)
TESSARD_CONF_OPTS += -Dtools=true
TESSARD_DEPENDENCIES += json-glib libxml2 simdjson
else
TESSARD_CONF_OPTS += -Dtools=false
endif

ifeq ($(BR2_PACKAGE_TESSARD_RTSP),y)
TESSARD_CONF_OPTS += -Drtsp=enabled
TESSARD_DEPENDENCIES += gst1-rtsp-server
else
TESSARD_CONF_OPTS += -Drtsp=disabled
endif

ifeq ($(BR2_PACKAGE_TESSARD_MQTT),y)
TESSARD_CONF_OPTS += -Dmqtt=enabled
TESSARD_DEPENDENCIES += mosquitto
else
TESSARD_CONF_OPTS += -Dmqtt=disabled
endif

ifeq ($(BR2_PACKAGE_TESSARD_VIEW),y)
TESSARD_CONF_OPTS += -Dview=enabled
TESSARD_DEPENDENCIES += libsoup3
else
TESSARD_CONF_OPTS += -Dview=disabled
endif

define TESSARD_USERS
	tessard -1 tessard -1 * - - - ONVIF metadata daemon
	- -1 tessard-admin -1 - - - - Enables and disables analytics producers
	$(if $(BR2_PACKAGE_TESSARD_RECEIVER),tessard-receiver -1 tessard-receiver -1 * - - - Metadata receiver)
	$(if $(BR2_PACKAGE_TESSARD_RECEIVER),- -1 tessard-producer -1 - - - - Applications that detect)
	$(if $(BR2_PACKAGE_TESSARD_RTSP),tessard-rtsp -1 tessard-rtsp -1 * - - tessard ONVIF metadata over RTSP)
	$(if $(BR2_PACKAGE_TESSARD_MQTT),tessard-mqtt -1 tessard-mqtt -1 * - - tessard ONVIF metadata over MQTT)
	$(if $(BR2_PACKAGE_TESSARD_VIEW),tessard-view -1 tessard-view -1 * - - tessard ONVIF metadata in a browser)
endef

# Meson installs the units. The daemon and the receiver start with the board; the gateways serve other machines, and
# the image enables them after it has configured who may connect.
define TESSARD_INSTALL_INIT_SYSTEMD
	mkdir -p $(TARGET_DIR)/usr/lib/systemd/system-preset
	printf '%s\n' 'enable tessard.socket' 'enable tessard.service' 'enable tessard-receiver.service' \
		'disable tessard-rtsp.service' 'disable tessard-mqtt.service' 'disable tessard-view.service' \
		>$(TARGET_DIR)/usr/lib/systemd/system-preset/50-tessard.preset
endef

$(eval $(meson-package))
