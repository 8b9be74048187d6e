/* SPDX-License-Identifier: MIT */
/* An element "boxes" in the place of a detector: it attaches regions of interest to each frame, at places
 * that follow from the number of the frame and of the box, and the time as a reference timestamp. */
#include <gst/base/gstbasetransform.h>
#include <gst/video/gstvideometa.h>

G_BEGIN_DECLS

#define TEST_TYPE_BOXES (test_boxes_get_type())
G_DECLARE_FINAL_TYPE(TestBoxes, test_boxes, TEST, BOXES, GstBaseTransform)

G_END_DECLS

struct _TestBoxes {
  GstBaseTransform parent_instance;
  guint boxes;
  gboolean ids;
  guint frame;
};

enum {
  PROP_BOXES = 1,
  PROP_IDS,
};

static GstStaticPadTemplate sink_template =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS("video/x-raw"));
static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS("video/x-raw"));

G_DEFINE_FINAL_TYPE(TestBoxes, test_boxes, GST_TYPE_BASE_TRANSFORM)

namespace
{

/* The tests know this rule. All boxes are within 1000 by 200 pixels. */
void
add_box(TestBoxes *self, GstBuffer *buffer, guint number)
{
  GstVideoRegionOfInterestMeta *region = gst_buffer_add_video_region_of_interest_meta(
      buffer, number % 2 == 0 ? "person" : "car", (self->frame + 17 * number) % 900,
      (self->frame + 3 * number) % 180, 50 + number % 50, 20);
  region->id = self->ids ? static_cast<gint>(number + 1) : 0;
}

void
add_time(GstBuffer *buffer)
{
  g_autoptr(GstCaps) caps = gst_caps_new_empty_simple("timestamp/x-unix");
  gst_buffer_add_reference_timestamp_meta(
      buffer, caps, static_cast<GstClockTime>(g_get_real_time()) * GST_USECOND, GST_CLOCK_TIME_NONE);
}

} // namespace

static void
test_boxes_init(TestBoxes *self)
{
}

static void
test_boxes_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  TestBoxes *self = TEST_BOXES(object);
  switch (id) {
  case PROP_BOXES:
    self->boxes = g_value_get_uint(value);
    break;
  case PROP_IDS:
    self->ids = g_value_get_boolean(value);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static GstFlowReturn
test_boxes_transform_ip(GstBaseTransform *transform, GstBuffer *buffer)
{
  TestBoxes *self = TEST_BOXES(transform);
  for (guint i = 0; i < self->boxes; i++) {
    add_box(self, buffer, i);
  }
  add_time(buffer);
  self->frame++;
  return GST_FLOW_OK;
}

static void
test_boxes_class_init(TestBoxesClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
  auto flags = static_cast<GParamFlags>(G_PARAM_WRITABLE | G_PARAM_STATIC_STRINGS);

  object_class->set_property = test_boxes_set_property;
  g_object_class_install_property(
      object_class, PROP_BOXES,
      g_param_spec_uint("boxes", "Boxes", "The number of boxes of a frame", 0, G_MAXINT, 0, flags));
  g_object_class_install_property(
      object_class, PROP_IDS,
      g_param_spec_boolean("ids", "Ids", "Whether boxes have ids, from 1", FALSE, flags));
  GST_BASE_TRANSFORM_CLASS(klass)->transform_ip = test_boxes_transform_ip;
  gst_element_class_add_static_pad_template(element_class, &sink_template);
  gst_element_class_add_static_pad_template(element_class, &src_template);
  gst_element_class_set_static_metadata(element_class, "Boxes", "Filter/Analyzer/Video",
                                        "Attaches boxes to video frames", "tessard");
}

static gboolean
plugin_init(GstPlugin *plugin)
{
  return gst_element_register(plugin, "boxes", GST_RANK_NONE, TEST_TYPE_BOXES);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, boxes, "Boxes on video frames", plugin_init, VERSION,
                  "MIT/X11", PACKAGE, "tessard")
