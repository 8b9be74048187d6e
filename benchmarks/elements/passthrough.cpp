/* SPDX-License-Identifier: MIT */
/* The elements "json2xml" and "onvifxmlmetadatastreamdoc" without their work: each hands every buffer on
 * unchanged, in the thread that brought it. With them a benchmark measures what the daemon itself costs.
 *
 * Each sends the caps of metadata, which the payloader needs. The document element has one input, because the
 * clients that the benchmarks measure with it have one source. */
#include <gst/gst.h>

struct PassThrough {
  GstElement parent_instance;

  GstPad *source;
};

using PassThroughClass = GstElementClass;

typedef enum {
  PROP_EXCLUDE_POLYGON = 1,
  PROP_SAMPLE_FRAME,
} PassThroughProperty;

#define PASS_TYPE_THROUGH (pass_through_get_type())
static GType pass_through_get_type();
G_DEFINE_TYPE(PassThrough, pass_through, GST_TYPE_ELEMENT)

namespace
{

constexpr const char *METADATA_CAPS = "application/x-onvif-metadata";

PassThrough *
get_self(gpointer instance)
{
  return G_TYPE_CHECK_INSTANCE_CAST(instance, PASS_TYPE_THROUGH, PassThrough);
}

GstFlowReturn
on_buffer(GstPad *pad, GstObject *parent, GstBuffer *buffer)
{
  return gst_pad_push(get_self(parent)->source, buffer);
}

gboolean
send_caps(GstPad *source)
{
  g_autoptr(GstCaps) caps = gst_caps_new_empty_simple(METADATA_CAPS);

  return gst_pad_push_event(source, gst_event_new_caps(caps));
}

/* Sends its own caps once, because the payloader does not bear a second time. */
gboolean
on_event(GstPad *pad, GstObject *parent, GstEvent *event)
{
  GstPad *source = get_self(parent)->source;

  switch (GST_EVENT_TYPE(event)) {
  case GST_EVENT_CAPS:
    gst_event_unref(event);
    return TRUE;
  case GST_EVENT_STREAM_START:
    return gst_pad_push_event(source, event) && send_caps(source);
  default:
    return gst_pad_push_event(source, event);
  }
}

} // namespace

static void
pass_through_init(PassThrough *self)
{
  GstElementClass *element_class = GST_ELEMENT_GET_CLASS(self);
  GstPad *sink = gst_pad_new_from_template(gst_element_class_get_pad_template(element_class, "sink"), "sink");

  gst_pad_set_chain_function(sink, on_buffer);
  gst_pad_set_event_function(sink, on_event);
  gst_element_add_pad(GST_ELEMENT(self), sink);
  self->source = gst_pad_new_from_template(gst_element_class_get_pad_template(element_class, "src"), "src");
  gst_element_add_pad(GST_ELEMENT(self), self->source);
}

/* The daemon sets these properties of the converter, which have no effect here. */
static void
pass_through_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  if (id != PROP_EXCLUDE_POLYGON && id != PROP_SAMPLE_FRAME) {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static void
pass_through_class_init(PassThroughClass *klass)
{
  constexpr auto FLAGS = static_cast<GParamFlags>(G_PARAM_WRITABLE | G_PARAM_STATIC_STRINGS);
  GstCaps *any = gst_caps_new_any();

  G_OBJECT_CLASS(klass)->set_property = pass_through_set_property;
  g_object_class_install_property(
      G_OBJECT_CLASS(klass), PROP_EXCLUDE_POLYGON,
      g_param_spec_boolean("exclude-polygon", "Exclude polygon", "Has no effect", FALSE, FLAGS));
  g_object_class_install_property(
      G_OBJECT_CLASS(klass), PROP_SAMPLE_FRAME,
      g_param_spec_boolean("sample-frame", "Sample frame", "Has no effect", FALSE, FLAGS));
  gst_element_class_add_pad_template(klass, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, any));
  gst_element_class_add_pad_template(klass, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, any));
  gst_caps_unref(any);
  gst_element_class_set_static_metadata(klass, "Pass-through", "Generic", "Hands every buffer on",
                                        "The tessard authors");
}

static gboolean
plugin_init(GstPlugin *plugin)
{
  return gst_element_register(plugin, "json2xml", GST_RANK_NONE, PASS_TYPE_THROUGH) &&
         gst_element_register(plugin, "onvifxmlmetadatastreamdoc", GST_RANK_NONE, PASS_TYPE_THROUGH);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, passthrough,
                  "Elements that stand in for the converter and the document element", plugin_init, VERSION,
                  "MIT/X11", PACKAGE, "tessard")
