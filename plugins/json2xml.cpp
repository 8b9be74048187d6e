/* SPDX-License-Identifier: MIT */
#include "json2xml.h"

#include "metadata.h"
#include "producerfragment.h"
#include "registration.h"

#include <utility>

/* Converts each frame of external producers to one fragment of ONVIF metadata. Malformed frames, or malformed
 * parts of them, are dropped; the first of a series of them causes a warning.
 *
 * The input is bytes without caps, so caps and byte segments from upstream have no meaning downstream. The
 * element sends its own.
 *
 * Threads: the object lock protects the properties. Only the streaming thread uses `reader`, and
 * `was_malformed` while the element runs; before that the thread that starts it. */

struct _TessardJsonToXml {
  GstElement parent_instance;
  GstPad *src_pad; /* borrowed */
  plugins::ProducerReader *reader;
  gboolean exclude_polygon;
  gboolean sample_frame;
  gboolean was_malformed;
};

enum {
  PROP_EXCLUDE_POLYGON = 1,
  PROP_SAMPLE_FRAME,
  N_PROPERTIES,
};

static GParamSpec *properties[N_PROPERTIES];

GST_DEBUG_CATEGORY_STATIC(json_to_xml_debug);
#define GST_CAT_DEFAULT json_to_xml_debug

G_DEFINE_FINAL_TYPE(TessardJsonToXml, tessard_json_to_xml, GST_TYPE_ELEMENT)

namespace
{

plugins::ProducerView
current_view(TessardJsonToXml *self)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(self));
  return {.polygon = !self->exclude_polygon, .sample = self->sample_frame != FALSE};
}

/* Warns of the first of a series of malformed frames only. */
void
warn_of_flaws(TessardJsonToXml *self, const plugins::ProducerFlaws &flaws)
{
  bool is_malformed = flaws.fatal != nullptr || flaws.partial != nullptr;
  if (std::exchange(self->was_malformed, is_malformed) || !is_malformed) {
    return;
  }
  if (flaws.fatal != nullptr) {
    GST_ELEMENT_WARNING(self, STREAM, DECODE, ("A frame of a producer is malformed and left out."),
                        ("%s", flaws.fatal));
  } else {
    GST_ELEMENT_WARNING(self, STREAM, DECODE, ("A part of a producer's frame is malformed and left out."),
                        ("%s", flaws.partial));
  }
}

gboolean
push_caps(TessardJsonToXml *self)
{
  g_autoptr(GstCaps) caps = gst_caps_new_empty_simple(onvif::FRAGMENT_CAPS);
  return gst_pad_push_event(self->src_pad, gst_event_new_caps(caps));
}

/* Only a segment in time format stays valid after the conversion. */
GstEvent *
own_segment(GstEvent *event)
{
  const GstSegment *segment = nullptr;
  gst_event_parse_segment(event, &segment);
  if (segment->format == GST_FORMAT_TIME) {
    return event;
  }
  GstSegment times;
  gst_segment_init(&times, GST_FORMAT_TIME);
  GstEvent *own = gst_event_new_segment(&times);
  gst_event_set_seqnum(own, gst_event_get_seqnum(event));
  gst_event_unref(event);
  return own;
}

GstFlowReturn
on_chain(GstPad *pad, GstObject *parent, GstBuffer *buffer)
{
  TessardJsonToXml *self = TESSARD_JSON_TO_XML(parent);
  g_autoptr(GstBuffer) input = buffer;
  plugins::ProducerFlaws flaws;
  std::optional<plugins::ProducerFrame> frame = self->reader->read(input, &flaws);
  warn_of_flaws(self, flaws);
  if (!frame.has_value()) {
    return GST_FLOW_OK;
  }
  GstBuffer *output = plugins::producer_frame_to_fragment(*frame, current_view(self), g_get_real_time());
  gst_buffer_copy_into(output, input, GST_BUFFER_COPY_METADATA, 0, static_cast<gsize>(-1));
  return gst_pad_push(self->src_pad, output);
}

gboolean
on_sink_event(GstPad *pad, GstObject *parent, GstEvent *event)
{
  TessardJsonToXml *self = TESSARD_JSON_TO_XML(parent);
  switch (GST_EVENT_TYPE(event)) {
  case GST_EVENT_STREAM_START:
    return gst_pad_event_default(pad, parent, event) && push_caps(self);
  case GST_EVENT_SEGMENT:
    return gst_pad_event_default(pad, parent, own_segment(event));
  default:
    return gst_pad_event_default(pad, parent, event);
  }
}

} // namespace

static void
tessard_json_to_xml_init(TessardJsonToXml *self)
{
  GstElement *element = GST_ELEMENT(self);
  GstElementClass *klass = GST_ELEMENT_GET_CLASS(self);
  self->reader = new plugins::ProducerReader();
  GstPad *sink_pad = gst_pad_new_from_template(gst_element_class_get_pad_template(klass, "sink"), "sink");
  gst_pad_set_chain_function(sink_pad, on_chain);
  gst_pad_set_event_function(sink_pad, on_sink_event);
  gst_element_add_pad(element, sink_pad);

  self->src_pad = gst_pad_new_from_template(gst_element_class_get_pad_template(klass, "src"), "src");
  gst_pad_use_fixed_caps(self->src_pad);
  gst_element_add_pad(element, self->src_pad);
}

static void
tessard_json_to_xml_finalize(GObject *object)
{
  delete TESSARD_JSON_TO_XML(object)->reader;
  G_OBJECT_CLASS(tessard_json_to_xml_parent_class)->finalize(object);
}

static void
tessard_json_to_xml_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  TessardJsonToXml *self = TESSARD_JSON_TO_XML(object);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(self));
  switch (id) {
  case PROP_EXCLUDE_POLYGON:
    self->exclude_polygon = g_value_get_boolean(value);
    break;
  case PROP_SAMPLE_FRAME:
    self->sample_frame = g_value_get_boolean(value);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static void
tessard_json_to_xml_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  TessardJsonToXml *self = TESSARD_JSON_TO_XML(object);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(self));
  switch (id) {
  case PROP_EXCLUDE_POLYGON:
    g_value_set_boolean(value, self->exclude_polygon);
    break;
  case PROP_SAMPLE_FRAME:
    g_value_set_boolean(value, self->sample_frame);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static GstStateChangeReturn
tessard_json_to_xml_change_state(GstElement *element, GstStateChange transition)
{
  if (transition == GST_STATE_CHANGE_READY_TO_PAUSED) {
    TESSARD_JSON_TO_XML(element)->was_malformed = FALSE;
  }
  return GST_ELEMENT_CLASS(tessard_json_to_xml_parent_class)->change_state(element, transition);
}

static void
install_properties(GObjectClass *object_class)
{
  auto flags =
      static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
  properties[PROP_EXCLUDE_POLYGON] = g_param_spec_boolean(
      "exclude-polygon", "Exclude polygon", "Whether to omit the polygons of objects", FALSE, flags);
  properties[PROP_SAMPLE_FRAME] = g_param_spec_boolean("sample-frame", "Sample frame",
                                                       "Whether to write one tt:SampleFrame with the first "
                                                       "item of each buffer, instead of a tt:VideoAnalytics",
                                                       FALSE, flags);
  g_object_class_install_properties(object_class, N_PROPERTIES, properties);
}

static void
tessard_json_to_xml_class_init(TessardJsonToXmlClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);

  GST_DEBUG_CATEGORY_INIT(json_to_xml_debug, "json2xml", 0, "Converter of JSON detections to ONVIF");
  object_class->finalize = tessard_json_to_xml_finalize;
  object_class->set_property = tessard_json_to_xml_set_property;
  object_class->get_property = tessard_json_to_xml_get_property;
  element_class->change_state = tessard_json_to_xml_change_state;
  install_properties(object_class);

  g_autoptr(GstCaps) any = gst_caps_new_any();
  gst_element_class_add_pad_template(element_class,
                                     gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, any));
  g_autoptr(GstCaps) caps = gst_caps_new_empty_simple(onvif::FRAGMENT_CAPS);
  gst_element_class_add_pad_template(element_class,
                                     gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
  gst_element_class_set_static_metadata(element_class, "JSON to ONVIF metadata converter",
                                        "Formatter/Metadata",
                                        "Converts the detections of applications from JSON to fragments of "
                                        "ONVIF metadata, one for each buffer",
                                        "tessard");
}

static gboolean
plugin_init(GstPlugin *plugin)
{
  return plugins::register_unless_provided(plugin, "json2xml", TESSARD_TYPE_JSON_TO_XML);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, json2xml,
                  "Converts the detections of applications from JSON to ONVIF metadata", plugin_init, VERSION,
                  "MIT/X11", PACKAGE, "tessard")
