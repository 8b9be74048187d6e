/* SPDX-License-Identifier: MIT */
#include "onvifxmlmetadatastreamdoc.h"

#include "metadata.h"
#include "registration.h"

#include <cstring>
#include <unordered_set>

/* Joins any number of inputs into one stream of documents. Each buffer of each input becomes one document and
 * is pushed immediately. An input waits for another one only while that one is pushing.
 *
 * Locks, in this order: the stream lock of the source pad serialises the inputs and protects `Output`; the
 * object lock protects `Inputs` and is never held during a push. Flush-start events and sync points do not
 * take the stream lock, because the thread that holds it may be blocked downstream.
 *
 * A flush of one input flushes downstream for all inputs. Buffers that other inputs push meanwhile are lost,
 * but their push returns GST_FLOW_OK, because they are not flushing themselves. */

namespace
{

struct Inputs {
  std::unordered_set<GstPad *> open;     /* without EOS so far, and not released */
  std::unordered_set<GstPad *> flushing; /* between flush-start and flush-stop */
  guint flush_count = 0;                 /* flushes that were sent downstream */
  guint next_number = 0;                 /* for the name of the next pad */
};

struct Output {
  bool headers_sent = false;
  bool segment_sent = false;
};

struct State {
  GstMemory *document_start;
  GstMemory *document_end;
  Inputs inputs;
  Output output;
};

} // namespace

struct _TessardMetadataStreamDoc {
  GstElement parent_instance;
  GstPad *src_pad; /* borrowed */
  State *state;
};

GST_DEBUG_CATEGORY_STATIC(metadata_stream_doc_debug);
#define GST_CAT_DEFAULT metadata_stream_doc_debug

G_DEFINE_FINAL_TYPE(TessardMetadataStreamDoc, tessard_metadata_stream_doc, GST_TYPE_ELEMENT)

namespace
{

constexpr const char *DOCUMENT_START = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
                                       "<tt:MetadataStream xmlns:tt=\"http://www.onvif.org/ver10/schema\">";
constexpr const char *DOCUMENT_END = "</tt:MetadataStream>";

class ObjectLock
{
public:
  explicit ObjectLock(gpointer object) : object_(object)
  {
    GST_OBJECT_LOCK(object_);
  }
  ~ObjectLock()
  {
    GST_OBJECT_UNLOCK(object_);
  }
  ObjectLock(const ObjectLock &) = delete;
  ObjectLock &operator=(const ObjectLock &) = delete;

private:
  gpointer object_;
};

class StreamLock
{
public:
  explicit StreamLock(GstPad *pad) : pad_(pad)
  {
    GST_PAD_STREAM_LOCK(pad_);
  }
  ~StreamLock()
  {
    GST_PAD_STREAM_UNLOCK(pad_);
  }
  StreamLock(const StreamLock &) = delete;
  StreamLock &operator=(const StreamLock &) = delete;

private:
  GstPad *pad_;
};

GstMemory *
static_text(const char *text)
{
  gsize size = strlen(text);
  return gst_memory_new_wrapped(GST_MEMORY_FLAG_READONLY, const_cast<char *>(text), size, 0, size, nullptr,
                                nullptr);
}

/* The output has one segment in running time; the segments of the inputs may differ. */
GstClockTime
to_running_time(GstPad *pad, GstClockTime time)
{
  g_autoptr(GstEvent) event = gst_pad_get_sticky_event(pad, GST_EVENT_SEGMENT, 0);
  if (event == nullptr) {
    return time;
  }
  const GstSegment *segment = nullptr;
  gst_event_parse_segment(event, &segment);
  if (segment->format != GST_FORMAT_TIME) {
    return time;
  }
  return gst_segment_to_running_time(segment, GST_FORMAT_TIME, time);
}

GstBuffer *
wrap(TessardMetadataStreamDoc *self, GstPad *pad, GstBuffer *fragment)
{
  GstBuffer *document = gst_buffer_new();
  gst_buffer_append_memory(document, gst_memory_ref(self->state->document_start));
  gst_buffer_copy_into(document, fragment,
                       static_cast<GstBufferCopyFlags>(GST_BUFFER_COPY_METADATA | GST_BUFFER_COPY_MEMORY), 0,
                       gst_buffer_get_size(fragment));
  gst_buffer_append_memory(document, gst_memory_ref(self->state->document_end));
  GST_BUFFER_PTS(document) = to_running_time(pad, GST_BUFFER_PTS(fragment));
  GST_BUFFER_DTS(document) = to_running_time(pad, GST_BUFFER_DTS(fragment));
  return document;
}

/* Caller holds the stream lock of the source pad. */
void
push_headers(TessardMetadataStreamDoc *self)
{
  Output &output = self->state->output;
  if (!output.headers_sent) {
    g_autofree char *stream_id = g_strdup_printf("%s-%08x", GST_OBJECT_NAME(self), g_random_int());
    GstEvent *stream_start = gst_event_new_stream_start(stream_id);
    gst_event_set_group_id(stream_start, gst_util_group_id_next());
    gst_pad_push_event(self->src_pad, stream_start);

    g_autoptr(GstCaps) caps = gst_caps_new_empty_simple(onvif::DOCUMENT_CAPS);
    gst_pad_push_event(self->src_pad, gst_event_new_caps(caps));
    output.headers_sent = true;
  }
  if (!output.segment_sent) {
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_push_event(self->src_pad, gst_event_new_segment(&segment));
    output.segment_sent = true;
  }
}

void
push_end_of_stream(TessardMetadataStreamDoc *self)
{
  GST_DEBUG_OBJECT(self, "Every input has ended");
  StreamLock lock(self->src_pad);
  push_headers(self);
  gst_pad_push_event(self->src_pad, gst_event_new_eos());
}

/* Returns: whether this was the last open input; true once only */
bool
close_input(TessardMetadataStreamDoc *self, GstPad *pad)
{
  Inputs &inputs = self->state->inputs;
  ObjectLock lock(self);
  return inputs.open.erase(pad) > 0 && inputs.open.empty();
}

guint
flush_count(TessardMetadataStreamDoc *self)
{
  ObjectLock lock(self);
  return self->state->inputs.flush_count;
}

bool
flushed_by_another(TessardMetadataStreamDoc *self, GstPad *pad, guint flushes_before)
{
  const Inputs &inputs = self->state->inputs;
  ObjectLock lock(self);
  if (inputs.flushing.contains(pad)) {
    return false;
  }
  return !inputs.flushing.empty() || inputs.flush_count != flushes_before;
}

bool
start_flush(TessardMetadataStreamDoc *self, GstPad *pad, GstEvent *event)
{
  g_autoptr(GstEvent) owned = event;
  {
    Inputs &inputs = self->state->inputs;
    ObjectLock lock(self);
    bool first = inputs.flushing.empty();
    inputs.flushing.insert(pad);
    if (!first) {
      return true;
    }
    inputs.flush_count++;
  }
  return gst_pad_push_event(self->src_pad, g_steal_pointer(&owned));
}

bool
stop_flush(TessardMetadataStreamDoc *self, GstPad *pad, GstEvent *event)
{
  g_autoptr(GstEvent) owned = event;
  {
    Inputs &inputs = self->state->inputs;
    ObjectLock lock(self);
    if (inputs.flushing.erase(pad) == 0 || !inputs.flushing.empty()) {
      return true;
    }
  }
  StreamLock lock(self->src_pad);
  self->state->output.segment_sent = false;
  return gst_pad_push_event(self->src_pad, g_steal_pointer(&owned));
}

/* A flush cancels a previous end of stream. */
void
reopen_input(TessardMetadataStreamDoc *self, GstPad *pad)
{
  ObjectLock lock(self);
  self->state->inputs.open.insert(pad);
}

gboolean
push_sync_point(GstElement *element, GstPad *pad, gpointer user_data)
{
  auto handled = static_cast<bool *>(user_data);
  if (gst_pad_push_event(pad, onvif::sync_point_event_new())) {
    *handled = true;
  }
  return TRUE;
}

/* Resets the state; all current pads are open. */
void
reset(TessardMetadataStreamDoc *self)
{
  StreamLock stream_lock(self->src_pad);
  self->state->output = {};
  Inputs &inputs = self->state->inputs;
  ObjectLock lock(self);
  inputs.open.clear();
  inputs.flushing.clear();
  for (GList *pad = GST_ELEMENT(self)->sinkpads; pad != nullptr; pad = pad->next) {
    inputs.open.insert(GST_PAD(pad->data));
  }
}

GstFlowReturn
on_chain(GstPad *pad, GstObject *parent, GstBuffer *buffer)
{
  TessardMetadataStreamDoc *self = TESSARD_METADATA_STREAM_DOC(parent);
  g_autoptr(GstBuffer) fragment = buffer;
  GstBuffer *document = wrap(self, pad, fragment);
  guint flushes_before = flush_count(self);
  GstFlowReturn result = GST_FLOW_OK;
  {
    StreamLock lock(self->src_pad);
    push_headers(self);
    result = gst_pad_push(self->src_pad, document);
  }
  if (result == GST_FLOW_FLUSHING && flushed_by_another(self, pad, flushes_before)) {
    return GST_FLOW_OK;
  }
  return result;
}

gboolean
on_sink_event(GstPad *pad, GstObject *parent, GstEvent *event)
{
  TessardMetadataStreamDoc *self = TESSARD_METADATA_STREAM_DOC(parent);
  switch (GST_EVENT_TYPE(event)) {
  case GST_EVENT_FLUSH_START:
    return start_flush(self, pad, event);
  case GST_EVENT_FLUSH_STOP:
    reopen_input(self, pad);
    return stop_flush(self, pad, event);
  case GST_EVENT_EOS:
    gst_event_unref(event);
    if (close_input(self, pad)) {
      push_end_of_stream(self);
    }
    return TRUE;
  case GST_EVENT_GAP:
    gst_event_unref(event);
    return TRUE;
  default:
    break;
  }
  /* Sticky events describe one input only. The element sends its own. */
  if (gst_event_type_get_flags(GST_EVENT_TYPE(event)) & GST_EVENT_TYPE_STICKY) {
    gst_event_unref(event);
    return TRUE;
  }
  return gst_pad_event_default(pad, parent, event);
}

} // namespace

static void
tessard_metadata_stream_doc_init(TessardMetadataStreamDoc *self)
{
  self->state = new State{.document_start = static_text(DOCUMENT_START),
                          .document_end = static_text(DOCUMENT_END),
                          .inputs = {},
                          .output = {}};
  GstPadTemplate *src_template = gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(self), "src");
  self->src_pad = gst_pad_new_from_template(src_template, "src");
  gst_pad_use_fixed_caps(self->src_pad);
  gst_element_add_pad(GST_ELEMENT(self), self->src_pad);
}

static void
tessard_metadata_stream_doc_finalize(GObject *object)
{
  TessardMetadataStreamDoc *self = TESSARD_METADATA_STREAM_DOC(object);
  gst_memory_unref(self->state->document_start);
  gst_memory_unref(self->state->document_end);
  delete self->state;
  G_OBJECT_CLASS(tessard_metadata_stream_doc_parent_class)->finalize(object);
}

static GstPad *
tessard_metadata_stream_doc_request_new_pad(GstElement *element, GstPadTemplate *pad_template,
                                            const char *requested_name, const GstCaps *caps)
{
  TessardMetadataStreamDoc *self = TESSARD_METADATA_STREAM_DOC(element);
  g_autofree char *name = g_strdup(requested_name);
  if (name == nullptr) {
    ObjectLock lock(self);
    name = g_strdup_printf("sink_%u", self->state->inputs.next_number++);
  }
  GstPad *pad = gst_pad_new_from_template(pad_template, name);
  gst_pad_set_chain_function(pad, on_chain);
  gst_pad_set_event_function(pad, on_sink_event);
  reopen_input(self, pad);
  gst_pad_set_active(pad, TRUE);
  gst_element_add_pad(element, pad);
  return pad;
}

/* Deactivating the pad waits until a buffer that the input is pushing has been pushed. */
static void
tessard_metadata_stream_doc_release_pad(GstElement *element, GstPad *pad)
{
  TessardMetadataStreamDoc *self = TESSARD_METADATA_STREAM_DOC(element);
  g_autoptr(GstPad) kept = GST_PAD(gst_object_ref(pad));
  gst_pad_set_active(pad, FALSE);
  gst_element_remove_pad(element, pad);
  stop_flush(self, pad, gst_event_new_flush_stop(FALSE));
  if (close_input(self, pad) && GST_PAD_IS_ACTIVE(self->src_pad)) {
    push_end_of_stream(self);
  }
}

static GstStateChangeReturn
tessard_metadata_stream_doc_change_state(GstElement *element, GstStateChange transition)
{
  if (transition == GST_STATE_CHANGE_READY_TO_PAUSED) {
    reset(TESSARD_METADATA_STREAM_DOC(element));
  }
  return GST_ELEMENT_CLASS(tessard_metadata_stream_doc_parent_class)->change_state(element, transition);
}

static gboolean
tessard_metadata_stream_doc_send_event(GstElement *element, GstEvent *event)
{
  if (!onvif::is_sync_point_event(event)) {
    return GST_ELEMENT_CLASS(tessard_metadata_stream_doc_parent_class)->send_event(element, event);
  }
  gst_event_unref(event);
  bool handled = false;
  gst_element_foreach_sink_pad(element, push_sync_point, &handled);
  return handled;
}

static void
tessard_metadata_stream_doc_class_init(TessardMetadataStreamDocClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);

  GST_DEBUG_CATEGORY_INIT(metadata_stream_doc_debug, "onvifxmlmetadatastreamdoc", 0,
                          "Documents of ONVIF metadata");
  object_class->finalize = tessard_metadata_stream_doc_finalize;
  element_class->request_new_pad = tessard_metadata_stream_doc_request_new_pad;
  element_class->release_pad = tessard_metadata_stream_doc_release_pad;
  element_class->change_state = tessard_metadata_stream_doc_change_state;
  element_class->send_event = tessard_metadata_stream_doc_send_event;

  g_autoptr(GstCaps) fragment_caps = gst_caps_new_empty_simple(onvif::FRAGMENT_CAPS);
  gst_element_class_add_pad_template(
      element_class, gst_pad_template_new("sink_%u", GST_PAD_SINK, GST_PAD_REQUEST, fragment_caps));
  g_autoptr(GstCaps) document_caps = gst_caps_new_empty_simple(onvif::DOCUMENT_CAPS);
  gst_element_class_add_pad_template(element_class,
                                     gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, document_caps));
  gst_element_class_set_static_metadata(
      element_class, "ONVIF metadata stream document", "Muxer/Formatter",
      "Joins fragments of ONVIF metadata from any number of inputs into one stream of documents, "
      "one for each fragment",
      "tessard");
}

static gboolean
plugin_init(GstPlugin *plugin)
{
  return plugins::register_unless_provided(plugin, "onvifxmlmetadatastreamdoc",
                                           TESSARD_TYPE_METADATA_STREAM_DOC);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, onvifxmlmetadatastreamdoc,
                  "Joins fragments of ONVIF metadata into a stream of documents", plugin_init, VERSION,
                  "MIT/X11", PACKAGE, "tessard")
