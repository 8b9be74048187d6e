/* SPDX-License-Identifier: MIT */
#include "onvifeventsrc.h"

#include "eventfilter.h"
#include "eventhub.h"
#include "metadata.h"
#include "registration.h"
#include "sourcewait.h"

#include <libxml/parser.h>

/* A live source of the events of applications. The hub's thread puts them in the element's queue; the
 * streaming thread waits for it. The first buffer and the first one after a sync point have the present
 * states of all properties that pass the filters. They are sent even if none does, so that the pipeline
 * pre-rolls. The first one waits until the states are known, but not for long.
 *
 * Threads: only the streaming thread uses `Streaming` while the element runs, and before and after that the
 * thread that starts and stops it. `SourceWait` and `EventReader` lock themselves. The object lock protects
 * the properties. */

namespace
{

/* The time for which the first buffer waits for the receiver. */
constexpr gint64 BEGIN_TIMEOUT_US = 2 * G_TIME_SPAN_SECOND;

struct Streaming {
  onvif::EventFilter filter;
  std::unique_ptr<plugins::EventReader> reader;
  gint64 begin_deadline = 0;
  bool has_begun = false;
  bool has_warned = false; /* of a filter that cannot be evaluated */
};

struct State {
  onvif::EventFilterProperties properties;
  onvif::SourceWait wait;
  Streaming streaming;
};

} // namespace

struct _TessardEventSrc {
  GstPushSrc parent_instance;
  State *state;
};

GST_DEBUG_CATEGORY_STATIC(event_src_debug);
#define GST_CAT_DEFAULT event_src_debug

G_DEFINE_FINAL_TYPE(TessardEventSrc, tessard_event_src, GST_TYPE_PUSH_SRC)

namespace
{

/* An application's event must not end a client's stream, so a filter that fails on it does not select it. */
bool
is_selected(TessardEventSrc *self, const onvif::EventMessage &message)
{
  Streaming &streaming = self->state->streaming;
  g_autoptr(GError) error = nullptr;
  const std::optional<bool> selects = streaming.filter.selects(message, &error);
  if (!selects.has_value() && !streaming.has_warned) {
    streaming.has_warned = true;
    GST_ELEMENT_WARNING(self, RESOURCE, SETTINGS, ("%s", error->message),
                        ("The event is not sent. Further ones cause no warning."));
  }
  return selects.value_or(false);
}

/* Returns: (transfer full) (nullable): the selected events of the batch */
GstBuffer *
make_buffer(TessardEventSrc *self, const std::vector<plugins::SharedEvent> &batch, bool must_send)
{
  std::vector<onvif::EventMessage> messages;
  std::map<std::string_view, onvif::XmlNamespace> declared;
  std::vector<onvif::XmlNamespace> namespaces;
  for (const plugins::SharedEvent &event : batch) {
    if (!is_selected(self, event->message)) {
      continue;
    }
    messages.push_back(event->message);
    for (const auto &[prefix, uri] : event->namespaces) {
      declared.try_emplace(prefix, onvif::XmlNamespace{prefix.c_str(), uri.c_str()});
    }
  }
  namespaces.reserve(declared.size());
  for (const auto &[prefix, entry] : declared) {
    namespaces.push_back(entry);
  }
  return messages.empty() && !must_send ? nullptr : onvif::event_messages_to_fragment(messages, namespaces);
}

gint64
next_deadline(const Streaming &streaming)
{
  return streaming.has_begun ? G_MAXINT64 : streaming.begin_deadline;
}

bool
can_begin(const Streaming &streaming)
{
  return streaming.has_begun || streaming.reader->is_settled() ||
         g_get_monotonic_time() >= streaming.begin_deadline;
}

/* Returns: (transfer full) (nullable): what there is to send after the wait */
GstBuffer *
take_buffer(TessardEventSrc *self, bool sync_point)
{
  Streaming &streaming = self->state->streaming;
  const bool is_first = !streaming.has_begun;
  bool has_more = false;
  if (is_first) {
    streaming.reader->begin();
    streaming.has_begun = true;
  } else if (sync_point) {
    streaming.reader->add_states();
  }
  const std::vector<plugins::SharedEvent> batch = streaming.reader->take_batch(&has_more);
  if (has_more) {
    self->state->wait.wake();
  }
  return make_buffer(self, batch, is_first || sync_point);
}

} // namespace

static void
tessard_event_src_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  TESSARD_EVENT_SRC(object)->state->properties.set(object, id, value, pspec);
}

static void
tessard_event_src_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  TESSARD_EVENT_SRC(object)->state->properties.get(object, id, value, pspec);
}

static void
tessard_event_src_init(TessardEventSrc *self)
{
  self->state = new State;
  gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
  gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
  gst_base_src_set_do_timestamp(GST_BASE_SRC(self), TRUE);
}

static void
tessard_event_src_finalize(GObject *object)
{
  delete TESSARD_EVENT_SRC(object)->state;
  G_OBJECT_CLASS(tessard_event_src_parent_class)->finalize(object);
}

static gboolean
tessard_event_src_start(GstBaseSrc *base)
{
  State *state = TESSARD_EVENT_SRC(base)->state;
  Streaming &streaming = state->streaming;
  if (!state->properties.compile(GST_ELEMENT(base), &streaming.filter, onvif::event_message_examples())) {
    return FALSE;
  }
  state->wait.clear();
  streaming.has_begun = false;
  streaming.has_warned = false;
  streaming.begin_deadline = g_get_monotonic_time() + BEGIN_TIMEOUT_US;
  streaming.reader = std::make_unique<plugins::EventReader>([state] { state->wait.wake(); });
  state->wait.wake(); /* the states can be known already */
  return TRUE;
}

static gboolean
tessard_event_src_stop(GstBaseSrc *base)
{
  TESSARD_EVENT_SRC(base)->state->streaming.reader.reset();
  return TRUE;
}

static gboolean
tessard_event_src_unlock(GstBaseSrc *base)
{
  TESSARD_EVENT_SRC(base)->state->wait.set_flushing(true);
  return TRUE;
}

static gboolean
tessard_event_src_unlock_stop(GstBaseSrc *base)
{
  TESSARD_EVENT_SRC(base)->state->wait.set_flushing(false);
  return TRUE;
}

/* Called on the thread that sends the event. */
static gboolean
tessard_event_src_event(GstBaseSrc *base, GstEvent *event)
{
  if (!TESSARD_EVENT_SRC(base)->state->wait.handle_event(event)) {
    return GST_BASE_SRC_CLASS(tessard_event_src_parent_class)->event(base, event);
  }
  GST_DEBUG_OBJECT(base, "Sync point requested");
  return TRUE;
}

static GstStateChangeReturn
tessard_event_src_change_state(GstElement *element, GstStateChange transition)
{
  if (transition == GST_STATE_CHANGE_PAUSED_TO_PLAYING) {
    TESSARD_EVENT_SRC(element)->state->wait.set_flushing(false);
  }
  return GST_ELEMENT_CLASS(tessard_event_src_parent_class)->change_state(element, transition);
}

static GstFlowReturn
tessard_event_src_create(GstPushSrc *push, GstBuffer **buffer)
{
  TessardEventSrc *self = TESSARD_EVENT_SRC(push);
  State *state = self->state;
  for (;;) {
    const onvif::WakeReason wake = state->wait.wait_until(next_deadline(state->streaming));
    if (wake == onvif::WakeReason::FLUSHING) {
      const GstFlowReturn flow = gst_base_src_wait_playing(GST_BASE_SRC(push));
      if (flow != GST_FLOW_OK) {
        return flow;
      }
      continue;
    }
    if (!can_begin(state->streaming)) {
      continue;
    }
    *buffer = take_buffer(self, wake == onvif::WakeReason::SYNC_POINT);
    if (*buffer != nullptr) {
      return GST_FLOW_OK;
    }
  }
}

static void
tessard_event_src_class_init(TessardEventSrcClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
  GstBaseSrcClass *base_class = GST_BASE_SRC_CLASS(klass);

  GST_DEBUG_CATEGORY_INIT(event_src_debug, "onvifeventsrc", 0, "Events of applications");
  object_class->set_property = tessard_event_src_set_property;
  object_class->get_property = tessard_event_src_get_property;
  object_class->finalize = tessard_event_src_finalize;
  element_class->change_state = tessard_event_src_change_state;
  base_class->start = tessard_event_src_start;
  base_class->stop = tessard_event_src_stop;
  base_class->unlock = tessard_event_src_unlock;
  base_class->unlock_stop = tessard_event_src_unlock_stop;
  base_class->event = tessard_event_src_event;
  GST_PUSH_SRC_CLASS(klass)->create = tessard_event_src_create;
  onvif::EventFilterProperties::install(object_class);

  g_autoptr(GstCaps) caps = gst_caps_new_empty_simple(onvif::FRAGMENT_CAPS);
  gst_element_class_add_pad_template(element_class,
                                     gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
  gst_element_class_set_static_metadata(element_class, "ONVIF event source", "Source/Metadata",
                                        "Produces the events of applications as ONVIF metadata", "tessard");
}

static gboolean
plugin_init(GstPlugin *plugin)
{
  /* Elements filter events on several threads. */
  xmlInitParser();
  return plugins::register_unless_provided(plugin, "onvifeventsrc", TESSARD_TYPE_EVENT_SRC);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, onvifeventsrc, "Events of applications", plugin_init,
                  VERSION, "MIT/X11", PACKAGE, "tessard")
