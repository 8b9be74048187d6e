/* SPDX-License-Identifier: MIT */
#include "testelements.h"

#include "testlist.h"

#include <array>
#include <atomic>
#include <cstring>
#include <gst/base/gstpushsrc.h>
#include <ostream>

using testelements::Behaviour;
using testelements::SentEvent;

namespace
{

constexpr const char *DOCUMENT_CAPS = "application/x-onvif-metadata";

testhost::List<SentEvent> sent_events;
testhost::List<std::string> filters;
std::atomic<Behaviour> event_source_behaviour = Behaviour::ONE_BUFFER;
std::atomic<bool> default_event_handling = false;
std::atomic<unsigned> error_count = 0;

} // namespace

/* The source. */

struct TestSource {
  GstPushSrc parent_instance;

  Behaviour behaviour;
  gboolean produced;
  GMutex lock;
  GCond cond;
  gboolean unlocked;
};

struct TestSourceClass {
  GstPushSrcClass parent_class;
};

GType test_source_get_type();
G_DEFINE_TYPE(TestSource, test_source, GST_TYPE_PUSH_SRC)

static TestSource *
test_source(gpointer instance)
{
  return G_TYPE_CHECK_INSTANCE_CAST(instance, test_source_get_type(), TestSource);
}

static GstFlowReturn
test_source_make_buffer(TestSource *self, gsize size, GstBuffer **buffer)
{
  *buffer = gst_buffer_new_allocate(nullptr, size, nullptr);
  gst_buffer_memset(*buffer, 0, 'x', size);
  gst_buffer_fill(*buffer, 0, testelements::DOCUMENT_TEXT, strlen(testelements::DOCUMENT_TEXT));
  self->produced = TRUE;
  return GST_FLOW_OK;
}

static GstFlowReturn
test_source_wait(TestSource *self)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);

  while (!self->unlocked) {
    g_cond_wait(&self->cond, &self->lock);
  }
  return GST_FLOW_FLUSHING;
}

static GstFlowReturn
test_source_create(GstPushSrc *source, GstBuffer **buffer)
{
  TestSource *self = test_source(source);

  switch (self->behaviour) {
  case Behaviour::FLOOD:
    return test_source_make_buffer(self, testelements::BIG_BUFFER_BYTES, buffer);
  case Behaviour::END:
    return GST_FLOW_EOS;
  case Behaviour::ERROR:
    GST_ELEMENT_ERROR(self, STREAM, FAILED, ("%s", testelements::ERROR_TEXT), (nullptr));
    error_count++;
    return GST_FLOW_ERROR;
  case Behaviour::WRITE_ERROR:
    GST_ELEMENT_ERROR(self, RESOURCE, WRITE, ("The client is gone"), (nullptr));
    return GST_FLOW_ERROR;
  case Behaviour::SILENT:
    return test_source_wait(self);
  default:
    return self->produced ? test_source_wait(self)
                          : test_source_make_buffer(self, strlen(testelements::DOCUMENT_TEXT), buffer);
  }
}

static gboolean
test_source_set_unlocked(GstBaseSrc *source, gboolean unlocked)
{
  TestSource *self = test_source(source);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);

  self->unlocked = unlocked;
  g_cond_signal(&self->cond);
  return TRUE;
}

static gboolean
test_source_unlock(GstBaseSrc *source)
{
  return test_source_set_unlocked(source, TRUE);
}

static gboolean
test_source_unlock_stop(GstBaseSrc *source)
{
  return test_source_set_unlocked(source, FALSE);
}

static GstStateChangeReturn
test_source_change_state(GstElement *element, GstStateChange transition)
{
  TestSource *self = test_source(element);

  if (self->behaviour == Behaviour::START_STATE_FAILS && transition == GST_STATE_CHANGE_READY_TO_PAUSED) {
    return GST_STATE_CHANGE_FAILURE;
  }
  if (self->behaviour == Behaviour::START_REFUSED && transition == GST_STATE_CHANGE_READY_TO_PAUSED) {
    GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("%s", testelements::ERROR_TEXT), (nullptr));
    error_count++;
    GST_ELEMENT_ERROR(self, CORE, STATE_CHANGE, ("Consequence"), (nullptr));
    return GST_STATE_CHANGE_FAILURE;
  }
  return GST_ELEMENT_CLASS(test_source_parent_class)->change_state(element, transition);
}

static void
test_source_init(TestSource *self)
{
  g_mutex_init(&self->lock);
  g_cond_init(&self->cond);
}

static void
test_source_finalize(GObject *object)
{
  TestSource *self = test_source(object);

  g_mutex_clear(&self->lock);
  g_cond_clear(&self->cond);
  G_OBJECT_CLASS(test_source_parent_class)->finalize(object);
}

static void
test_source_class_init(TestSourceClass *klass)
{
  g_autoptr(GstCaps) caps = gst_caps_from_string(testelements::SOURCE_CAPS);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
  GstBaseSrcClass *base_class = GST_BASE_SRC_CLASS(klass);

  G_OBJECT_CLASS(klass)->finalize = test_source_finalize;
  element_class->change_state = test_source_change_state;
  base_class->unlock = test_source_unlock;
  base_class->unlock_stop = test_source_unlock_stop;
  GST_PUSH_SRC_CLASS(klass)->create = test_source_create;
  gst_element_class_add_pad_template(element_class,
                                     gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
  gst_element_class_set_static_metadata(element_class, "Test source", "Source", "Driven by a test", "tests");
}

/* The event source: a live source with filters. */

typedef enum {
  PROP_EVENT_TOPIC = 1,
  PROP_EVENT_CONTENT,
  N_PROPERTIES,
} TestEventSourceProperty;

struct TestEventSource {
  TestSource parent_instance;

  std::array<gchar *, N_PROPERTIES> values;
};

struct TestEventSourceClass {
  TestSourceClass parent_class;
};

GType test_event_source_get_type();
G_DEFINE_TYPE(TestEventSource, test_event_source, test_source_get_type())

static TestEventSource *
test_event_source(gpointer instance)
{
  return G_TYPE_CHECK_INSTANCE_CAST(instance, test_event_source_get_type(), TestEventSource);
}

static void
test_event_source_init(TestEventSource *self)
{
  self->parent_instance.behaviour = event_source_behaviour;
  self->values[PROP_EVENT_TOPIC] = g_strdup("default topic");
  self->values[PROP_EVENT_CONTENT] = g_strdup("default content");
  gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
}

static void
test_event_source_finalize(GObject *object)
{
  for (gchar *value : test_event_source(object)->values) {
    g_free(value);
  }
  G_OBJECT_CLASS(test_event_source_parent_class)->finalize(object);
}

static void
test_event_source_get_property(GObject *object, guint id, GValue *value, GParamSpec *)
{
  g_value_set_string(value, test_event_source(object)->values[id]);
}

static void
test_event_source_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  TestEventSource *self = test_event_source(object);

  g_free(self->values[id]);
  self->values[id] = g_value_dup_string(value);
  filters.add(std::string(pspec->name) + "=" + self->values[id]);
}

static void
test_event_source_class_init(TestEventSourceClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);

  object_class->finalize = test_event_source_finalize;
  object_class->get_property = test_event_source_get_property;
  object_class->set_property = test_event_source_set_property;
  g_object_class_install_property(
      object_class, PROP_EVENT_TOPIC,
      g_param_spec_string("event-topic", "Topic", "Topic", nullptr, G_PARAM_READWRITE));
  g_object_class_install_property(
      object_class, PROP_EVENT_CONTENT,
      g_param_spec_string("event-content", "Content", "Content", nullptr, G_PARAM_READWRITE));
}

/* The document element: passes on the buffers of all its sources after one start of the stream. */

struct TestDocument {
  GstElement parent_instance;

  GstPad *src;
  GMutex lock; /* serialises what is pushed */
  gint n_pads;
  gint n_ended;
  gboolean begun;
};

struct TestDocumentClass {
  GstElementClass parent_class;
};

GType test_document_get_type();
G_DEFINE_TYPE(TestDocument, test_document, GST_TYPE_ELEMENT)

static TestDocument *
test_document(gpointer instance)
{
  return G_TYPE_CHECK_INSTANCE_CAST(instance, test_document_get_type(), TestDocument);
}

/* With the lock held. */
static void
test_document_begin(TestDocument *self)
{
  g_autoptr(GstCaps) caps = gst_caps_from_string(DOCUMENT_CAPS);
  GstSegment segment;

  if (self->begun) {
    return;
  }
  gst_segment_init(&segment, GST_FORMAT_BYTES);
  gst_pad_push_event(self->src, gst_event_new_stream_start("test"));
  gst_pad_push_event(self->src, gst_event_new_caps(caps));
  gst_pad_push_event(self->src, gst_event_new_segment(&segment));
  self->begun = TRUE;
}

static GstFlowReturn
test_document_chain(GstPad *, GstObject *parent, GstBuffer *buffer)
{
  TestDocument *self = test_document(parent);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);

  test_document_begin(self);
  return gst_pad_push(self->src, buffer);
}

static gboolean
test_document_sink_event(GstPad *, GstObject *parent, GstEvent *event)
{
  TestDocument *self = test_document(parent);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);

  if (GST_EVENT_TYPE(event) == GST_EVENT_EOS && ++self->n_ended == self->n_pads) {
    test_document_begin(self);
    return gst_pad_push_event(self->src, event);
  }
  gst_event_unref(event);
  return TRUE;
}

static GstPad *
test_document_request_new_pad(GstElement *element, GstPadTemplate *templ, const gchar *, const GstCaps *)
{
  TestDocument *self = test_document(element);
  g_autofree gchar *name = g_strdup_printf("sink_%d", self->n_pads++);
  GstPad *pad = gst_pad_new_from_template(templ, name);

  gst_pad_set_chain_function(pad, test_document_chain);
  gst_pad_set_event_function(pad, test_document_sink_event);
  gst_element_add_pad(element, pad);
  return pad;
}

static void
test_document_release_pad(GstElement *element, GstPad *pad)
{
  gst_element_remove_pad(element, pad);
}

static gboolean
test_document_send_event(GstElement *element, GstEvent *event)
{
  const GstStructure *structure = gst_event_get_structure(event);
  const GstEventTypeFlags flags = gst_event_type_get_flags(GST_EVENT_TYPE(event));

  sent_events.add({GST_EVENT_TYPE(event), (flags & GST_EVENT_TYPE_SERIALIZED) != 0,
                   structure != nullptr ? gst_structure_get_name(structure) : "",
                   structure != nullptr ? gst_structure_n_fields(structure) : 0});
  if (default_event_handling) {
    return GST_ELEMENT_CLASS(test_document_parent_class)->send_event(element, event);
  }
  gst_event_unref(event);
  return TRUE;
}

static void
test_document_finalize(GObject *object)
{
  g_mutex_clear(&test_document(object)->lock);

  G_OBJECT_CLASS(test_document_parent_class)->finalize(object);
}

static void
test_document_init(TestDocument *self)
{
  GstPadTemplate *templ = gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(self), "src");

  self->src = gst_pad_new_from_template(templ, "src");
  g_mutex_init(&self->lock);
  gst_pad_use_fixed_caps(self->src);
  gst_element_add_pad(GST_ELEMENT(self), self->src);
}

static void
test_document_class_init(TestDocumentClass *klass)
{
  g_autoptr(GstCaps) sink_caps = gst_caps_from_string(testelements::SOURCE_CAPS);
  g_autoptr(GstCaps) src_caps = gst_caps_from_string(DOCUMENT_CAPS);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);

  G_OBJECT_CLASS(klass)->finalize = test_document_finalize;
  element_class->request_new_pad = test_document_request_new_pad;
  element_class->release_pad = test_document_release_pad;
  element_class->send_event = test_document_send_event;
  gst_element_class_add_pad_template(
      element_class, gst_pad_template_new("sink_%u", GST_PAD_SINK, GST_PAD_REQUEST, sink_caps));
  gst_element_class_add_pad_template(element_class,
                                     gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, src_caps));
  gst_element_class_set_static_metadata(element_class, "Test document", "Muxer", "Driven by a test", "tests");
}

namespace testelements
{

void
install()
{
  gst_element_register(nullptr, "onvifxmlmetadatastreamdoc", GST_RANK_NONE, test_document_get_type());
  gst_element_register(nullptr, "onvifeventsrc", GST_RANK_NONE, test_event_source_get_type());
  install_recording_elements();
}

GType
source_type()
{
  return test_source_get_type();
}

GstElement *
make_source_of_type(GType type, Behaviour behaviour, bool live)
{
  auto *source = test_source(g_object_new(type, nullptr));

  source->behaviour = behaviour;
  gst_base_src_set_live(GST_BASE_SRC(source), live);
  return GST_ELEMENT(source);
}

GstElement *
make_source(Behaviour behaviour)
{
  return make_source_of_type(source_type(), behaviour, false);
}

GstElement *
make_live_source(Behaviour behaviour)
{
  return make_source_of_type(source_type(), behaviour, true);
}

void
set_event_source_behaviour(Behaviour behaviour)
{
  event_source_behaviour = behaviour;
}

unsigned
errors_reported()
{
  return error_count;
}

std::vector<std::string>
take_filters()
{
  return filters.take();
}

std::ostream &
operator<<(std::ostream &stream, const SentEvent &event)
{
  return stream << gst_event_type_get_name(event.type) << (event.serialized ? " serialized " : " ")
                << event.structure << " with " << event.fields << " fields";
}

std::vector<SentEvent>
take_sent_events()
{
  return sent_events.take();
}

gsize
sent_events_size()
{
  return sent_events.size();
}

DefaultEventHandling::DefaultEventHandling()
{
  default_event_handling = true;
}

DefaultEventHandling::~DefaultEventHandling()
{
  default_event_handling = false;
}

} // namespace testelements
