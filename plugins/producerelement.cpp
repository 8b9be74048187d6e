/* SPDX-License-Identifier: MIT */
#include "producerelement.h"

#include "frameitems.h"
#include "frametime.h"
#include "tessard.h"

#include <memory>

/* Buffers pass through unchanged. The streaming thread reads their detections, makes an item and hands it to
 * the library, which never blocks. The buffer goes on in every case.
 *
 * The streaming thread uses everything between start() and stop(), and the object lock protects the
 * properties. Counters are atomic. */

namespace
{

struct Properties {
  gchar *producer_name;
  gchar *nice_name;
  guint channel;
  gdouble min_likelihood;
  gchar *type_map;
  gdouble max_rate;
  plugins::Tracking tracking;
};

struct Counts {
  std::atomic<guint64> items;
  std::atomic<guint64> dropped; /* by earlier producers */
  plugins::LeftOutBoxes boxes;
};

struct State {
  Properties properties;
  Counts counts;
  std::atomic<bool> is_playing;
  std::atomic<bool> has_played;     /* since the streaming thread has looked */
  std::atomic<bool> is_interrupted; /* and the application knows it */

  /* Between start() and stop(). */
  TessardProducer *producer;
  guint32 channel;
  std::unique_ptr<plugins::FrameItems> items;
  plugins::WallClock wall_clock;

  /* From the caps, 0 if they have none. */
  guint width;
  guint height;
};

} // namespace

struct _TessardProducerElement {
  GstBaseTransform parent_instance;
  State *state;
};

enum {
  PROP_PRODUCER_NAME = 1,
  PROP_NICE_NAME,
  PROP_CHANNEL,
  PROP_MIN_LIKELIHOOD,
  PROP_TYPE_MAP,
  PROP_MAX_RATE,
  PROP_TRACKING,
  PROP_STATS,
  N_PROPERTIES,
};

static GParamSpec *properties[N_PROPERTIES];

static GstStaticPadTemplate sink_template =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);
static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);

GST_DEBUG_CATEGORY_STATIC(tessard_producer_element_debug);
#define GST_CAT_DEFAULT tessard_producer_element_debug

G_DEFINE_FINAL_TYPE(TessardProducerElement, tessard_producer_element, GST_TYPE_BASE_TRANSFORM)

namespace
{

/* The time between two looks at the items that wait. */
constexpr gulong LOOK_US = 1000;

/* The time of a frame */

GstClockTime
running_time_of(TessardProducerElement *self, GstBuffer *buffer)
{
  const GstSegment *segment = &GST_BASE_TRANSFORM(self)->segment;
  return segment->format == GST_FORMAT_TIME
             ? gst_segment_to_running_time(segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer))
             : GST_CLOCK_TIME_NONE;
}

/* A frame without a running time, and one that comes before PLAYING, is taken now. */
gint64
utc_of(TessardProducerElement *self, GstClockTime running)
{
  State *state = self->state;
  gint64 now = g_get_real_time();
  GstClockTime running_now = gst_element_get_current_running_time(GST_ELEMENT(self));
  if (state->has_played.exchange(false)) {
    state->wall_clock.reset();
  }
  if (!state->is_playing || !GST_CLOCK_TIME_IS_VALID(running_now) || !GST_CLOCK_TIME_IS_VALID(running)) {
    return now;
  }
  state->wall_clock.compare(running_now, now);
  return state->wall_clock.utc_at(running);
}

plugins::FrameInfo
read_info(TessardProducerElement *self, GstBuffer *buffer)
{
  GstClockTime running = running_time_of(self, buffer);
  std::optional<gint64> utc = plugins::frame_time_of_reference(buffer);
  return {
      .width = self->state->width,
      .height = self->state->height,
      .running = GST_CLOCK_TIME_IS_VALID(running)
                     ? running
                     : static_cast<GstClockTime>(g_get_monotonic_time()) * GST_USECOND,
      .utc = utc.has_value() ? *utc : utc_of(self, running),
  };
}

gdouble
get_min_likelihood(TessardProducerElement *self)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(self));
  return self->state->properties.min_likelihood;
}

/* Items */

/* An item that the library does not take is one that it drops. */
void
send(TessardProducerElement *self, TessardItem *item)
{
  State *state = self->state;
  state->counts.items++;
  g_autoptr(GError) error = nullptr;
  if (!tessard_producer_send(state->producer, state->channel, item, &error)) {
    GST_LOG_OBJECT(self, "%s", error->message);
  }
}

void
send_frame(TessardProducerElement *self, GstBuffer *buffer)
{
  State *state = self->state;
  g_autoptr(TessardItem) item = state->items->make(buffer, read_info(self, buffer), get_min_likelihood(self));
  if (item != nullptr) {
    send(self, item);
  }
}

void
send_last(TessardProducerElement *self)
{
  plugins::FrameItems *items = self->state->items.get();
  g_autoptr(TessardItem) item = items != nullptr ? items->make_last() : nullptr;
  if (item != nullptr) {
    send(self, item);
  }
}

/* Called with the object lock held. */
guint64
get_dropped(const State *state)
{
  return state->counts.dropped +
         (state->producer != nullptr ? tessard_producer_get_dropped(state->producer) : 0);
}

/* What is neither dropped nor waits is with the receiver. Called with the object lock held. */
guint64
get_sent(const State *state)
{
  guint64 items = state->counts.items;
  guint64 pending = state->producer != nullptr ? tessard_producer_get_pending(state->producer) : 0;
  return items - MIN(items, get_dropped(state) + pending);
}

/* Called with the object lock held. */
GstStructure *
make_stats(const State *state)
{
  return gst_structure_new("tessardproducer-stats", "sent", G_TYPE_UINT64, get_sent(state), "dropped",
                           G_TYPE_UINT64, get_dropped(state), "boxes-outside", G_TYPE_UINT64,
                           state->counts.boxes.outside.load(), "boxes-excess", G_TYPE_UINT64,
                           state->counts.boxes.excess.load(), nullptr);
}

/* Start */

/* Called with the object lock held. */
plugins::FrameSettings
make_settings(const Properties *values, std::string *malformed)
{
  plugins::FrameSettings settings;
  settings.tracking = values->tracking;
  settings.max_rate = values->max_rate;
  *malformed = settings.types.parse(values->type_map);
  return settings;
}

void
make_items(TessardProducerElement *self)
{
  std::string malformed;
  plugins::FrameSettings settings;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(self));
    settings = make_settings(&self->state->properties, &malformed);
  }
  if (!malformed.empty()) {
    g_autofree gchar *pair = g_utf8_make_valid(malformed.c_str(), -1);
    GST_ELEMENT_WARNING(
        self, RESOURCE, SETTINGS, ("\"%s\" in \"type-map\" is not WORD=TYPE.", pair),
        ("The pair is left out; a type has 1 to %d characters.", TESSARD_ITEM_MAX_TYPE_CHARACTERS));
  }
  self->state->items = std::make_unique<plugins::FrameItems>(std::move(settings), &self->state->counts.boxes);
}

/* The producer. It emits its signals in the application's main context. */

/* The library tries again, and each failure is an interruption. */
void
on_interrupted(TessardProducer *producer, const GError *reason, gpointer user_data)
{
  TessardProducerElement *self = TESSARD_PRODUCER_ELEMENT(user_data);
  if (!self->state->is_interrupted.exchange(true)) {
    GST_ELEMENT_INFO(self, RESOURCE, WRITE, ("%s", reason->message),
                     ("%s Items are dropped until the receiver takes them.", reason->message));
  }
}

void
on_ready(TessardProducer *producer, GParamSpec *pspec, gpointer user_data)
{
  TESSARD_PRODUCER_ELEMENT(user_data)->state->is_interrupted = false;
}

void
on_failed(TessardProducer *producer, const GError *reason, gpointer user_data)
{
  GST_ELEMENT_WARNING(user_data, RESOURCE, SETTINGS, ("%s", reason->message),
                      ("Items are dropped until there is another receiver."));
}

/* An item with every member that items have. */
gchar *
make_sample(void)
{
  g_autoptr(TessardItem) item = tessard_item_new();
  tessard_item_set_utc_time(item, 0, nullptr);
  tessard_item_add_object(item, 1, -1, 1, 1, -1, nullptr);
  tessard_item_set_type(item, 1, "Human", nullptr);
  tessard_item_set_likelihood(item, 1, 1, nullptr);
  tessard_item_add_deleted(item, 0, nullptr);
  return tessard_item_to_json(item);
}

/* Called with the object lock held. */
TessardProducer *
make_producer(const Properties *values)
{
  g_autofree gchar *sample = make_sample();
  return tessard_producer_new(values->producer_name, values->nice_name, &values->channel, 1, sample);
}

bool
has_name(TessardProducerElement *self)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(self));
  const gchar *name = self->state->properties.producer_name;
  return name != nullptr && *name != '\0';
}

void
open_producer(TessardProducerElement *self)
{
  State *state = self->state;
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(self));
  state->channel = state->properties.channel;
  state->is_interrupted = false;
  state->producer = make_producer(&state->properties);
  g_signal_connect_object(state->producer, "interrupted", G_CALLBACK(on_interrupted), self,
                          static_cast<GConnectFlags>(0));
  g_signal_connect_object(state->producer, "notify::ready", G_CALLBACK(on_ready), self,
                          static_cast<GConnectFlags>(0));
  g_signal_connect_object(state->producer, "failed", G_CALLBACK(on_failed), self,
                          static_cast<GConnectFlags>(0));
}

TessardProducer *
take_producer(TessardProducerElement *self)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(self));
  self->state->counts.dropped = get_dropped(self->state);
  return g_steal_pointer(&self->state->producer);
}

/* The process can end next, and the library's thread with it. A receiver that does not read gets no more than
 * a moment. */
void
wait_until_taken(TessardProducer *producer)
{
  gint64 end = g_get_monotonic_time() + TESSARD_PRODUCER_ELEMENT_STOP_MS * G_TIME_SPAN_MILLISECOND;
  while (tessard_producer_get_ready(producer) && tessard_producer_get_pending(producer) > 0 &&
         g_get_monotonic_time() < end) {
    g_usleep(LOOK_US);
  }
}

/* With the last reference the library ends the registration. */
void
end_producer(TessardProducerElement *self)
{
  if (self->state->producer == nullptr) {
    return;
  }
  g_signal_handlers_disconnect_by_data(self->state->producer, self);
  wait_until_taken(self->state->producer);
  g_autoptr(TessardProducer) producer = take_producer(self);
}

} // namespace

static void
tessard_producer_element_init(TessardProducerElement *self)
{
  self->state = new State{};
  self->state->properties.channel = 1;
  self->state->properties.tracking = plugins::Tracking::MISSING;
  gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), TRUE);
}

static void
tessard_producer_element_finalize(GObject *object)
{
  State *state = TESSARD_PRODUCER_ELEMENT(object)->state;
  g_free(state->properties.producer_name);
  g_free(state->properties.nice_name);
  g_free(state->properties.type_map);
  delete state;
  G_OBJECT_CLASS(tessard_producer_element_parent_class)->finalize(object);
}

static void
replace_text(gchar **text, const GValue *value)
{
  g_free(*text);
  *text = g_value_dup_string(value);
}

static void
tessard_producer_element_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  Properties &values = TESSARD_PRODUCER_ELEMENT(object)->state->properties;
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(object));
  switch (id) {
  case PROP_PRODUCER_NAME:
    replace_text(&values.producer_name, value);
    break;
  case PROP_NICE_NAME:
    replace_text(&values.nice_name, value);
    break;
  case PROP_CHANNEL:
    values.channel = g_value_get_uint(value);
    break;
  case PROP_MIN_LIKELIHOOD:
    values.min_likelihood = g_value_get_double(value);
    break;
  case PROP_TYPE_MAP:
    replace_text(&values.type_map, value);
    break;
  case PROP_MAX_RATE:
    values.max_rate = g_value_get_double(value);
    break;
  case PROP_TRACKING:
    values.tracking = static_cast<plugins::Tracking>(g_value_get_enum(value));
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static void
tessard_producer_element_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  const State *state = TESSARD_PRODUCER_ELEMENT(object)->state;
  const Properties &values = state->properties;
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(object));
  switch (id) {
  case PROP_PRODUCER_NAME:
    g_value_set_string(value, values.producer_name);
    break;
  case PROP_NICE_NAME:
    g_value_set_string(value, values.nice_name);
    break;
  case PROP_CHANNEL:
    g_value_set_uint(value, values.channel);
    break;
  case PROP_MIN_LIKELIHOOD:
    g_value_set_double(value, values.min_likelihood);
    break;
  case PROP_TYPE_MAP:
    g_value_set_string(value, values.type_map);
    break;
  case PROP_MAX_RATE:
    g_value_set_double(value, values.max_rate);
    break;
  case PROP_TRACKING:
    g_value_set_enum(value, static_cast<gint>(values.tracking));
    break;
  case PROP_STATS:
    g_value_take_boxed(value, make_stats(state));
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
}

static GstStateChangeReturn
tessard_producer_element_change_state(GstElement *element, GstStateChange transition)
{
  State *state = TESSARD_PRODUCER_ELEMENT(element)->state;
  if (transition == GST_STATE_CHANGE_PAUSED_TO_PLAYING) {
    state->has_played = true;
    state->is_playing = true;
  } else if (transition == GST_STATE_CHANGE_PLAYING_TO_PAUSED) {
    state->is_playing = false;
  }
  return GST_ELEMENT_CLASS(tessard_producer_element_parent_class)->change_state(element, transition);
}

static gboolean
tessard_producer_element_start(GstBaseTransform *transform)
{
  TessardProducerElement *self = TESSARD_PRODUCER_ELEMENT(transform);
  self->state->width = 0;
  self->state->height = 0;
  self->state->wall_clock.reset();
  if (!has_name(self)) {
    GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("\"producer-name\" is not set."), (nullptr));
    return FALSE;
  }
  make_items(self);
  open_producer(self);
  return TRUE;
}

static gboolean
tessard_producer_element_stop(GstBaseTransform *transform)
{
  TessardProducerElement *self = TESSARD_PRODUCER_ELEMENT(transform);
  send_last(self);
  self->state->items.reset();
  end_producer(self);
  return TRUE;
}

/* Encoded video has a size, too. */
static gboolean
tessard_producer_element_set_caps(GstBaseTransform *transform, GstCaps *in, GstCaps *out)
{
  TessardProducerElement *self = TESSARD_PRODUCER_ELEMENT(transform);
  const GstStructure *structure = gst_caps_get_structure(in, 0);
  gint width = 0;
  gint height = 0;
  bool has_size = gst_structure_get_int(structure, "width", &width) &&
                  gst_structure_get_int(structure, "height", &height) && width > 0 && height > 0;
  if (!has_size) {
    GST_ELEMENT_WARNING(self, STREAM, FORMAT,
                        ("The video has no size, so that its detections have no place."),
                        ("The caps are: %" GST_PTR_FORMAT, static_cast<gpointer>(in)));
  }
  self->state->width = has_size ? static_cast<guint>(width) : 0;
  self->state->height = has_size ? static_cast<guint>(height) : 0;
  return TRUE;
}

static gboolean
tessard_producer_element_sink_event(GstBaseTransform *transform, GstEvent *event)
{
  if (GST_EVENT_TYPE(event) == GST_EVENT_EOS) {
    send_last(TESSARD_PRODUCER_ELEMENT(transform));
  }
  return GST_BASE_TRANSFORM_CLASS(tessard_producer_element_parent_class)->sink_event(transform, event);
}

static GstFlowReturn
tessard_producer_element_transform_ip(GstBaseTransform *transform, GstBuffer *buffer)
{
  send_frame(TESSARD_PRODUCER_ELEMENT(transform), buffer);
  return GST_FLOW_OK;
}

static void
install_properties(GObjectClass *object_class)
{
  auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
  properties[PROP_PRODUCER_NAME] = g_param_spec_string(
      "producer-name", "Producer name",
      "The name under which the producer is registered: letters, digits and \"_\"", nullptr, flags);
  properties[PROP_NICE_NAME] = g_param_spec_string(
      "nice-name", "Nice name", "The name for display; by default the producer's name", nullptr, flags);
  properties[PROP_CHANNEL] =
      g_param_spec_uint("channel", "Channel", "The video channel of the detections", 1, G_MAXINT, 1, flags);
  properties[PROP_MIN_LIKELIHOOD] =
      g_param_spec_double("min-likelihood", "Minimum likelihood",
                          "Ignore detections with a smaller likelihood, but not those without one", 0, 1, 0,
                          static_cast<GParamFlags>(flags | GST_PARAM_MUTABLE_PLAYING));
  properties[PROP_TYPE_MAP] = g_param_spec_string(
      "type-map", "Type map", "The types of objects for a detector's words: WORD=TYPE,WORD=TYPE,...", nullptr,
      flags);
  properties[PROP_MAX_RATE] =
      g_param_spec_double("max-rate", "Maximum rate", "The largest number of items a second; 0 for no limit",
                          0, TESSARD_PRODUCER_ELEMENT_MAX_RATE, 0, flags);
  properties[PROP_TRACKING] =
      g_param_spec_enum("tracking", "Tracking", "Which boxes keep their ids by their overlap",
                        TESSARD_TYPE_TRACKING, static_cast<gint>(plugins::Tracking::MISSING), flags);
  properties[PROP_STATS] = g_param_spec_boxed(
      "stats", "Statistics", "Counts of items and of boxes that are in no item", GST_TYPE_STRUCTURE,
      static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS));
  g_object_class_install_properties(object_class, N_PROPERTIES, properties);
}

static void
tessard_producer_element_class_init(TessardProducerElementClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
  GstBaseTransformClass *transform_class = GST_BASE_TRANSFORM_CLASS(klass);

  GST_DEBUG_CATEGORY_INIT(tessard_producer_element_debug, "tessardproducer", 0, "Producer of detections");
  object_class->finalize = tessard_producer_element_finalize;
  object_class->set_property = tessard_producer_element_set_property;
  object_class->get_property = tessard_producer_element_get_property;
  element_class->change_state = tessard_producer_element_change_state;
  transform_class->start = tessard_producer_element_start;
  transform_class->stop = tessard_producer_element_stop;
  transform_class->set_caps = tessard_producer_element_set_caps;
  transform_class->sink_event = tessard_producer_element_sink_event;
  transform_class->transform_ip = tessard_producer_element_transform_ip;
  install_properties(object_class);

  gst_element_class_add_static_pad_template(element_class, &sink_template);
  gst_element_class_add_static_pad_template(element_class, &src_template);
  gst_element_class_set_static_metadata(
      element_class, "ONVIF detection producer", "Filter/Analyzer/Video",
      "Sends the detections on video frames to the metadata receiver, as an "
      "external producer of the daemon tessard",
      "tessard");
}

/**
 * tessard_tracking_get_type:
 *
 * Returns: the type of "tracking"
 */
GType
tessard_tracking_get_type(void)
{
  static const GEnumValue values[] = {
      {static_cast<gint>(plugins::Tracking::OFF), "No box", "off"},
      {static_cast<gint>(plugins::Tracking::MISSING), "Boxes without the id of another tracker", "missing"},
      {static_cast<gint>(plugins::Tracking::ALL), "All boxes; ids of other trackers are ignored", "all"},
      {0, nullptr, nullptr},
  };
  static const GType type = g_enum_register_static("TessardTracking", values);
  return type;
}
