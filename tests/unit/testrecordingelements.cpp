/* SPDX-License-Identifier: MIT */
#include "testrecordingelements.h"

#include "testlist.h"

#include <array>
#include <atomic>
#include <cstring>
#include <utility>

namespace
{

struct RecordedProperty {
  const char *name;
  GType type;
};

struct RecordingElement {
  const char *factory;
  const char *type_name;
  const char *sink_caps; /* none for a source */
  const char *src_caps;
  std::vector<RecordedProperty> properties;
};

const std::array RECORDING_ELEMENTS = {
    RecordingElement{"statuscacheptzsrc",
                     "TestPtzSource",
                     nullptr,
                     testelements::SOURCE_CAPS,
                     {{"channel", G_TYPE_INT},
                      {"coordinate-space-pantilt", G_TYPE_INT},
                      {"coordinate-space-zoom", G_TYPE_INT},
                      {"filter-position", G_TYPE_BOOLEAN},
                      {"filter-status", G_TYPE_BOOLEAN},
                      {"ptz-move-capabilities", G_TYPE_INT}}},
    RecordingElement{"scenesrc",
                     "TestSceneSource",
                     nullptr,
                     "application/vnd.quon.scene",
                     {{"video-channel", G_TYPE_INT}}},
    RecordingElement{"scene2xml",
                     "TestSceneConverter",
                     "application/vnd.quon.scene",
                     testelements::SOURCE_CAPS,
                     {{"polygon", G_TYPE_BOOLEAN},
                      {"ptz-move-capabilities", G_TYPE_INT},
                      {"rotation", G_TYPE_UINT},
                      {"source-name", G_TYPE_STRING},
                      {"pan-tilt-space", G_TYPE_INT},
                      {"zoom-space", G_TYPE_INT},
                      {"channel", G_TYPE_INT},
                      {"ptz", G_TYPE_BOOLEAN}}},
    RecordingElement{"radarscenesrc",
                     "TestRadarSceneSource",
                     nullptr,
                     "application/vnd.quon.radarscene",
                     {{"video-channel", G_TYPE_INT}}},
    RecordingElement{"radarscene2xml",
                     "TestRadarSceneConverter",
                     "application/vnd.quon.radarscene",
                     testelements::SOURCE_CAPS,
                     {{"polygon", G_TYPE_BOOLEAN},
                      {"velocity", G_TYPE_BOOLEAN},
                      {"geolocation", G_TYPE_BOOLEAN},
                      {"rotation", G_TYPE_UINT},
                      {"source-name", G_TYPE_STRING}}},
    RecordingElement{"json2xml",
                     "TestJsonConverter",
                     "ANY",
                     testelements::SOURCE_CAPS,
                     {{"exclude-polygon", G_TYPE_BOOLEAN}}},
};

testhost::List<std::string> settings_made;
std::atomic<bool> ptz_is_refused = false;

} // namespace

struct TestRecordingElement {
  GstElement parent_instance;

  std::string *current_settings; /* of the current call that sets properties */
  gboolean ptz;
};

struct TestRecordingElementClass {
  GstElementClass parent_class;
};

GType test_recording_element_get_type();
G_DEFINE_TYPE(TestRecordingElement, test_recording_element, GST_TYPE_ELEMENT)

static TestRecordingElement *
test_recording_element(gpointer instance)
{
  return G_TYPE_CHECK_INSTANCE_CAST(instance, test_recording_element_get_type(), TestRecordingElement);
}

static void
test_recording_element_set_property(GObject *object, guint, const GValue *value, GParamSpec *pspec)
{
  TestRecordingElement *self = test_recording_element(object);
  g_auto(GValue) text = G_VALUE_INIT;

  g_value_init(&text, G_TYPE_STRING);
  g_value_transform(value, &text);
  *self->current_settings += std::string(" ") + pspec->name + "=" + g_value_get_string(&text);
  if (strcmp(pspec->name, "ptz") == 0) {
    self->ptz = g_value_get_boolean(value) && !ptz_is_refused;
  }
}

/* Only "ptz" is read. */
static void
test_recording_element_get_property(GObject *object, guint, GValue *value, GParamSpec *pspec)
{
  if (strcmp(pspec->name, "ptz") == 0) {
    g_value_set_boolean(value, test_recording_element(object)->ptz);
  }
}

/* Called once after each call that sets properties. */
static void
test_recording_element_dispatch_properties_changed(GObject *object, guint n_pspecs, GParamSpec **pspecs)
{
  const std::string settings = std::exchange(*test_recording_element(object)->current_settings, {});

  if (!settings.empty()) {
    settings_made.add(GST_OBJECT_NAME(object) + settings);
  }
  G_OBJECT_CLASS(test_recording_element_parent_class)->dispatch_properties_changed(object, n_pspecs, pspecs);
}

static void
test_recording_element_init(TestRecordingElement *self)
{
  self->current_settings = new std::string;
}

static void
test_recording_element_finalize(GObject *object)
{
  delete test_recording_element(object)->current_settings;

  G_OBJECT_CLASS(test_recording_element_parent_class)->finalize(object);
}

static void
test_recording_element_class_init(TestRecordingElementClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);

  object_class->finalize = test_recording_element_finalize;
  object_class->dispatch_properties_changed = test_recording_element_dispatch_properties_changed;
}

static GParamSpec *
recorded_property_spec(const RecordedProperty &property)
{
  const char *name = property.name;

  switch (property.type) {
  case G_TYPE_BOOLEAN:
    return g_param_spec_boolean(name, name, name, FALSE, G_PARAM_READWRITE);
  case G_TYPE_INT:
    return g_param_spec_int(name, name, name, G_MININT, G_MAXINT, 0, G_PARAM_READWRITE);
  case G_TYPE_UINT:
    return g_param_spec_uint(name, name, name, 0, G_MAXUINT, 0, G_PARAM_READWRITE);
  default:
    return g_param_spec_string(name, name, name, nullptr, G_PARAM_READWRITE);
  }
}

static void
add_pad_template(GstElementClass *klass, const char *name, GstPadDirection direction, const char *media_type)
{
  g_autoptr(GstCaps) caps = gst_caps_from_string(media_type);

  gst_element_class_add_pad_template(klass, gst_pad_template_new(name, direction, GST_PAD_ALWAYS, caps));
}

static void
recording_element_class_init(gpointer klass, gpointer user_data)
{
  const auto *description = static_cast<const RecordingElement *>(user_data);
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  guint id = 0;

  /* Not inherited. */
  object_class->get_property = test_recording_element_get_property;
  object_class->set_property = test_recording_element_set_property;
  for (const RecordedProperty &property : description->properties) {
    g_object_class_install_property(object_class, ++id, recorded_property_spec(property));
  }
  if (description->sink_caps != nullptr) {
    add_pad_template(GST_ELEMENT_CLASS(klass), "sink", GST_PAD_SINK, description->sink_caps);
  }
  add_pad_template(GST_ELEMENT_CLASS(klass), "src", GST_PAD_SRC, description->src_caps);
  gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(klass), "Recorder", "Test", "Records its settings",
                                        "tests");
}

static void
recording_element_init(GTypeInstance *instance, gpointer klass)
{
  for (const char *name : {"sink", "src"}) {
    GstPadTemplate *templ = gst_element_class_get_pad_template(GST_ELEMENT_CLASS(klass), name);
    if (templ != nullptr) {
      gst_element_add_pad(GST_ELEMENT(instance), gst_pad_new_from_template(templ, name));
    }
  }
}

static void
register_recording_element(const RecordingElement &description)
{
  const GTypeInfo info = {
      .class_size = sizeof(TestRecordingElementClass),
      .class_init = recording_element_class_init,
      .class_data = &description,
      .instance_size = sizeof(TestRecordingElement),
      .instance_init = recording_element_init,
  };

  if (g_type_from_name(description.type_name) == G_TYPE_INVALID) {
    const GType type = g_type_register_static(test_recording_element_get_type(), description.type_name, &info,
                                              static_cast<GTypeFlags>(0));
    gst_element_register(nullptr, description.factory, GST_RANK_NONE, type);
  }
}

namespace testelements
{

void
install_recording_elements()
{
  for (const RecordingElement &description : RECORDING_ELEMENTS) {
    register_recording_element(description);
  }
}

std::vector<std::string>
take_settings()
{
  return settings_made.take();
}

WithoutPtz::WithoutPtz()
{
  ptz_is_refused = true;
}

WithoutPtz::~WithoutPtz()
{
  ptz_is_refused = false;
}

} // namespace testelements
