/* SPDX-License-Identifier: MIT */
#include "rtppay.h"

#include "gzip.h"
#include "rtpdocument.h"

#include <algorithm>
#include <gst/rtp/gstrtpbuffer.h>

/* Puts each document into as many packets as the MTU needs. All of them have the document's timestamp, the
 * last one has the marker.
 *
 * Threads: the object lock protects `gzip`. Only the streaming thread uses `is_gzip`, which follows the caps
 * of the source pad. */

struct _TessardRtpPay {
  GstRTPBasePayload parent_instance;
  gboolean gzip;
  bool is_gzip;
};

enum {
  PROP_GZIP = 1,
  N_PROPERTIES,
};

static GParamSpec *properties[N_PROPERTIES];

static GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS("application/x-onvif-metadata"));

static GstStaticPadTemplate src_template = GST_STATIC_PAD_TEMPLATE(
    "src", GST_PAD_SRC, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("application/x-rtp, media=(string)application, payload=" GST_RTP_PAYLOAD_DYNAMIC_STRING
                    ", clock-rate=(int)90000, "
                    "encoding-name=(string){ VND.ONVIF.METADATA, VND.ONVIF.METADATA+GZIP }"));

G_DEFINE_FINAL_TYPE(TessardRtpPay, tessard_rtp_pay, GST_TYPE_RTP_BASE_PAYLOAD)

namespace
{

gboolean
get_gzip(TessardRtpPay *self)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(self));
  return self->gzip;
}

/* Takes the document, whose timestamps the result has.
 *
 * Returns: (transfer full) (nullable): the compressed document */
GstBuffer *
compress(GstBuffer *document)
{
  g_autoptr(GstBuffer) input = document;
  GstMapInfo map;
  if (!gst_buffer_map(input, &map, GST_MAP_READ)) {
    return nullptr;
  }
  g_autoptr(GBytes) packed = plugins::gzip_compress(map.data, map.size);
  gst_buffer_unmap(input, &map);
  GstBuffer *output = gst_buffer_new_wrapped_bytes(packed);
  gst_buffer_copy_into(output, input, GST_BUFFER_COPY_TIMESTAMPS, 0, G_MAXSIZE);
  return output;
}

void
set_marker(GstBuffer *packet)
{
  GstRTPBuffer rtp = GST_RTP_BUFFER_INIT;
  gst_rtp_buffer_map(packet, GST_MAP_WRITE, &rtp);
  gst_rtp_buffer_set_marker(&rtp, TRUE);
  gst_rtp_buffer_unmap(&rtp);
  GST_BUFFER_FLAG_SET(packet, GST_BUFFER_FLAG_MARKER);
}

/* Returns: (transfer full): a packet with a part of the document, which it shares */
GstBuffer *
new_packet(GstRTPBasePayload *base, GstBuffer *document, gsize offset, gsize size)
{
  GstBuffer *packet = gst_rtp_base_payload_allocate_output_buffer(base, 0, 0, 0);
  if (offset + size == gst_buffer_get_size(document)) {
    set_marker(packet);
  }
  GST_BUFFER_PTS(packet) = GST_BUFFER_PTS(document);
  GST_BUFFER_DTS(packet) = GST_BUFFER_DTS(document);
  return gst_buffer_append(packet, gst_buffer_copy_region(document, GST_BUFFER_COPY_MEMORY, offset, size));
}

/* Returns: (transfer full): the packets of a document */
GstBufferList *
new_packets(GstRTPBasePayload *base, GstBuffer *document)
{
  const gsize size = gst_buffer_get_size(document);
  const gsize room = gst_rtp_buffer_calc_payload_len(GST_RTP_BASE_PAYLOAD_MTU(base), 0, 0);
  GstBufferList *packets = gst_buffer_list_new_sized(static_cast<guint>(size / room + 1));
  for (gsize offset = 0; offset < size; offset += room) {
    gst_buffer_list_add(packets, new_packet(base, document, offset, std::min(room, size - offset)));
  }
  return packets;
}

} // namespace

static gboolean
tessard_rtp_pay_set_caps(GstRTPBasePayload *base, GstCaps *caps)
{
  TessardRtpPay *self = TESSARD_RTP_PAY(base);
  self->is_gzip = get_gzip(self) != FALSE;
  const char *encoding = self->is_gzip ? plugins::RTP_METADATA_GZIP_ENCODING : plugins::RTP_METADATA_ENCODING;
  gst_rtp_base_payload_set_options(base, "application", TRUE, encoding, plugins::RTP_METADATA_CLOCK_RATE);
  return gst_rtp_base_payload_set_outcaps(base, nullptr);
}

static GstFlowReturn
tessard_rtp_pay_handle_buffer(GstRTPBasePayload *base, GstBuffer *buffer)
{
  g_autoptr(GstBuffer) document = buffer;
  if (gst_buffer_get_size(document) == 0) {
    return GST_FLOW_OK;
  }
  if (TESSARD_RTP_PAY(base)->is_gzip) {
    document = compress(g_steal_pointer(&document));
  }
  if (document == nullptr) {
    GST_ELEMENT_ERROR(base, STREAM, ENCODE, (nullptr), ("The document cannot be read."));
    return GST_FLOW_ERROR;
  }
  return gst_rtp_base_payload_push_list(base, new_packets(base, document));
}

static void
tessard_rtp_pay_init(TessardRtpPay *self)
{
}

static void
tessard_rtp_pay_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  TessardRtpPay *self = TESSARD_RTP_PAY(object);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(self));
  switch (id) {
  case PROP_GZIP:
    self->gzip = g_value_get_boolean(value);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static void
tessard_rtp_pay_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  TessardRtpPay *self = TESSARD_RTP_PAY(object);
  switch (id) {
  case PROP_GZIP:
    g_value_set_boolean(value, get_gzip(self));
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static void
tessard_rtp_pay_class_init(TessardRtpPayClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
  GstRTPBasePayloadClass *base_class = GST_RTP_BASE_PAYLOAD_CLASS(klass);

  object_class->set_property = tessard_rtp_pay_set_property;
  object_class->get_property = tessard_rtp_pay_get_property;
  base_class->set_caps = tessard_rtp_pay_set_caps;
  base_class->handle_buffer = tessard_rtp_pay_handle_buffer;
  properties[PROP_GZIP] = g_param_spec_boolean(
      "gzip", "Gzip", "Whether to compress each document", FALSE,
      static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY));
  g_object_class_install_properties(object_class, N_PROPERTIES, properties);

  gst_element_class_add_static_pad_template(element_class, &sink_template);
  gst_element_class_add_static_pad_template(element_class, &src_template);
  gst_element_class_set_static_metadata(element_class, "RTP payloader of ONVIF metadata",
                                        "Codec/Payloader/Network/RTP",
                                        "Puts documents of ONVIF metadata into RTP packets", "tessard");
}
