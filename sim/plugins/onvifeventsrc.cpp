/* SPDX-License-Identifier: MIT */
#include "onvifeventsrc.h"

#include "contentfilter.h"
#include "metadata.h"
#include "sourcewait.h"
#include "topicexpression.h"
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
 * that starts it. `SourceWait` locks itself. The object lock protects the properties. */

namespace
{

struct StreamingState {
  sim::WorldCursor cursor;
  std::optional<sim::TopicExpression> topics;
  std::optional<sim::ContentFilter> contents;
};

struct State {
  char *event_topic = nullptr;
  char *event_content = nullptr;
  StreamingState streaming;
  sim::SourceWait wait;
};

} // namespace

struct _TessardSimEventSrc {
  GstPushSrc parent_instance;
  State *state;
};

enum {
  PROP_EVENT_TOPIC = 1,
  PROP_EVENT_CONTENT,
  N_PROPERTIES,
};

static GParamSpec *properties[N_PROPERTIES];

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
  if (streaming.topics.has_value() && !streaming.topics->matches(message.topic)) {
    return true;
  }
  if (streaming.contents.has_value()) {
    std::optional<bool> matches = streaming.contents->matches(message, error);
    if (!matches.has_value()) {
      return false;
    }
    if (!*matches) {
      return true;
    }
  }
  selected.push_back(std::move(message));
  return true;
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

bool
read_topics(TessardSimEventSrc *self, const char *text)
{
  StreamingState &streaming = self->state->streaming;
  streaming.topics.reset();
  if (text == nullptr) {
    return true;
  }
  g_autoptr(GError) error = nullptr;
  streaming.topics = sim::TopicExpression::parse(text, &error);
  if (!streaming.topics.has_value()) {
    GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS,
                      ("The topic filter of the events is malformed: %s.", error->message), (nullptr));
  }
  return streaming.topics.has_value();
}

bool
read_contents(TessardSimEventSrc *self, const char *text)
{
  StreamingState &streaming = self->state->streaming;
  streaming.contents.reset();
  if (text == nullptr) {
    return true;
  }
  g_autoptr(GError) error = nullptr;
  streaming.contents = sim::ContentFilter::compile(text, &error);
  if (!streaming.contents.has_value()) {
    GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS,
                      ("The content filter of the events is malformed: %s.", error->message), (nullptr));
  }
  return streaming.contents.has_value();
}

} // namespace

static void
tessard_sim_event_src_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  State *state = TESSARD_SIM_EVENT_SRC(object)->state;
  GST_OBJECT_LOCK(object);
  switch (id) {
  case PROP_EVENT_TOPIC:
    g_free(state->event_topic);
    state->event_topic = g_value_dup_string(value);
    break;
  case PROP_EVENT_CONTENT:
    g_free(state->event_content);
    state->event_content = g_value_dup_string(value);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
  GST_OBJECT_UNLOCK(object);
}

static void
tessard_sim_event_src_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  State *state = TESSARD_SIM_EVENT_SRC(object)->state;
  GST_OBJECT_LOCK(object);
  switch (id) {
  case PROP_EVENT_TOPIC:
    g_value_set_string(value, state->event_topic);
    break;
  case PROP_EVENT_CONTENT:
    g_value_set_string(value, state->event_content);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
  GST_OBJECT_UNLOCK(object);
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
  g_free(self->state->event_topic);
  g_free(self->state->event_content);
  delete self->state;
  G_OBJECT_CLASS(tessard_sim_event_src_parent_class)->finalize(object);
}

static gboolean
tessard_sim_event_src_start(GstBaseSrc *base)
{
  TessardSimEventSrc *self = TESSARD_SIM_EVENT_SRC(base);
  GST_OBJECT_LOCK(self);
  g_autofree char *topic = g_strdup(self->state->event_topic);
  g_autofree char *content = g_strdup(self->state->event_content);
  GST_OBJECT_UNLOCK(self);
  if (!read_topics(self, topic) || !read_contents(self, content)) {
    return FALSE;
  }

  self->state->streaming.cursor.open();
  self->state->wait.clear_sync_point();
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
    sim::WakeReason wake = self->state->wait.wait_until(streaming.cursor.next_change_deadline());
    if (wake == sim::WakeReason::FLUSHING) {
      const GstFlowReturn flow = gst_base_src_wait_playing(GST_BASE_SRC(push));
      if (flow != GST_FLOW_OK) {
        return flow;
      }
      continue;
    }

    std::vector<onvif::EventMessage> messages;
    bool must_send = false;
    g_autoptr(GError) error = nullptr;
    if (!collect_new(streaming, wake == sim::WakeReason::SYNC_POINT, messages, &must_send, &error)) {
      GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS,
                        ("The content filter of the events cannot be evaluated: %s.", error->message),
                        (nullptr));
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

  auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
  properties[PROP_EVENT_TOPIC] = g_param_spec_string(
      "event-topic", "Event topic",
      "ONVIF ConcreteSet topic expression that selects the topics to send; all if unset", nullptr, flags);
  properties[PROP_EVENT_CONTENT] = g_param_spec_string(
      "event-content", "Event content",
      "XPath expression over tt:Message that selects the events to send; all if unset", nullptr, flags);
  g_object_class_install_properties(object_class, N_PROPERTIES, properties);

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
