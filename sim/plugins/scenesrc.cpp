/* SPDX-License-Identifier: MIT */
#include "scenesrc.h"

#include "scenebuffer.h"
#include "scenesequence.h"
#include "sourcewait.h"

#include <array>
#include <gst/base/gstpushsrc.h>

/* A live source of scenes, see SceneSequence. The first scene, and one after each sync point, is sent
 * immediately; so the pipeline pre-rolls.
 *
 * Downstream selects the parts of the objects by the caps.
 *
 * Threads: only the streaming thread uses the scenes and sets caps while the element runs, and before that
 * the thread that starts it. `SourceWait` locks itself. The object lock protects the property. */

namespace
{

struct State {
  int channel = 1;
  sim::SceneSequence scenes;
  onvif::SourceWait wait;
};

struct SceneSrc {
  GstPushSrc parent_instance;
  State *state;
};

struct SceneSrcClass {
  GstPushSrcClass parent_class;
  const sim::ScenePlugin *description;
};

enum {
  PROP_VIDEO_CHANNEL = 1,
  N_PROPERTIES,
};

GParamSpec *properties[N_PROPERTIES];
gpointer parent_class;

GST_DEBUG_CATEGORY_STATIC(scene_src_debug);
#define GST_CAT_DEFAULT scene_src_debug

/* A part of the objects that the caps select. */
struct Selection {
  const char *field;
  bool sim::SceneDetails::*detail;
};

constexpr std::array<Selection, 3> SELECTIONS = {{
    {"bounding-box", &sim::SceneDetails::boxes},
    {"polygon", &sim::SceneDetails::polygons},
    {"velocity", &sim::SceneDetails::velocities},
}};

SceneSrc *
as_scene_src(gpointer object)
{
  return static_cast<SceneSrc *>(object);
}

const sim::ScenePlugin &
description_of(gpointer object)
{
  return *G_TYPE_INSTANCE_GET_CLASS(object, 0, SceneSrcClass)->description;
}

/* The wall clock and the monotonic clock cannot be read at the same time, so a wait may be slightly too
 * short. */
onvif::WakeReason
wait_for_next(State &state)
{
  for (;;) {
    gint64 left = state.scenes.time_until_next();
    onvif::WakeReason wake = state.wait.wait_until(g_get_monotonic_time() + left);
    if (wake != onvif::WakeReason::DEADLINE || left <= 0) {
      return wake;
    }
  }
}

int
channel_of(SceneSrc *self)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(self));
  return self->state->channel;
}

void
set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  if (id != PROP_VIDEO_CHANNEL) {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    return;
  }
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(object));
  as_scene_src(object)->state->channel = g_value_get_int(value);
}

void
get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  if (id != PROP_VIDEO_CHANNEL) {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    return;
  }
  g_value_set_int(value, channel_of(as_scene_src(object)));
}

void
finalize(GObject *object)
{
  delete as_scene_src(object)->state;
  G_OBJECT_CLASS(parent_class)->finalize(object);
}

GstCaps *
get_caps(GstBaseSrc *base, GstCaps *filter)
{
  g_autoptr(GstCaps) template_caps = gst_pad_get_pad_template_caps(GST_BASE_SRC_PAD(base));
  g_autoptr(GstCaps) caps = gst_caps_copy(template_caps);
  gst_caps_set_simple(caps, "channel", G_TYPE_INT, channel_of(as_scene_src(base)), nullptr);
  return filter != nullptr ? gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST)
                           : g_steal_pointer(&caps);
}

/* A field that downstream leaves open becomes true. */
GstCaps *
fixate(GstBaseSrc *base, GstCaps *caps)
{
  GstCaps *one = gst_caps_make_writable(gst_caps_truncate(caps));
  for (const Selection &selection : SELECTIONS) {
    gst_structure_fixate_field_boolean(gst_caps_get_structure(one, 0), selection.field, TRUE);
  }
  return GST_BASE_SRC_CLASS(parent_class)->fixate(base, one);
}

gboolean
set_caps(GstBaseSrc *base, GstCaps *caps)
{
  const GstStructure *chosen = gst_caps_get_structure(caps, 0);
  for (const Selection &selection : SELECTIONS) {
    gboolean wanted = FALSE;
    if (!gst_structure_get_boolean(chosen, selection.field, &wanted)) {
      return FALSE;
    }
    as_scene_src(base)->state->scenes.details.*selection.detail = wanted;
  }
  return TRUE;
}

gboolean
start(GstBaseSrc *base)
{
  State *state = as_scene_src(base)->state;
  state->scenes.open();
  state->scenes.details.radar = description_of(base).radar;
  state->wait.clear();
  return TRUE;
}

gboolean
unlock(GstBaseSrc *base)
{
  as_scene_src(base)->state->wait.set_flushing(true);
  return TRUE;
}

gboolean
unlock_stop(GstBaseSrc *base)
{
  as_scene_src(base)->state->wait.set_flushing(false);
  return TRUE;
}

/* Called on the thread that sends the event. */
gboolean
on_event(GstBaseSrc *base, GstEvent *event)
{
  if (!as_scene_src(base)->state->wait.handle_event(event)) {
    return GST_BASE_SRC_CLASS(parent_class)->event(base, event);
  }
  GST_DEBUG_OBJECT(base, "Sync point requested");
  return TRUE;
}

GstStateChangeReturn
change_state(GstElement *element, GstStateChange transition)
{
  if (transition == GST_STATE_CHANGE_PAUSED_TO_PLAYING) {
    as_scene_src(element)->state->wait.set_flushing(false);
  }
  return GST_ELEMENT_CLASS(parent_class)->change_state(element, transition);
}

GstFlowReturn
create(GstPushSrc *push, GstBuffer **buffer)
{
  State *state = as_scene_src(push)->state;
  while (wait_for_next(*state) == onvif::WakeReason::FLUSHING) {
    const GstFlowReturn flow = gst_base_src_wait_playing(GST_BASE_SRC(push));
    if (flow != GST_FLOW_OK) {
      return flow;
    }
  }
  *buffer = sim::scene_to_buffer(state->scenes.next_scene());
  return GST_FLOW_OK;
}

void
set_boolean_list(GstCaps *caps, const char *field)
{
  g_auto(GValue) either = G_VALUE_INIT;
  g_auto(GValue) value = G_VALUE_INIT;
  g_value_init(&either, GST_TYPE_LIST);
  g_value_init(&value, G_TYPE_BOOLEAN);
  for (bool choice : {true, false}) {
    g_value_set_boolean(&value, choice);
    gst_value_list_append_value(&either, &value);
  }
  gst_caps_set_value(caps, field, &either);
}

void
add_pad_template(GstElementClass *element_class, const char *media_type)
{
  g_autoptr(GstCaps) caps =
      gst_caps_new_simple(media_type, "channel", GST_TYPE_INT_RANGE, 0, G_MAXINT, nullptr);
  for (const Selection &selection : SELECTIONS) {
    set_boolean_list(caps, selection.field);
  }
  gst_element_class_add_pad_template(element_class,
                                     gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
}

void
class_init(gpointer klass, gpointer class_data)
{
  auto plugin = static_cast<const sim::ScenePlugin *>(class_data);
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
  GstBaseSrcClass *base_class = GST_BASE_SRC_CLASS(klass);

  GST_DEBUG_CATEGORY_INIT(scene_src_debug, plugin->source.name, 0, plugin->source.description);
  parent_class = g_type_class_peek_parent(klass);
  static_cast<SceneSrcClass *>(klass)->description = plugin;
  object_class->set_property = set_property;
  object_class->get_property = get_property;
  object_class->finalize = finalize;
  element_class->change_state = change_state;
  base_class->get_caps = get_caps;
  base_class->fixate = fixate;
  base_class->set_caps = set_caps;
  base_class->start = start;
  base_class->unlock = unlock;
  base_class->unlock_stop = unlock_stop;
  base_class->event = on_event;
  GST_PUSH_SRC_CLASS(klass)->create = create;

  properties[PROP_VIDEO_CHANNEL] = g_param_spec_int(
      "video-channel", "Video channel", "Video channel whose scenes to send", 0, G_MAXINT, 1,
      static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY));
  g_object_class_install_properties(object_class, N_PROPERTIES, properties);

  add_pad_template(element_class, plugin->media_type);
  gst_element_class_set_static_metadata(element_class, plugin->source.long_name, "Source/Metadata",
                                        plugin->source.description, "tessard");
}

void
instance_init(GTypeInstance *instance, gpointer klass)
{
  as_scene_src(instance)->state = new State;
  gst_base_src_set_live(GST_BASE_SRC(instance), TRUE);
  gst_base_src_set_format(GST_BASE_SRC(instance), GST_FORMAT_TIME);
  gst_base_src_set_do_timestamp(GST_BASE_SRC(instance), TRUE);
}

} // namespace

namespace sim
{

/**
 * scene_src_type_info:
 * @description: (transfer none): the plug-in's description, which must stay valid as long as the process runs
 *
 * Returns: the source's class, for element_register_class()
 */
GTypeInfo
scene_src_type_info(const ScenePlugin *description)
{
  return {
      .class_size = sizeof(SceneSrcClass),
      .class_init = class_init,
      .class_data = description,
      .instance_size = sizeof(SceneSrc),
      .instance_init = instance_init,
  };
}

} // namespace sim
