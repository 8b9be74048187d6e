/* SPDX-License-Identifier: MIT */
/* A fake of a platform's "json2xml" that hangs while a file exists, and otherwise converts each buffer to the
 * same frame. The buffer's text names the file: its path is between HANG_START and the next quotation mark. A
 * buffer without a path never hangs.
 *
 * PLUGIN is the name of the plug-in, which its file name contains. */
#include <gst/gst.h>
#include <string>

namespace
{

constexpr const char *FRAME = "<tt:SampleFrame xmlns:tt=\"http://www.onvif.org/ver10/schema\"/>";
constexpr const char *CAPS = "application/x-onvif-metadata";
constexpr const char *HANG_START = "\"hang\":\"";
constexpr gulong LOOK_US = 10000;

enum { PROP_SAMPLE_FRAME = 1, PROP_EXCLUDE_POLYGON };

} // namespace

struct TestConverter {
  GstElement parent_instance;

  GstPad *src;
};

struct TestConverterClass {
  GstElementClass parent_class;
};

GType test_converter_get_type();
G_DEFINE_TYPE(TestConverter, test_converter, GST_TYPE_ELEMENT)

static TestConverter *
test_converter(gpointer instance)
{
  return G_TYPE_CHECK_INSTANCE_CAST(instance, test_converter_get_type(), TestConverter);
}

static std::string
path_in(GstBuffer *buffer)
{
  std::string text(gst_buffer_get_size(buffer), '\0');
  gst_buffer_extract(buffer, 0, text.data(), text.size());

  const auto start = text.find(HANG_START);
  if (start == std::string::npos) {
    return "";
  }
  const auto path = start + std::string(HANG_START).size();
  return text.substr(path, text.find('"', path) - path);
}

static GstFlowReturn
test_converter_chain(GstPad *, GstObject *parent, GstBuffer *buffer)
{
  const std::string path = path_in(buffer);

  gst_buffer_unref(buffer);
  while (!path.empty() && g_file_test(path.c_str(), G_FILE_TEST_EXISTS)) {
    g_usleep(LOOK_US);
  }
  return gst_pad_push(test_converter(parent)->src, gst_buffer_new_memdup(FRAME, std::string(FRAME).size()));
}

/* The properties have no effect. */
static void
test_converter_set_property(GObject *, guint, const GValue *, GParamSpec *)
{
}

static void
test_converter_init(TestConverter *self)
{
  GstElementClass *klass = GST_ELEMENT_GET_CLASS(self);
  GstPad *sink = gst_pad_new_from_template(gst_element_class_get_pad_template(klass, "sink"), "sink");

  self->src = gst_pad_new_from_template(gst_element_class_get_pad_template(klass, "src"), "src");
  gst_pad_set_chain_function(sink, test_converter_chain);
  gst_element_add_pad(GST_ELEMENT(self), sink);
  gst_element_add_pad(GST_ELEMENT(self), self->src);
}

static void
test_converter_class_init(TestConverterClass *klass)
{
  g_autoptr(GstCaps) any = gst_caps_new_any();
  g_autoptr(GstCaps) caps = gst_caps_from_string(CAPS);
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);

  object_class->set_property = test_converter_set_property;
  g_object_class_install_property(
      object_class, PROP_SAMPLE_FRAME,
      g_param_spec_boolean("sample-frame", "Sample frame", "Sample frame", FALSE, G_PARAM_WRITABLE));
  g_object_class_install_property(
      object_class, PROP_EXCLUDE_POLYGON,
      g_param_spec_boolean("exclude-polygon", "No polygons", "No polygons", FALSE, G_PARAM_WRITABLE));
  gst_element_class_add_pad_template(element_class,
                                     gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, any));
  gst_element_class_add_pad_template(element_class,
                                     gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
  gst_element_class_set_static_metadata(element_class, "Hanging converter", "Converter",
                                        "Hangs as long as a test wants", "tests");
}

static gboolean
plugin_init(GstPlugin *plugin)
{
  return gst_element_register(plugin, "json2xml", GST_RANK_NONE, test_converter_get_type());
}

#pragma GCC visibility push(default)
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, PLUGIN, "A converter that hangs", plugin_init,
                  VERSION, "LGPL", PACKAGE, "tests")
#pragma GCC visibility pop
