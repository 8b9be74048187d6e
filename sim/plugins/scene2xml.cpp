/* SPDX-License-Identifier: MIT */
#include "scene2xml.h"

#include "metadata.h"
#include "metadatalimits.h"
#include "scenebuffer.h"
#include "scenefragment.h"
#include "settings.h"

#include <array>
#include <gst/base/gstbasetransform.h>
#include <utility>
#include <variant>

/* Converts each scene to one fragment of ONVIF metadata. Malformed scenes are dropped; the first of a series
 * of them causes a warning.
 *
 * The position of the PTZ head is not part of a scene; the converter reads it from the world. The settings
 * are read when the element is created, because the property "ptz" depends on them before the element starts.
 *
 * Threads: the object lock protects `Options`. Only the streaming thread uses `StreamingState` while the
 * element runs, and before that the thread that starts it. */

namespace
{

struct Options {
  bool polygon = false;
  guint rotation = 0;
  std::optional<std::string> source_name;
  /* Of scene2xml only */
  int ptz_move_capabilities = 0;
  int pan_tilt_space = sim::PTZ_DEFAULT_SPACE;
  int zoom_space = sim::PTZ_DEFAULT_SPACE;
  int channel = 1;
  bool ptz = false;
  /* Of radarscene2xml only */
  bool velocity = false;
  bool geolocation = false;
};

/* What the element uses while it runs. */
struct StreamingState {
  sim::SceneView view;
  bool with_ptz = false;
  bool was_malformed = false;
};

struct State {
  sim::Settings settings;
  Options options;
  StreamingState streaming;
};

struct SceneConverter {
  GstBaseTransform parent_instance;
  State *state;
};

struct SceneConverterClass {
  GstBaseTransformClass parent_class;
  const sim::ScenePlugin *description;
};

enum class Owner {
  BOTH,
  SCENE,
  RADAR,
};

using Option =
    std::variant<bool Options::*, int Options::*, guint Options::*, std::optional<std::string> Options::*>;

struct Property {
  const char *name;
  const char *nick;
  const char *blurb;
  Owner owner;
  Option option;
};

/* A property's id is its index plus 1. */
constexpr std::array<Property, 10> PROPERTIES = {{
    {"polygon", "Polygon", "Whether to write the polygons of objects", Owner::BOTH, &Options::polygon},
    {"rotation", "Rotation", "Clockwise rotation of the picture in degrees: 0, 90, 180 or 270", Owner::BOTH,
     &Options::rotation},
    {"source-name", "Source name", "Source of every frame; none if unset", Owner::BOTH,
     &Options::source_name},
    {"ptz-move-capabilities", "PTZ move capabilities", "Mask of what the PTZ driver can move; 0 if unknown",
     Owner::SCENE, &Options::ptz_move_capabilities},
    {"pan-tilt-space", "Pan-tilt space", "Coordinate space of pan and tilt; -1 for the default", Owner::SCENE,
     &Options::pan_tilt_space},
    {"zoom-space", "Zoom space", "Coordinate space of the zoom; -1 for the default", Owner::SCENE,
     &Options::zoom_space},
    {"channel", "Channel", "Video channel whose PTZ head to report", Owner::SCENE, &Options::channel},
    {"ptz", "PTZ", "Whether to write the state of the PTZ head; always false for a channel without one",
     Owner::SCENE, &Options::ptz},
    {"velocity", "Velocity", "Whether to write the velocities of objects", Owner::RADAR, &Options::velocity},
    {"geolocation", "Geolocation", "Whether to write the locations of objects on the earth", Owner::RADAR,
     &Options::geolocation},
}};

gpointer parent_class;

GST_DEBUG_CATEGORY_STATIC(scene_converter_debug);
#define GST_CAT_DEFAULT scene_converter_debug

SceneConverter *
as_converter(gpointer object)
{
  return static_cast<SceneConverter *>(object);
}

const sim::ScenePlugin &
description_of(gpointer object)
{
  return *G_TYPE_INSTANCE_GET_CLASS(object, 0, SceneConverterClass)->description;
}

GParamSpec *
new_spec(const Property &property)
{
  auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
  const Options defaults;
  if (auto option = std::get_if<bool Options::*>(&property.option)) {
    return g_param_spec_boolean(property.name, property.nick, property.blurb, defaults.*(*option), flags);
  }
  if (auto option = std::get_if<int Options::*>(&property.option)) {
    return g_param_spec_int(property.name, property.nick, property.blurb, G_MININT, G_MAXINT,
                            defaults.*(*option), flags);
  }
  if (auto option = std::get_if<guint Options::*>(&property.option)) {
    return g_param_spec_uint(property.name, property.nick, property.blurb, 0, G_MAXUINT, defaults.*(*option),
                             flags);
  }
  return g_param_spec_string(property.name, property.nick, property.blurb, nullptr, flags);
}

struct ValueReader {
  Options &options;
  const GValue *value;

  void operator()(bool Options::*option) const
  {
    options.*option = g_value_get_boolean(value);
  }
  void operator()(int Options::*option) const
  {
    options.*option = g_value_get_int(value);
  }
  void operator()(guint Options::*option) const
  {
    options.*option = g_value_get_uint(value);
  }
  void operator()(std::optional<std::string> Options::*option) const
  {
    const char *text = g_value_get_string(value);
    options.*option = text != nullptr ? std::optional<std::string>(text) : std::nullopt;
  }
};

struct ValueWriter {
  const Options &options;
  GValue *value;

  void operator()(bool Options::*option) const
  {
    g_value_set_boolean(value, options.*option);
  }
  void operator()(int Options::*option) const
  {
    g_value_set_int(value, options.*option);
  }
  void operator()(guint Options::*option) const
  {
    g_value_set_uint(value, options.*option);
  }
  void operator()(std::optional<std::string> Options::*option) const
  {
    const std::optional<std::string> &text = options.*option;
    g_value_set_string(value, text.has_value() ? text->c_str() : nullptr);
  }
};

/* Without a PTZ head on the channel, "ptz" is always false. */
Options
effective_options(SceneConverter *self)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(self));
  Options options = self->state->options;
  options.ptz = options.ptz && sim::settings_has_ptz(self->state->settings, options.channel);
  return options;
}

void
set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(object));
  std::visit(ValueReader{as_converter(object)->state->options, value}, PROPERTIES[id - 1].option);
}

void
get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  Options options = effective_options(as_converter(object));
  std::visit(ValueWriter{options, value}, PROPERTIES[id - 1].option);
}

void
finalize(GObject *object)
{
  delete as_converter(object)->state;
  G_OBJECT_CLASS(parent_class)->finalize(object);
}

std::optional<std::string>
short_name(const std::optional<std::string> &name)
{
  if (!name.has_value()) {
    return std::nullopt;
  }
  return std::string(onvif::xml_beginning(*name, onvif::SOURCE_NAME_MAX));
}

guint
rotation_of(SceneConverter *self, const Options &options)
{
  if (sim::scene_can_rotate(options.rotation)) {
    return options.rotation;
  }
  GST_ELEMENT_WARNING(self, RESOURCE, SETTINGS,
                      ("A picture cannot be rotated by %u degrees, so it is not rotated.", options.rotation),
                      (nullptr));
  return 0;
}

gboolean
start(GstBaseTransform *base)
{
  SceneConverter *self = as_converter(base);
  Options options = effective_options(self);
  self->state->streaming = {
      .view = {.source_name = short_name(options.source_name),
               .rotation = rotation_of(self, options),
               .polygon = options.polygon,
               .velocity = options.velocity || !description_of(self).radar,
               .geolocation = options.geolocation,
               .ptz = {.pan_tilt_space = options.pan_tilt_space,
                       .zoom_space = options.zoom_space,
                       .move_capabilities = options.ptz_move_capabilities}},
      .with_ptz = options.ptz,
  };
  return TRUE;
}

GstCaps *
transform_caps(GstBaseTransform *base, GstPadDirection direction, GstCaps *caps, GstCaps *filter)
{
  GstPad *other =
      direction == GST_PAD_SRC ? GST_BASE_TRANSFORM_SINK_PAD(base) : GST_BASE_TRANSFORM_SRC_PAD(base);
  g_autoptr(GstCaps) other_caps = gst_pad_get_pad_template_caps(other);
  return filter != nullptr ? gst_caps_intersect_full(filter, other_caps, GST_CAPS_INTERSECT_FIRST)
                           : g_steal_pointer(&other_caps);
}

std::optional<sim::Scene>
read_scene(SceneConverter *self, GstBuffer *buffer)
{
  std::optional<sim::Scene> scene = sim::scene_from_buffer(buffer);
  bool first = !std::exchange(self->state->streaming.was_malformed, !scene.has_value());
  if (!scene.has_value() && first) {
    GST_ELEMENT_WARNING(self, STREAM, DECODE, ("A scene is malformed and left out."),
                        ("%" G_GSIZE_FORMAT " bytes", gst_buffer_get_size(buffer)));
  }
  return scene;
}

std::optional<sim::Ptz>
ptz_at(const State &state, gint64 utc)
{
  if (!state.streaming.with_ptz) {
    return std::nullopt;
  }
  sim::World world(state.settings.seed);
  return world.ptz_at(sim::settings_world_time(state.settings, utc));
}

/* The base class calls this until there is no output; `queued_buf` is the input. */
GstFlowReturn
generate_output(GstBaseTransform *base, GstBuffer **output)
{
  SceneConverter *self = as_converter(base);
  g_autoptr(GstBuffer) input = g_steal_pointer(&base->queued_buf);
  *output = nullptr;
  if (input == nullptr) {
    return GST_FLOW_OK;
  }
  std::optional<sim::Scene> scene = read_scene(self, input);
  if (!scene.has_value()) {
    return GST_BASE_TRANSFORM_FLOW_DROPPED;
  }
  *output = sim::scene_to_fragment(*scene, self->state->streaming.view, ptz_at(*self->state, scene->utc));
  gst_buffer_copy_into(*output, input, GST_BUFFER_COPY_METADATA, 0, static_cast<gsize>(-1));
  return GST_FLOW_OK;
}

bool
belongs_to(const Property &property, const sim::ScenePlugin &plugin)
{
  return property.owner == Owner::BOTH || (property.owner == Owner::RADAR) == plugin.radar;
}

void
add_pad_template(GstElementClass *element_class, const char *name, GstPadDirection direction,
                 const char *media_type)
{
  g_autoptr(GstCaps) caps = gst_caps_new_empty_simple(media_type);
  gst_element_class_add_pad_template(element_class,
                                     gst_pad_template_new(name, direction, GST_PAD_ALWAYS, caps));
}

void
class_init(gpointer klass, gpointer class_data)
{
  auto plugin = static_cast<const sim::ScenePlugin *>(class_data);
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
  GstBaseTransformClass *transform_class = GST_BASE_TRANSFORM_CLASS(klass);

  GST_DEBUG_CATEGORY_INIT(scene_converter_debug, plugin->converter.name, 0, plugin->converter.description);
  parent_class = g_type_class_peek_parent(klass);
  static_cast<SceneConverterClass *>(klass)->description = plugin;
  object_class->set_property = set_property;
  object_class->get_property = get_property;
  object_class->finalize = finalize;
  transform_class->start = start;
  transform_class->transform_caps = transform_caps;
  transform_class->generate_output = generate_output;

  for (guint i = 0; i < PROPERTIES.size(); i++) {
    if (belongs_to(PROPERTIES[i], *plugin)) {
      g_object_class_install_property(object_class, i + 1, new_spec(PROPERTIES[i]));
    }
  }

  add_pad_template(element_class, "sink", GST_PAD_SINK, plugin->media_type);
  add_pad_template(element_class, "src", GST_PAD_SRC, onvif::FRAGMENT_CAPS);
  gst_element_class_set_static_metadata(element_class, plugin->converter.long_name, "Formatter/Metadata",
                                        plugin->converter.description, "tessard");
}

void
instance_init(GTypeInstance *instance, gpointer klass)
{
  as_converter(instance)->state = new State{.settings = sim::settings_load(), .options = {}, .streaming = {}};
  gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(instance), FALSE);
}

} // namespace

namespace sim
{

/**
 * scene_converter_type_info:
 * @description: (transfer none): the plug-in's description, which must stay valid as long as the process runs
 *
 * Returns: the converter's class, for element_register_class()
 */
GTypeInfo
scene_converter_type_info(const ScenePlugin *description)
{
  return {
      .class_size = sizeof(SceneConverterClass),
      .class_init = class_init,
      .class_data = description,
      .instance_size = sizeof(SceneConverter),
      .instance_init = instance_init,
  };
}

} // namespace sim
