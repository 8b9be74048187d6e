/* SPDX-License-Identifier: MIT */
#include "onvifeventsrc.h"

#include "eventfilter.h"
#include "metadata.h"
#include "sourcewait.h"
#include "worldcursor.h"
#include "worldevents.h"

#include <libxml/parser.h>
#include <utility>

/* A live source of the world's events. It waits for the world's next change and does not poll; a change
 * without an event sends nothing. The first buffer and the first one after a sync point have the current
 * state of every property that passes the filters. They are sent even if no property does, so that the
 * pipeline pre-rolls.
 *
 * Threads: only the streaming thread uses `StreamingState` while the element runs, and before that the thread
 * that starts it. `SourceWait` locks itself. The object lock protects
 * the properties. */

namespace
{

struct StreamingState {
  sim::WorldCursor cursor;
  onvif::EventFilter filter;
};

struct State {
  onvif::EventFilterProperties properties;
  StreamingState streaming;
  onvif::SourceWait wait;
};

} // namespace

struct _TessardSimEventSrc {
  GstPushSrc parent_instance;
  State *state;
};

GST_DEBUG_CATEGORY_STATIC(event_src_debug);
#define GST_CAT_DEFAULT event_src_debug

G_DEFINE_FINAL_TYPE(TessardSimEventSrc, tessard_sim_event_src, GST_TYPE_PUSH_SRC)

namespace
{

/* Adds @message to @selected if it passes the filters. Fails only if a filter cannot be evaluated. */
bool
add_if_selected(const StreamingState &streaming, onvif::EventMessage message,
                std::vector<onvif::EventMessage> &selected, GError **error)
{
  std::optional<bool> selects = streaming.filter.selects(message, error);
  if (selects.value_or(false)) {
    selected.push_back(std::move(message));
  }
  return selects.has_value();
}

/* Adds the changes between the cursor's position and @now if @with_changes, then the state if @with_state. */
bool
collect_messages(const StreamingState &streaming, sim::WorldTime now, bool with_changes, bool with_state,
                 std::vector<onvif::EventMessage> &selected, GError **error)
{
  const sim::World &world = streaming.cursor.world();
  const sim::Settings &settings = streaming.cursor.settings();
  if (with_changes) {
    for (const sim::Change &change : world.changes_between(streaming.cursor.position(), now)) {
      std::optional<onvif::EventMessage> message = sim::world_event_from_change(change, settings);
      if (message.has_value() && !add_if_selected(streaming, std::move(*message), selected, error)) {
        return false;
      }
    }
  }
  if (with_state) {
    for (onvif::EventMessage &message : sim::world_events_of_state(world, now, settings)) {
      if (!add_if_selected(streaming, std::move(message), selected, error)) {
        return false;
      }
    }
  }
  return true;
}

/* Adds the new events to @messages. @must_send: (out): whether to send even an empty list. */
bool
collect_new(StreamingState &streaming, bool sync_point, std::vector<onvif::EventMessage> &messages,
            bool *must_send, GError **error)
{
  sim::WorldTime now = streaming.cursor.now();
  bool continues = streaming.cursor.can_continue(now);
  bool with_state = sync_point || !continues;

  *must_send = with_state;
  if (!collect_messages(streaming, now, continues, with_state, messages, error)) {
    return false;
  }
  streaming.cursor.advance_to(now);
  return true;
}

} // namespace

static void
tessard_sim_event_src_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  TESSARD_SIM_EVENT_SRC(object)->state->properties.set(object, id, value, pspec);
}

static void
tessard_sim_event_src_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  TESSARD_SIM_EVENT_SRC(object)->state->properties.get(object, id, value, pspec);
}

static void
tessard_sim_event_src_init(TessardSimEventSrc *self)
{
  self->state = new State;
  gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
  gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
  gst_base_src_set_do_timestamp(GST_BASE_SRC(self), TRUE);
}

static void
tessard_sim_event_src_finalize(GObject *object)
{
  TessardSimEventSrc *self = TESSARD_SIM_EVENT_SRC(object);
  delete self->state;
  G_OBJECT_CLASS(tessard_sim_event_src_parent_class)->finalize(object);
}

static gboolean
tessard_sim_event_src_start(GstBaseSrc *base)
{
  TessardSimEventSrc *self = TESSARD_SIM_EVENT_SRC(base);
  if (!self->state->properties.compile(GST_ELEMENT(self), &self->state->streaming.filter,
                                       sim::world_event_examples())) {
    return FALSE;
  }

  self->state->streaming.cursor.open();
  self->state->wait.clear();
  return TRUE;
}

static gboolean
tessard_sim_event_src_unlock(GstBaseSrc *base)
{
  TESSARD_SIM_EVENT_SRC(base)->state->wait.set_flushing(true);
  return TRUE;
}

static gboolean
tessard_sim_event_src_unlock_stop(GstBaseSrc *base)
{
  TESSARD_SIM_EVENT_SRC(base)->state->wait.set_flushing(false);
  return TRUE;
}

/* Called on the thread that sends the event. */
static gboolean
tessard_sim_event_src_event(GstBaseSrc *base, GstEvent *event)
{
  if (!TESSARD_SIM_EVENT_SRC(base)->state->wait.handle_event(event)) {
    return GST_BASE_SRC_CLASS(tessard_sim_event_src_parent_class)->event(base, event);
  }
  GST_DEBUG_OBJECT(base, "Sync point requested");
  return TRUE;
}

static GstStateChangeReturn
tessard_sim_event_src_change_state(GstElement *element, GstStateChange transition)
{
  if (transition == GST_STATE_CHANGE_PAUSED_TO_PLAYING) {
    TESSARD_SIM_EVENT_SRC(element)->state->wait.set_flushing(false);
  }
  return GST_ELEMENT_CLASS(tessard_sim_event_src_parent_class)->change_state(element, transition);
}

static GstFlowReturn
tessard_sim_event_src_create(GstPushSrc *push, GstBuffer **buffer)
{
  TessardSimEventSrc *self = TESSARD_SIM_EVENT_SRC(push);
  StreamingState &streaming = self->state->streaming;
  for (;;) {
    onvif::WakeReason wake = self->state->wait.wait_until(streaming.cursor.next_change_deadline());
    if (wake == onvif::WakeReason::FLUSHING) {
      const GstFlowReturn flow = gst_base_src_wait_playing(GST_BASE_SRC(push));
      if (flow != GST_FLOW_OK) {
        return flow;
      }
      continue;
    }

    std::vector<onvif::EventMessage> messages;
    bool must_send = false;
    g_autoptr(GError) error = nullptr;
    if (!collect_new(streaming, wake == onvif::WakeReason::SYNC_POINT, messages, &must_send, &error)) {
      GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("%s", error->message), (nullptr));
      return GST_FLOW_ERROR;
    }
    if (messages.empty() && !must_send) {
      continue;
    }
    *buffer = onvif::event_messages_to_fragment(messages, {&sim::TNSIMCAM, 1});
    return GST_FLOW_OK;
  }
}

static void
tessard_sim_event_src_class_init(TessardSimEventSrcClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
  GstBaseSrcClass *base_class = GST_BASE_SRC_CLASS(klass);

  GST_DEBUG_CATEGORY_INIT(event_src_debug, "onvifeventsrc", 0, "Events of the simulated camera");
  object_class->set_property = tessard_sim_event_src_set_property;
  object_class->get_property = tessard_sim_event_src_get_property;
  object_class->finalize = tessard_sim_event_src_finalize;
  element_class->change_state = tessard_sim_event_src_change_state;
  base_class->start = tessard_sim_event_src_start;
  base_class->unlock = tessard_sim_event_src_unlock;
  base_class->unlock_stop = tessard_sim_event_src_unlock_stop;
  base_class->event = tessard_sim_event_src_event;
  GST_PUSH_SRC_CLASS(klass)->create = tessard_sim_event_src_create;

  onvif::EventFilterProperties::install(object_class);

  g_autoptr(GstCaps) caps = gst_caps_new_empty_simple(onvif::FRAGMENT_CAPS);
  gst_element_class_add_pad_template(element_class,
                                     gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
  gst_element_class_set_static_metadata(element_class, "ONVIF event source", "Source/Metadata",
                                        "Produces the events of the simulated camera as ONVIF metadata",
                                        "tessard");
}

static gboolean
plugin_init(GstPlugin *plugin)
{
  /* Elements filter events on several threads. */
  xmlInitParser();
  return gst_element_register(plugin, "onvifeventsrc", GST_RANK_NONE, TESSARD_SIM_TYPE_EVENT_SRC);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, onvifeventsrc, "Events of the simulated camera",
                  plugin_init, VERSION, "MIT/X11", PACKAGE, "tessard")
