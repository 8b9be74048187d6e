#include "testelements.h"

#include <array>
#include <atomic>
#include <cstring>
#include <gst/base/gstpushsrc.h>
#include <map>
#include <mutex>
#include <ostream>
#include <utility>

using testelements::Behaviour;
using testelements::SentEvent;

namespace
{

constexpr const char *SOURCE_CAPS = "application/x-test";
constexpr const char *DOCUMENT_CAPS = "application/x-onvif-metadata";

std::mutex lock;
std::vector<SentEvent> sent_events;
std::vector<std::string> filters;
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
  g_autoptr(GstCaps) caps = gst_caps_from_string(SOURCE_CAPS);
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
  std::lock_guard guard(lock);

  g_free(self->values[id]);
  self->values[id] = g_value_dup_string(value);
  filters.push_back(std::string(pspec->name) + "=" + self->values[id]);
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

/* The document element: passes on what any of its sources has, behind one start of its own. */

struct TestDocument {
  GstElement parent_instance;

  GstPad *src;
  GMutex lock; /* one at a time down the stream */
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
  {
    std::lock_guard guard(lock);
    sent_events.push_back({GST_EVENT_TYPE(event), (flags & GST_EVENT_TYPE_SERIALIZED) != 0,
                           structure != nullptr ? gst_structure_get_name(structure) : "",
                           structure != nullptr ? gst_structure_n_fields(structure) : 0});
  }
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
  g_autoptr(GstCaps) sink_caps = gst_caps_from_string(SOURCE_CAPS);
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

/* The elements that remember what is set on them. */

namespace
{

struct RememberedProperty {
  const char *name;
  GType type;
};

struct RememberingElement {
  const char *factory;
  const char *type_name;
  const char *sink_caps; /* none for a source */
  const char *src_caps;
  std::vector<RememberedProperty> properties;
};

const std::array REMEMBERING_ELEMENTS = {
    RememberingElement{"statuscacheptzsrc",
                       "TestPtzSource",
                       nullptr,
                       SOURCE_CAPS,
                       {{"channel", G_TYPE_INT},
                        {"coordinate-space-pantilt", G_TYPE_INT},
                        {"coordinate-space-zoom", G_TYPE_INT},
                        {"filter-position", G_TYPE_BOOLEAN},
                        {"filter-status", G_TYPE_BOOLEAN},
                        {"ptz-move-capabilities", G_TYPE_INT}}},
    RememberingElement{"scenesrc",
                       "TestSceneSource",
                       nullptr,
                       "application/vnd.quon.scene",
                       {{"video-channel", G_TYPE_INT}}},
    RememberingElement{"scene2xml",
                       "TestSceneConverter",
                       "application/vnd.quon.scene",
                       SOURCE_CAPS,
                       {{"polygon", G_TYPE_BOOLEAN},
                        {"ptz-move-capabilities", G_TYPE_INT},
                        {"rotation", G_TYPE_UINT},
                        {"source-name", G_TYPE_STRING},
                        {"pan-tilt-space", G_TYPE_INT},
                        {"zoom-space", G_TYPE_INT},
                        {"channel", G_TYPE_INT},
                        {"ptz", G_TYPE_BOOLEAN}}},
    RememberingElement{"radarscenesrc",
                       "TestRadarSceneSource",
                       nullptr,
                       "application/vnd.quon.radarscene",
                       {{"video-channel", G_TYPE_INT}}},
    RememberingElement{"radarscene2xml",
                       "TestRadarSceneConverter",
                       "application/vnd.quon.radarscene",
                       SOURCE_CAPS,
                       {{"polygon", G_TYPE_BOOLEAN},
                        {"velocity", G_TYPE_BOOLEAN},
                        {"geolocation", G_TYPE_BOOLEAN},
                        {"rotation", G_TYPE_UINT},
                        {"source-name", G_TYPE_STRING}}},
    RememberingElement{
        "json2xml", "TestJsonConverter", "ANY", SOURCE_CAPS, {{"exclude-polygon", G_TYPE_BOOLEAN}}},
};

std::vector<std::string> settings_made;
std::atomic<bool> ptz_is_refused = false;

} // namespace

struct TestRememberingElement {
  GstElement parent_instance;

  std::string *current_settings; /* of the call that sets properties right now */
  gboolean ptz;
};

struct TestRememberingElementClass {
  GstElementClass parent_class;
};

GType test_remembering_element_get_type();
G_DEFINE_TYPE(TestRememberingElement, test_remembering_element, GST_TYPE_ELEMENT)

static TestRememberingElement *
test_remembering_element(gpointer instance)
{
  return G_TYPE_CHECK_INSTANCE_CAST(instance, test_remembering_element_get_type(), TestRememberingElement);
}

static void
test_remembering_element_set_property(GObject *object, guint, const GValue *value, GParamSpec *pspec)
{
  TestRememberingElement *self = test_remembering_element(object);
  g_auto(GValue) text = G_VALUE_INIT;

  g_value_init(&text, G_TYPE_STRING);
  g_value_transform(value, &text);
  *self->current_settings += std::string(" ") + pspec->name + "=" + g_value_get_string(&text);
  if (strcmp(pspec->name, "ptz") == 0) {
    self->ptz = g_value_get_boolean(value) && !ptz_is_refused;
  }
}

/* Only "ptz" is ever read. */
static void
test_remembering_element_get_property(GObject *object, guint, GValue *value, GParamSpec *pspec)
{
  if (strcmp(pspec->name, "ptz") == 0) {
    g_value_set_boolean(value, test_remembering_element(object)->ptz);
  }
}

/* Called once behind each call that sets properties, however many. */
static void
test_remembering_element_dispatch_properties_changed(GObject *object, guint n_pspecs, GParamSpec **pspecs)
{
  const std::string settings = std::exchange(*test_remembering_element(object)->current_settings, {});

  if (!settings.empty()) {
    std::lock_guard guard(lock);
    settings_made.push_back(GST_OBJECT_NAME(object) + settings);
  }
  G_OBJECT_CLASS(test_remembering_element_parent_class)
      ->dispatch_properties_changed(object, n_pspecs, pspecs);
}

static void
test_remembering_element_init(TestRememberingElement *self)
{
  self->current_settings = new std::string;
}

static void
test_remembering_element_finalize(GObject *object)
{
  delete test_remembering_element(object)->current_settings;

  G_OBJECT_CLASS(test_remembering_element_parent_class)->finalize(object);
}

static void
test_remembering_element_class_init(TestRememberingElementClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);

  object_class->finalize = test_remembering_element_finalize;
  object_class->dispatch_properties_changed = test_remembering_element_dispatch_properties_changed;
}

static GParamSpec *
remembered_property_spec(const RememberedProperty &property)
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
remembering_element_class_init(gpointer klass, gpointer user_data)
{
  const auto *description = static_cast<const RememberingElement *>(user_data);
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  guint id = 0;

  /* Not inherited. */
  object_class->get_property = test_remembering_element_get_property;
  object_class->set_property = test_remembering_element_set_property;
  for (const RememberedProperty &property : description->properties) {
    g_object_class_install_property(object_class, ++id, remembered_property_spec(property));
  }
  if (description->sink_caps != nullptr) {
    add_pad_template(GST_ELEMENT_CLASS(klass), "sink", GST_PAD_SINK, description->sink_caps);
  }
  add_pad_template(GST_ELEMENT_CLASS(klass), "src", GST_PAD_SRC, description->src_caps);
  gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(klass), "Memory", "Test", "Remembers", "tests");
}

static void
remembering_element_init(GTypeInstance *instance, gpointer klass)
{
  for (const char *name : {"sink", "src"}) {
    GstPadTemplate *templ = gst_element_class_get_pad_template(GST_ELEMENT_CLASS(klass), name);
    if (templ != nullptr) {
      gst_element_add_pad(GST_ELEMENT(instance), gst_pad_new_from_template(templ, name));
    }
  }
}

static void
register_remembering_element(const RememberingElement &description)
{
  const GTypeInfo info = {
      .class_size = sizeof(TestRememberingElementClass),
      .class_init = remembering_element_class_init,
      .class_data = &description,
      .instance_size = sizeof(TestRememberingElement),
      .instance_init = remembering_element_init,
  };

  if (g_type_from_name(description.type_name) == G_TYPE_INVALID) {
    const GType type = g_type_register_static(test_remembering_element_get_type(), description.type_name,
                                              &info, static_cast<GTypeFlags>(0));
    gst_element_register(nullptr, description.factory, GST_RANK_NONE, type);
  }
}

/* Elements of any type, but for one thing. */

static GObjectClass *
usable_class(gpointer instance)
{
  return G_OBJECT_CLASS(g_type_class_peek_parent(G_OBJECT_GET_CLASS(instance)));
}

/* Those that fail in a state change. */

namespace
{

using testelements::StateFailure;

/* Both under the lock: how the elements of a type fail that are made from now on, and how the living ones do.
 */
std::map<GType, StateFailure> failures_of_types;
std::map<GstElement *, StateFailure> failures_of_elements;

/* Whether this very change fails, and @works as the failure has it. */
bool
take_state_failure(GstElement *element, GstStateChange change, bool *works)
{
  std::lock_guard guard(lock);
  StateFailure &failure = failures_of_elements.at(element);

  *works = failure.works;
  if (failure.change != change || failure.times == 0) {
    return false;
  }
  failure.times -= failure.times != testelements::FOR_EVER ? 1 : 0;
  return true;
}

} // namespace

static void
failing_constructed(GObject *object)
{
  usable_class(object)->constructed(object);

  std::lock_guard guard(lock);
  failures_of_elements[GST_ELEMENT(object)] = failures_of_types.at(G_OBJECT_TYPE(object));
}

static void
failing_finalize(GObject *object)
{
  {
    std::lock_guard guard(lock);
    failures_of_elements.erase(GST_ELEMENT(object));
  }
  usable_class(object)->finalize(object);
}

static GstStateChangeReturn
failing_change_state(GstElement *element, GstStateChange change)
{
  bool works = true;
  const bool fails = take_state_failure(element, change, &works);
  GstStateChangeReturn result = GST_STATE_CHANGE_FAILURE;

  if (!fails || works) {
    result = GST_ELEMENT_CLASS(usable_class(element))->change_state(element, change);
  }
  return fails ? GST_STATE_CHANGE_FAILURE : result;
}

static void
failing_class_init(gpointer klass, gpointer)
{
  G_OBJECT_CLASS(klass)->constructed = failing_constructed;
  G_OBJECT_CLASS(klass)->finalize = failing_finalize;
  GST_ELEMENT_CLASS(klass)->change_state = failing_change_state;
  gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(klass), "Failing", "Test", "Failing", "tests");
}

/* Those that cannot be used. */

static GstPadLinkReturn
refuse_link(GstPad *, GstObject *, GstPad *)
{
  return GST_PAD_LINK_REFUSED;
}

static void
unlinkable_constructed(GObject *object)
{
  usable_class(object)->constructed(object);

  for (GList *pad = GST_ELEMENT(object)->pads; pad != nullptr; pad = pad->next) {
    gst_pad_set_link_function(GST_PAD(pad->data), refuse_link);
  }
}

static void
without_source_pad_constructed(GObject *object)
{
  GstElement *element = GST_ELEMENT(object);
  usable_class(object)->constructed(object);

  while (element->srcpads != nullptr) {
    gst_element_remove_pad(element, GST_PAD(element->srcpads->data));
  }
}

static void
taken_constructed(GObject *object)
{
  usable_class(object)->constructed(object);

  /* Any object serves: a bin asks only whether there is a parent. */
  GST_OBJECT_PARENT(object) = GST_OBJECT(gst_registry_get());
}

static void
ended_constructed(GObject *object)
{
  GstFlowReturn result = GST_FLOW_ERROR;
  usable_class(object)->constructed(object);

  g_signal_emit_by_name(object, "end-of-stream", &result);
}

static void
never_waiting_constructed(GObject *object)
{
  usable_class(object)->constructed(object);

  g_object_set(object, "async", FALSE, nullptr);
}

static void
unusable_dispose(GObject *object)
{
  GST_OBJECT_PARENT(object) = nullptr;

  usable_class(object)->dispose(object);
}

namespace testelements
{
namespace
{

struct UnusableKind {
  const char *prefix;
  void (*constructed)(GObject *object);
};

/* In the order of Unusable. */
constexpr std::array UNUSABLE_KINDS = {
    UnusableKind{"TestUnlinkable", unlinkable_constructed},
    UnusableKind{"TestWithoutSourcePad", without_source_pad_constructed},
    UnusableKind{"TestTaken", taken_constructed},
    UnusableKind{"TestEnded", ended_constructed},
    UnusableKind{"TestNeverWaiting", never_waiting_constructed},
};

void
unusable_class_init(gpointer klass, gpointer user_data)
{
  G_OBJECT_CLASS(klass)->constructed = static_cast<const UnusableKind *>(user_data)->constructed;
  G_OBJECT_CLASS(klass)->dispose = unusable_dispose;
  gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(klass), "Unusable", "Test", "Unusable", "tests");
}

/* A type like @usable, but for what @class_init does. */
GType
derived_type(GType usable, const std::string &prefix, GClassInitFunc class_init, gconstpointer class_data)
{
  const std::string name = prefix + g_type_name(usable);
  const GType known = g_type_from_name(name.c_str());
  if (known != G_TYPE_INVALID) {
    return known;
  }
  GTypeQuery query = {};
  g_type_query(usable, &query);
  const GTypeInfo info = {
      .class_size = static_cast<guint16>(query.class_size),
      .class_init = class_init,
      .class_data = class_data,
      .instance_size = static_cast<guint16>(query.instance_size),
  };

  return g_type_register_static(usable, name.c_str(), &info, static_cast<GTypeFlags>(0));
}

GType
unusable_type(GType usable, Unusable kind)
{
  const UnusableKind &description = UNUSABLE_KINDS.at(static_cast<gsize>(kind));

  return derived_type(usable, description.prefix, unusable_class_init, &description);
}

GType
failing_type(GType usable, const StateFailure &failure)
{
  const GType type = derived_type(usable, "TestFailing", failing_class_init, nullptr);
  std::lock_guard guard(lock);

  failures_of_types[type] = failure;
  return type;
}

/* What a factory makes. */
GType
type_made_by(const char *factory_name)
{
  g_autoptr(GstElementFactory) known = gst_element_factory_find(factory_name);
  g_autoptr(GstPluginFeature) loaded = gst_plugin_feature_load(GST_PLUGIN_FEATURE(known));

  return gst_element_factory_get_element_type(GST_ELEMENT_FACTORY(loaded));
}

} // namespace

void
install()
{
  gst_element_register(nullptr, "onvifxmlmetadatastreamdoc", GST_RANK_NONE, test_document_get_type());
  gst_element_register(nullptr, "onvifeventsrc", GST_RANK_NONE, test_event_source_get_type());
  for (const RememberingElement &description : REMEMBERING_ELEMENTS) {
    register_remembering_element(description);
  }
}

GstElement *
make_source(Behaviour behaviour)
{
  auto *source = test_source(g_object_new(test_source_get_type(), nullptr));

  source->behaviour = behaviour;
  return GST_ELEMENT(source);
}

GstElement *
make_live_source(Behaviour behaviour)
{
  GstElement *source = make_source(behaviour);

  gst_base_src_set_live(GST_BASE_SRC(source), TRUE);
  return source;
}

GstElement *
make_failing_source(Behaviour behaviour, const StateFailure &failure, bool live)
{
  auto *source = test_source(g_object_new(failing_type(test_source_get_type(), failure), nullptr));

  source->behaviour = behaviour;
  gst_base_src_set_live(GST_BASE_SRC(source), live);
  return GST_ELEMENT(source);
}

std::vector<GstElement *>
failing_elements()
{
  std::lock_guard guard(lock);
  std::vector<GstElement *> elements;

  elements.reserve(failures_of_elements.size());
  for (const auto &failing : failures_of_elements) {
    elements.push_back(failing.first);
  }
  return elements;
}

gsize
release_failing_elements()
{
  {
    std::lock_guard guard(lock);
    for (auto &failing : failures_of_elements) {
      failing.second.times = 0;
    }
  }

  const std::vector<GstElement *> elements = failing_elements();
  for (GstElement *element : elements) {
    gst_element_set_state(element, GST_STATE_NULL);
    gst_object_unref(element);
  }
  return elements.size();
}

GstElement *
make_unusable(Unusable kind)
{
  return GST_ELEMENT(g_object_new(unusable_type(GST_TYPE_ELEMENT, kind), nullptr));
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
  std::lock_guard guard(lock);

  return std::exchange(filters, {});
}

std::vector<std::string>
take_settings()
{
  std::lock_guard guard(lock);

  return std::exchange(settings_made, {});
}

WithoutPtz::WithoutPtz()
{
  ptz_is_refused = true;
}

WithoutPtz::~WithoutPtz()
{
  ptz_is_refused = false;
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
  std::lock_guard guard(lock);

  return std::exchange(sent_events, {});
}

gsize
sent_events_size()
{
  std::lock_guard guard(lock);

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

WithoutFactory::WithoutFactory(const char *name)
    : feature_(gst_registry_lookup_feature(gst_registry_get(), name))
{
  g_assert(feature_ != nullptr);
  gst_registry_remove_feature(gst_registry_get(), feature_);
}

WithoutFactory::~WithoutFactory()
{
  gst_registry_add_feature(gst_registry_get(), feature_);
  gst_object_unref(feature_);
}

ReplacedFactory::ReplacedFactory(const char *name, Unusable kind)
    : ReplacedFactory(name, unusable_type(type_made_by(name), kind))
{
}

ReplacedFactory::ReplacedFactory(const char *name, const StateFailure &failure)
    : ReplacedFactory(name, failing_type(type_made_by(name), failure))
{
}

ReplacedFactory::ReplacedFactory(const char *name, GType type) : without_(name), name_(name)
{
  gst_element_register(nullptr, name, GST_RANK_NONE, type);
}

ReplacedFactory::~ReplacedFactory()
{
  g_autoptr(GstPluginFeature) replacement = gst_registry_lookup_feature(gst_registry_get(), name_);

  gst_registry_remove_feature(gst_registry_get(), replacement);
}

} // namespace testelements
