/* SPDX-License-Identifier: MIT */
#include "tessardsrc.h"

#include "clienterror.h"
#include "metadataclient.h"
#include "metadatarequest.h"
#include "requestenums.h"
#include "utctime.h"

#include <algorithm>
#include <gio/gio.h>

/* Reads documents from the daemon's socket. The streaming thread connects, reads, and waits between two
 * connections; it does so only in PLAYING. In PAUSED there is no connection, because a client that does not
 * read holds memory in the daemon and can stop the producers of all clients.
 *
 * Cancellation: unlock() and the change to PAUSED cancel the current cancellable, which ends every wait of
 * the streaming thread. It then returns from create(), or waits for PLAYING; the next step has a new
 * cancellable. So no change of state waits for the daemon.
 *
 * Locks: the object lock protects the properties. `lock` protects the first part of `State`. Only the
 * streaming thread uses the connection, except for sync points, which are requested with the lock held. The
 * streaming thread changes the pointer with the lock held, and so does the change to PAUSED while the
 * streaming thread is not in create(). No lock is held during a wait, except that `cond` waits with `lock`.
 */

namespace
{

struct Properties {
  gchar *socket_path;
  gboolean event;
  gchar *event_topic;
  gchar *event_content;
  gint analytics;
  gint ptz;
  gint pan_tilt_space;
  gint zoom_space;
  gint video_channel;
  GstClockTime timeout;
  gboolean reconnect;
};

struct State {
  Properties properties;
  GThread *pausing_thread; /* atomic: the thread that changes the state to PAUSED, or NULL */

  GMutex lock;
  GCond cond; /* signalled when one of the next three changes */
  GCancellable *cancellable;
  gboolean is_playing;
  gboolean is_unlocked; /* between unlock() and unlock_stop() */
  guint unlock_count;
  gboolean in_create;
  MetadataClient *client;

  /* Used in create(), and while the streaming thread is not in it. */
  gchar *caps;       /* of the source pad */
  gboolean accepted; /* whether the daemon has accepted the request since the start */
  gboolean is_down;  /* whether the current failure was reported */
  gboolean is_discont;
  guint retry_ms;
};

} // namespace

struct _TessardSrc {
  GstPushSrc parent_instance;
  State *state;
};

enum {
  PROP_SOCKET_PATH = 1,
  PROP_EVENT,
  PROP_EVENT_TOPIC,
  PROP_EVENT_CONTENT,
  PROP_ANALYTICS,
  PROP_PTZ,
  PROP_PTZ_PANTILT_COORDINATE_SPACE,
  PROP_PTZ_ZOOM_COORDINATE_SPACE,
  PROP_VIDEO_CHANNEL,
  PROP_TIMEOUT,
  PROP_RECONNECT,
  N_PROPERTIES,
};

static GParamSpec *properties[N_PROPERTIES];

static GstStaticPadTemplate src_template = GST_STATIC_PAD_TEMPLATE(
    "src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS("application/x-onvif-metadata"));

static GstStaticCaps unix_time_caps = GST_STATIC_CAPS("timestamp/x-unix");

GST_DEBUG_CATEGORY_STATIC(tessard_src_debug);
#define GST_CAT_DEFAULT tessard_src_debug

G_DEFINE_FINAL_TYPE(TessardSrc, tessard_src, GST_TYPE_PUSH_SRC)

namespace
{

constexpr const char *SYNC_POINT_EVENT = "GstMetaDataStreamSetSyncPoint";
constexpr const char *KEY_UNIT_EVENT = "GstForceKeyUnit";

/* The request */

void
add_number(GString *request, const char *key, gint value)
{
  g_autofree gchar *text = g_strdup_printf("%d", value);
  if (value != TESSARD_NOT_ASKED) {
    metadata_request_add(request, key, text);
  }
}

void
add_text(GString *request, const char *key, const gchar *text)
{
  if (text != nullptr) {
    metadata_request_add_text(request, key, text);
  }
}

/* Called with the object lock held. A filter of events requests events as well. */
gchar *
build_request(const Properties *values)
{
  GString *request = metadata_request_new();
  if (values->event || values->event_topic != nullptr || values->event_content != nullptr) {
    metadata_request_add(request, "event", "1");
  }
  add_text(request, "event_topic", values->event_topic);
  add_text(request, "event_content", values->event_content);
  add_number(request, "analytics", values->analytics);
  add_number(request, "video_channel", values->video_channel);
  add_number(request, "ptz", values->ptz);
  add_number(request, "ptz_pantilt_coordinate_space", values->pan_tilt_space);
  add_number(request, "ptz_zoom_coordinate_space", values->zoom_space);
  return metadata_request_finish(request);
}

/* The connection */

/* Called with the lock held. */
void
drop_client(State *state)
{
  if (state->client != nullptr) {
    g_clear_pointer(&state->client, metadata_client_free);
    state->is_discont = TRUE;
  }
}

void
close_connection(TessardSrc *self)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->state->lock);
  drop_client(self->state);
}

gboolean
open_connection(TessardSrc *self, GCancellable *cancellable, GError **error)
{
  g_autofree gchar *socket_path = nullptr;
  g_autofree gchar *request = nullptr;
  GstClockTime timeout = 0;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(self));
    socket_path = g_strdup(self->state->properties.socket_path);
    request = build_request(&self->state->properties);
    timeout = self->state->properties.timeout;
  }
  GST_DEBUG_OBJECT(self, "Connecting to %s", socket_path);
  auto timeout_us = static_cast<gint64>(timeout / GST_USECOND + (timeout % GST_USECOND != 0 ? 1 : 0));
  MetadataClient *client = metadata_client_open(socket_path, request, timeout_us, cancellable, error);
  if (client == nullptr) {
    return FALSE;
  }
  self->state->accepted = TRUE;
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->state->lock);
  self->state->client = client;
  return TRUE;
}

GBytes *
read_document(TessardSrc *self, GCancellable *cancellable, GError **error)
{
  if (self->state->client == nullptr && !open_connection(self, cancellable, error)) {
    return nullptr;
  }
  return metadata_client_read(self->state->client, cancellable, error);
}

/* Returns: whether the daemon got the request; before its "OK" there is no need of one */
gboolean
request_sync_point(TessardSrc *self)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->state->lock);
  return self->state->client != nullptr && metadata_client_request_sync_point(self->state->client);
}

gboolean
is_sync_point_request(GstEvent *event)
{
  return gst_event_has_name(event, SYNC_POINT_EVENT) ||
         (GST_EVENT_TYPE(event) == GST_EVENT_CUSTOM_UPSTREAM && gst_event_has_name(event, KEY_UNIT_EVENT));
}

/* Failures */

GQuark
get_message_domain(const GError *error)
{
  return error->code == METADATA_CLIENT_ERROR_MALFORMED ? GST_STREAM_ERROR : GST_RESOURCE_ERROR;
}

gint
get_message_code(const GError *error)
{
  switch (error->code) {
  case METADATA_CLIENT_ERROR_NO_CONNECTION:
  case METADATA_CLIENT_ERROR_TIMED_OUT:
    return GST_RESOURCE_ERROR_OPEN_READ;
  case METADATA_CLIENT_ERROR_REFUSED:
    return GST_RESOURCE_ERROR_SETTINGS;
  case METADATA_CLIENT_ERROR_MALFORMED:
    return GST_STREAM_ERROR_DECODE;
  default:
    return GST_RESOURCE_ERROR_READ;
  }
}

/* The daemon's reason is a text in any bytes, or empty. */
gchar *
get_message_text(const GError *error)
{
  return *error->message != '\0' ? g_utf8_make_valid(error->message, -1)
                                 : g_strdup("The daemon refused the request.");
}

void
post(TessardSrc *self, GstMessageType type, const GError *error, const char *details)
{
  gst_element_message_full(GST_ELEMENT(self), type, get_message_domain(error), get_message_code(error),
                           get_message_text(error), g_strdup(details), __FILE__, GST_FUNCTION, __LINE__);
}

/* A refusal of the first request is final: the request is wrong, or asks for what the camera does not have. A
 * later one can be a camera that is starting. */
gboolean
should_retry(TessardSrc *self, const GError *error)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(self));
  if (!self->state->properties.reconnect) {
    return FALSE;
  }
  return error->code == METADATA_CLIENT_ERROR_REFUSED ? self->state->accepted
                                                      : error->code != METADATA_CLIENT_ERROR_MALFORMED;
}

/* Waits for the time before the next connection, or until the cancellable is cancelled. */
void
wait_before_retry(TessardSrc *self, GCancellable *cancellable)
{
  State *state = self->state;
  gint64 end = g_get_monotonic_time() + state->retry_ms * G_TIME_SPAN_MILLISECOND;
  state->retry_ms = std::min<guint>(2 * state->retry_ms, TESSARD_SRC_LAST_RETRY_MS);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&state->lock);
  while (!g_cancellable_is_cancelled(cancellable) && g_cond_wait_until(&state->cond, &state->lock, end)) {
  }
}

/* Ends the connection, unless the call was cancelled.
 *
 * Returns: %GST_FLOW_ERROR, or %GST_FLOW_OK if there is to be another step */
GstFlowReturn
handle_failure(TessardSrc *self, const GError *error, GCancellable *cancellable)
{
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    return GST_FLOW_OK;
  }
  close_connection(self);
  if (!should_retry(self, error)) {
    post(self, GST_MESSAGE_ERROR, error, nullptr);
    return GST_FLOW_ERROR;
  }
  if (!self->state->is_down) {
    self->state->is_down = TRUE;
    post(self, GST_MESSAGE_WARNING, error, "The source connects again until it receives a document.");
  }
  wait_before_retry(self, cancellable);
  return GST_FLOW_OK;
}

/* Buffers */

/* Sets the caps of the stream before its first document, and when they change. */
gboolean
update_caps(TessardSrc *self)
{
  const gchar *text = metadata_client_get_caps(self->state->client);
  if (g_strcmp0(text, self->state->caps) == 0) {
    return TRUE;
  }
  g_autoptr(GstCaps) caps = gst_caps_from_string(text);
  if (caps == nullptr || !gst_caps_is_fixed(caps)) {
    GST_ELEMENT_ERROR(self, STREAM, DECODE, ("The daemon's stream is malformed: the caps are not valid."),
                      ("The caps are: %s", text));
    return FALSE;
  }
  g_free(self->state->caps);
  self->state->caps = g_strdup(text);
  return gst_base_src_set_caps(GST_BASE_SRC(self), caps);
}

void
add_utc_time(GstBuffer *buffer, GBytes *document)
{
  gsize size = 0;
  const auto *text = static_cast<const char *>(g_bytes_get_data(document, &size));
  std::optional<std::uint64_t> time = plugins::find_utc_time({text, size});
  if (time.has_value()) {
    g_autoptr(GstCaps) caps = gst_static_caps_get(&unix_time_caps);
    gst_buffer_add_reference_timestamp_meta(buffer, caps, *time, GST_CLOCK_TIME_NONE);
  }
}

GstFlowReturn
make_buffer(TessardSrc *self, GBytes *document, GstBuffer **buffer)
{
  if (!update_caps(self)) {
    return GST_FLOW_ERROR;
  }
  *buffer = gst_buffer_new_wrapped_bytes(document);
  add_utc_time(*buffer, document);
  if (self->state->is_discont) {
    GST_BUFFER_FLAG_SET(*buffer, GST_BUFFER_FLAG_DISCONT);
  }
  self->state->is_discont = FALSE;
  self->state->is_down = FALSE;
  self->state->retry_ms = TESSARD_SRC_FIRST_RETRY_MS;
  return GST_FLOW_OK;
}

/* Steps of the streaming thread */

/* Called with the lock held. For a flush or a stop the pad is set to flushing before unlock() is called.
 * GStreamer 1.26 calls unlock_stop() in the streaming thread before create(), which can undo that unlock().
 */
gboolean
must_return(TessardSrc *self, guint unlock_count)
{
  return self->state->is_unlocked || self->state->unlock_count != unlock_count ||
         GST_PAD_IS_FLUSHING(GST_BASE_SRC_PAD(self));
}

/* Called with the lock held. Returns when the source is PLAYING, without a connection if it was not, and when
 * create() has to return. */
void
wait_for_playing(TessardSrc *self, guint unlock_count)
{
  State *state = self->state;
  while (!state->is_playing && !must_return(self, unlock_count)) {
    drop_client(state);
    g_cond_wait(&state->cond, &state->lock);
  }
}

/* Begins a step, which ends with a document, a failure, or the returned cancellable.
 *
 * Returns: (transfer full) (nullable): the cancellable; %NULL if create() has to return */
GCancellable *
begin_step(TessardSrc *self, guint unlock_count)
{
  State *state = self->state;
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&state->lock);
  wait_for_playing(self, unlock_count);
  if (must_return(self, unlock_count)) {
    return nullptr;
  }
  if (g_cancellable_is_cancelled(state->cancellable)) {
    g_object_unref(state->cancellable);
    state->cancellable = g_cancellable_new();
  }
  return G_CANCELLABLE(g_object_ref(state->cancellable));
}

/* Reads documents until there is one. */
GstFlowReturn
create_buffer(TessardSrc *self, guint unlock_count, GstBuffer **buffer)
{
  while (true) {
    g_autoptr(GCancellable) cancellable = begin_step(self, unlock_count);
    if (cancellable == nullptr) {
      return GST_FLOW_FLUSHING;
    }
    g_autoptr(GError) error = nullptr;
    g_autoptr(GBytes) document = read_document(self, cancellable, &error);
    if (document != nullptr) {
      return make_buffer(self, document, buffer);
    }
    if (handle_failure(self, error, cancellable) != GST_FLOW_OK) {
      return GST_FLOW_ERROR;
    }
  }
}

guint
enter_create(State *state)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&state->lock);
  state->in_create = TRUE;
  return state->unlock_count;
}

/* A change to PAUSED that came with the document leaves the connection to this function. */
void
leave_create(State *state)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&state->lock);
  state->in_create = FALSE;
  if (!state->is_playing) {
    drop_client(state);
  }
}

void
set_playing(State *state, gboolean is_playing)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&state->lock);
  state->is_playing = is_playing;
  if (!is_playing) {
    g_cancellable_cancel(state->cancellable);
    if (!state->in_create) {
      drop_client(state);
    }
  }
  g_cond_broadcast(&state->cond);
}

} // namespace

static void
tessard_src_init(TessardSrc *self)
{
  self->state = new State{};
  State *state = self->state;
  g_mutex_init(&state->lock);
  g_cond_init(&state->cond);
  state->cancellable = g_cancellable_new();
  state->properties.socket_path = g_strdup(metadata_client_get_default_socket());
  state->properties.analytics = TESSARD_NOT_ASKED;
  state->properties.ptz = TESSARD_NOT_ASKED;
  state->properties.pan_tilt_space = TESSARD_NOT_ASKED;
  state->properties.zoom_space = TESSARD_NOT_ASKED;
  state->properties.video_channel = TESSARD_NOT_ASKED;
  gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
  gst_base_src_set_do_timestamp(GST_BASE_SRC(self), TRUE);
  gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
}

static void
tessard_src_finalize(GObject *object)
{
  State *state = TESSARD_SRC(object)->state;
  g_free(state->properties.socket_path);
  g_free(state->properties.event_topic);
  g_free(state->properties.event_content);
  g_clear_pointer(&state->client, metadata_client_free);
  g_object_unref(state->cancellable);
  g_free(state->caps);
  g_cond_clear(&state->cond);
  g_mutex_clear(&state->lock);
  delete state;
  G_OBJECT_CLASS(tessard_src_parent_class)->finalize(object);
}

static void
replace_text(gchar **text, const GValue *value)
{
  g_free(*text);
  *text = g_value_dup_string(value);
}

static void
tessard_src_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  Properties &values = TESSARD_SRC(object)->state->properties;
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(object));
  switch (id) {
  case PROP_SOCKET_PATH:
    replace_text(&values.socket_path, value);
    if (values.socket_path == nullptr) {
      values.socket_path = g_strdup(metadata_client_get_default_socket());
    }
    break;
  case PROP_EVENT:
    values.event = g_value_get_boolean(value);
    break;
  case PROP_EVENT_TOPIC:
    replace_text(&values.event_topic, value);
    break;
  case PROP_EVENT_CONTENT:
    replace_text(&values.event_content, value);
    break;
  case PROP_ANALYTICS:
    values.analytics = g_value_get_enum(value);
    break;
  case PROP_PTZ:
    values.ptz = g_value_get_enum(value);
    break;
  case PROP_PTZ_PANTILT_COORDINATE_SPACE:
    values.pan_tilt_space = g_value_get_enum(value);
    break;
  case PROP_PTZ_ZOOM_COORDINATE_SPACE:
    values.zoom_space = g_value_get_enum(value);
    break;
  case PROP_VIDEO_CHANNEL:
    values.video_channel = g_value_get_int(value);
    break;
  case PROP_TIMEOUT:
    values.timeout = g_value_get_uint64(value);
    break;
  case PROP_RECONNECT:
    values.reconnect = g_value_get_boolean(value);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static void
tessard_src_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  const Properties &values = TESSARD_SRC(object)->state->properties;
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(object));
  switch (id) {
  case PROP_SOCKET_PATH:
    g_value_set_string(value, values.socket_path);
    break;
  case PROP_EVENT:
    g_value_set_boolean(value, values.event);
    break;
  case PROP_EVENT_TOPIC:
    g_value_set_string(value, values.event_topic);
    break;
  case PROP_EVENT_CONTENT:
    g_value_set_string(value, values.event_content);
    break;
  case PROP_ANALYTICS:
    g_value_set_enum(value, values.analytics);
    break;
  case PROP_PTZ:
    g_value_set_enum(value, values.ptz);
    break;
  case PROP_PTZ_PANTILT_COORDINATE_SPACE:
    g_value_set_enum(value, values.pan_tilt_space);
    break;
  case PROP_PTZ_ZOOM_COORDINATE_SPACE:
    g_value_set_enum(value, values.zoom_space);
    break;
  case PROP_VIDEO_CHANNEL:
    g_value_set_int(value, values.video_channel);
    break;
  case PROP_TIMEOUT:
    g_value_set_uint64(value, values.timeout);
    break;
  case PROP_RECONNECT:
    g_value_set_boolean(value, values.reconnect);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

/* GStreamer 1.26 calls unlock() for a pause too, earlier versions do not. If create() returned for it, the
 * base class would pause the streaming task afterwards, and the change to PLAYING, which starts the task, can
 * come before that. So unlock() has no effect on this thread: set_playing() has ended the step. */
static GstStateChangeReturn
pause(GstElement *element)
{
  State *state = TESSARD_SRC(element)->state;
  set_playing(state, FALSE);
  g_atomic_pointer_set(&state->pausing_thread, g_thread_self());
  const GstStateChangeReturn result =
      GST_ELEMENT_CLASS(tessard_src_parent_class)->change_state(element, GST_STATE_CHANGE_PLAYING_TO_PAUSED);
  g_atomic_pointer_set(&state->pausing_thread, nullptr);
  return result;
}

static GstStateChangeReturn
tessard_src_change_state(GstElement *element, GstStateChange transition)
{
  if (transition == GST_STATE_CHANGE_PLAYING_TO_PAUSED) {
    return pause(element);
  }
  if (transition == GST_STATE_CHANGE_PAUSED_TO_PLAYING) {
    set_playing(TESSARD_SRC(element)->state, TRUE);
  }
  return GST_ELEMENT_CLASS(tessard_src_parent_class)->change_state(element, transition);
}

static gboolean
tessard_src_send_event(GstElement *element, GstEvent *event)
{
  if (!is_sync_point_request(event)) {
    return GST_ELEMENT_CLASS(tessard_src_parent_class)->send_event(element, event);
  }
  gst_event_unref(event);
  return request_sync_point(TESSARD_SRC(element));
}

static gboolean
tessard_src_event(GstBaseSrc *src, GstEvent *event)
{
  return is_sync_point_request(event) ? request_sync_point(TESSARD_SRC(src))
                                      : GST_BASE_SRC_CLASS(tessard_src_parent_class)->event(src, event);
}

/* The daemon's caps are those of the pad; update_caps() sets them. */
static gboolean
tessard_src_negotiate(GstBaseSrc *src)
{
  return TRUE;
}

static gboolean
tessard_src_start(GstBaseSrc *src)
{
  TessardSrc *self = TESSARD_SRC(src);
  g_clear_pointer(&self->state->caps, g_free);
  self->state->accepted = FALSE;
  self->state->is_down = FALSE;
  self->state->is_discont = FALSE;
  self->state->retry_ms = TESSARD_SRC_FIRST_RETRY_MS;
  return TRUE;
}

static gboolean
tessard_src_stop(GstBaseSrc *src)
{
  close_connection(TESSARD_SRC(src));
  return TRUE;
}

static gboolean
tessard_src_unlock(GstBaseSrc *src)
{
  State *state = TESSARD_SRC(src)->state;
  if (g_atomic_pointer_get(&state->pausing_thread) == g_thread_self()) {
    return TRUE;
  }
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&state->lock);
  state->is_unlocked = TRUE;
  state->unlock_count++;
  g_cancellable_cancel(state->cancellable);
  g_cond_broadcast(&state->cond);
  return TRUE;
}

static gboolean
tessard_src_unlock_stop(GstBaseSrc *src)
{
  State *state = TESSARD_SRC(src)->state;
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&state->lock);
  state->is_unlocked = FALSE;
  return TRUE;
}

static GstFlowReturn
tessard_src_create(GstPushSrc *src, GstBuffer **buffer)
{
  TessardSrc *self = TESSARD_SRC(src);
  guint unlock_count = enter_create(self->state);
  GstFlowReturn result = create_buffer(self, unlock_count, buffer);
  leave_create(self->state);
  return result;
}

static void
install_request_properties(void)
{
  auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
  properties[PROP_EVENT] = g_param_spec_boolean("event", "Event", "Whether to ask for events", FALSE, flags);
  properties[PROP_EVENT_TOPIC] = g_param_spec_string(
      "event-topic", "Event topic", "Ask for events that match this ONVIF topic expression", nullptr, flags);
  properties[PROP_EVENT_CONTENT] =
      g_param_spec_string("event-content", "Event content",
                          "Ask for events that match this ONVIF message content filter", nullptr, flags);
  properties[PROP_ANALYTICS] =
      g_param_spec_enum("analytics", "Analytics", "What to ask for of detected objects",
                        TESSARD_TYPE_ANALYTICS, TESSARD_NOT_ASKED, flags);
  properties[PROP_PTZ] = g_param_spec_enum("ptz", "PTZ", "What to ask for of the pan, tilt and zoom head",
                                           TESSARD_TYPE_PTZ, TESSARD_NOT_ASKED, flags);
  properties[PROP_PTZ_PANTILT_COORDINATE_SPACE] = g_param_spec_enum(
      "ptz-pantilt-coordinate-space", "Pan and tilt coordinate space", "Coordinate space of pan and tilt",
      TESSARD_TYPE_PAN_TILT_SPACE, TESSARD_NOT_ASKED, flags);
  properties[PROP_PTZ_ZOOM_COORDINATE_SPACE] =
      g_param_spec_enum("ptz-zoom-coordinate-space", "Zoom coordinate space", "Coordinate space of the zoom",
                        TESSARD_TYPE_ZOOM_SPACE, TESSARD_NOT_ASKED, flags);
  properties[PROP_VIDEO_CHANNEL] = g_param_spec_int(
      "video-channel", "Video channel", "Video channel of analytics and PTZ; -1 for the daemon's default",
      TESSARD_NOT_ASKED, G_MAXINT, TESSARD_NOT_ASKED, flags);
}

static void
install_properties(GObjectClass *object_class)
{
  auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
  install_request_properties();
  properties[PROP_SOCKET_PATH] =
      g_param_spec_string("socket-path", "Socket path",
                          "The daemon's socket; the default is $" METADATA_CLIENT_SOCKET_VARIABLE
                          ", or " METADATA_CLIENT_DEFAULT_SOCKET,
                          METADATA_CLIENT_DEFAULT_SOCKET, flags);
  properties[PROP_TIMEOUT] = g_param_spec_uint64(
      "timeout", "Timeout",
      "Time in nanoseconds until the daemon accepts the request, which it does when it has "
      "metadata; 0 for no limit",
      0, G_MAXUINT64, 0, flags);
  properties[PROP_RECONNECT] = g_param_spec_boolean(
      "reconnect", "Reconnect", "Whether to connect again when the daemon is not there or ends the stream",
      FALSE, static_cast<GParamFlags>(flags | GST_PARAM_MUTABLE_PLAYING));
  g_object_class_install_properties(object_class, N_PROPERTIES, properties);
}

static void
tessard_src_class_init(TessardSrcClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
  GstBaseSrcClass *base_class = GST_BASE_SRC_CLASS(klass);

  GST_DEBUG_CATEGORY_INIT(tessard_src_debug, "tessardsrc", 0, "Source of ONVIF metadata");
  object_class->finalize = tessard_src_finalize;
  object_class->set_property = tessard_src_set_property;
  object_class->get_property = tessard_src_get_property;
  element_class->change_state = tessard_src_change_state;
  element_class->send_event = tessard_src_send_event;
  base_class->event = tessard_src_event;
  base_class->negotiate = tessard_src_negotiate;
  base_class->start = tessard_src_start;
  base_class->stop = tessard_src_stop;
  base_class->unlock = tessard_src_unlock;
  base_class->unlock_stop = tessard_src_unlock_stop;
  GST_PUSH_SRC_CLASS(klass)->create = tessard_src_create;
  install_properties(object_class);

  gst_element_class_add_static_pad_template(element_class, &src_template);
  gst_element_class_set_static_metadata(element_class, "ONVIF metadata source", "Source/Metadata",
                                        "Requests ONVIF metadata from the daemon tessard and outputs one "
                                        "document in each buffer",
                                        "tessard");
}
