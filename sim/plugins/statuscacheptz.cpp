/* SPDX-License-Identifier: MIT */
#include "statuscacheptz.h"

#include "metadata.h"
#include "ptzstatus.h"
#include "sourcewait.h"
#include "worldcursor.h"

#include <algorithm>

/* A live source of the state of the world's PTZ head. It sends the state on start, after a sync point, when a
 * drive starts or stops, every MOVING_INTERVAL while a drive runs, and every IDLE_INTERVAL while both are
 * idle, for receivers that cannot request a sync point. For a channel without a head it sends an empty
 * tt:PTZ, so that the pipeline pre-rolls.
 *
 * Threads: only the streaming thread uses `StreamingState` while the element runs, and before that the thread
 * that starts it. `SourceWait` locks itself. The object lock protects the properties. */

namespace
{

struct Properties {
  int channel = 1;
  int pan_tilt_space = sim::PTZ_DEFAULT_SPACE;
  int zoom_space = sim::PTZ_DEFAULT_SPACE;
  int move_capabilities = 0;
  bool filter_position = false;
  bool filter_status = false;
};

struct StreamingState {
  sim::WorldCursor cursor;
  sim::PtzView view;
  bool has_head = false;
  gint64 repeat_at = 0; /* monotonic time at which to repeat an unchanged state */
};

struct State {
  Properties properties;
  StreamingState streaming;
  onvif::SourceWait wait;
};

} // namespace

struct _TessardSimPtzSrc {
  GstPushSrc parent_instance;
  State *state;
};

enum {
  PROP_CHANNEL = 1,
  PROP_COORDINATE_SPACE_PANTILT,
  PROP_COORDINATE_SPACE_ZOOM,
  PROP_FILTER_POSITION,
  PROP_FILTER_STATUS,
  PROP_PTZ_MOVE_CAPABILITIES,
  N_PROPERTIES,
};

static GParamSpec *properties[N_PROPERTIES];

GST_DEBUG_CATEGORY_STATIC(ptz_src_debug);
#define GST_CAT_DEFAULT ptz_src_debug

G_DEFINE_FINAL_TYPE(TessardSimPtzSrc, tessard_sim_ptz_src, GST_TYPE_PUSH_SRC)

namespace
{

constexpr gint64 MOVING_INTERVAL = G_USEC_PER_SEC / 5;
constexpr gint64 IDLE_INTERVAL = 5 * G_USEC_PER_SEC;

/* A filter selects the part that it is named after. No filter and both filters select everything. */
sim::PtzView
view_from(const Properties &chosen)
{
  return {
      .pan_tilt_space = chosen.pan_tilt_space,
      .zoom_space = chosen.zoom_space,
      .move_capabilities = chosen.move_capabilities,
      .with_position = chosen.filter_position || !chosen.filter_status,
      .with_status = chosen.filter_status || !chosen.filter_position,
  };
}

bool
is_head_change(const sim::Change &change)
{
  return change.type == sim::ChangeType::PAN_TILT || change.type == sim::ChangeType::ZOOM;
}

/* Whether a drive has started or stopped since the cursor's position. */
bool
has_head_changed(const StreamingState &streaming, sim::WorldTime now)
{
  std::vector<sim::Change> changes =
      streaming.cursor.world().changes_between(streaming.cursor.position(), now);
  return streaming.has_head && std::any_of(changes.begin(), changes.end(), is_head_change);
}

bool
is_due(const StreamingState &streaming, sim::WorldTime now)
{
  return !streaming.cursor.can_continue(now) || g_get_monotonic_time() >= streaming.repeat_at ||
         has_head_changed(streaming, now);
}

GstBuffer *
fragment_new(const StreamingState &streaming, const sim::Ptz &ptz, sim::WorldTime now)
{
  onvif::XmlWriter writer;
  writer.start(onvif::TT, "PTZ");
  writer.declare(onvif::TT);
  if (streaming.has_head) {
    sim::ptz_status_write(&writer, ptz, streaming.view, sim::settings_utc(streaming.cursor.settings(), now));
  }
  writer.end();
  return onvif::fragment_to_buffer(&writer);
}

/* Returns the state at @now and schedules its repetition. */
GstBuffer *
next_fragment(StreamingState &streaming, sim::WorldTime now)
{
  sim::Ptz ptz = streaming.cursor.world().ptz_at(now);
  bool moving = streaming.has_head && (ptz.pan_tilt_moving || ptz.zoom_moving);
  streaming.repeat_at = g_get_monotonic_time() + (moving ? MOVING_INTERVAL : IDLE_INTERVAL);
  return fragment_new(streaming, ptz, now);
}

} // namespace

static void
tessard_sim_ptz_src_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
  Properties &chosen = TESSARD_SIM_PTZ_SRC(object)->state->properties;
  GST_OBJECT_LOCK(object);
  switch (id) {
  case PROP_CHANNEL:
    chosen.channel = g_value_get_int(value);
    break;
  case PROP_COORDINATE_SPACE_PANTILT:
    chosen.pan_tilt_space = g_value_get_int(value);
    break;
  case PROP_COORDINATE_SPACE_ZOOM:
    chosen.zoom_space = g_value_get_int(value);
    break;
  case PROP_FILTER_POSITION:
    chosen.filter_position = g_value_get_boolean(value);
    break;
  case PROP_FILTER_STATUS:
    chosen.filter_status = g_value_get_boolean(value);
    break;
  case PROP_PTZ_MOVE_CAPABILITIES:
    chosen.move_capabilities = g_value_get_int(value);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
  GST_OBJECT_UNLOCK(object);
}

static void
tessard_sim_ptz_src_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
  const Properties &chosen = TESSARD_SIM_PTZ_SRC(object)->state->properties;
  GST_OBJECT_LOCK(object);
  switch (id) {
  case PROP_CHANNEL:
    g_value_set_int(value, chosen.channel);
    break;
  case PROP_COORDINATE_SPACE_PANTILT:
    g_value_set_int(value, chosen.pan_tilt_space);
    break;
  case PROP_COORDINATE_SPACE_ZOOM:
    g_value_set_int(value, chosen.zoom_space);
    break;
  case PROP_FILTER_POSITION:
    g_value_set_boolean(value, chosen.filter_position);
    break;
  case PROP_FILTER_STATUS:
    g_value_set_boolean(value, chosen.filter_status);
    break;
  case PROP_PTZ_MOVE_CAPABILITIES:
    g_value_set_int(value, chosen.move_capabilities);
    break;
  default:
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
  GST_OBJECT_UNLOCK(object);
}

static void
tessard_sim_ptz_src_init(TessardSimPtzSrc *self)
{
  self->state = new State;
  gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
  gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
  gst_base_src_set_do_timestamp(GST_BASE_SRC(self), TRUE);
}

static void
tessard_sim_ptz_src_finalize(GObject *object)
{
  delete TESSARD_SIM_PTZ_SRC(object)->state;
  G_OBJECT_CLASS(tessard_sim_ptz_src_parent_class)->finalize(object);
}

static gboolean
tessard_sim_ptz_src_start(GstBaseSrc *base)
{
  State *state = TESSARD_SIM_PTZ_SRC(base)->state;
  GST_OBJECT_LOCK(base);
  Properties chosen = state->properties;
  GST_OBJECT_UNLOCK(base);

  StreamingState &streaming = state->streaming;
  streaming.cursor.open();
  streaming.view = view_from(chosen);
  streaming.has_head = sim::settings_has_ptz(streaming.cursor.settings(), chosen.channel);
  state->wait.clear();
  return TRUE;
}

static gboolean
tessard_sim_ptz_src_unlock(GstBaseSrc *base)
{
  TESSARD_SIM_PTZ_SRC(base)->state->wait.set_flushing(true);
  return TRUE;
}

static gboolean
tessard_sim_ptz_src_unlock_stop(GstBaseSrc *base)
{
  TESSARD_SIM_PTZ_SRC(base)->state->wait.set_flushing(false);
  return TRUE;
}

/* Called on the thread that sends the event. */
static gboolean
tessard_sim_ptz_src_event(GstBaseSrc *base, GstEvent *event)
{
  if (!TESSARD_SIM_PTZ_SRC(base)->state->wait.handle_event(event)) {
    return GST_BASE_SRC_CLASS(tessard_sim_ptz_src_parent_class)->event(base, event);
  }
  GST_DEBUG_OBJECT(base, "Sync point requested");
  return TRUE;
}

static GstStateChangeReturn
tessard_sim_ptz_src_change_state(GstElement *element, GstStateChange transition)
{
  if (transition == GST_STATE_CHANGE_PAUSED_TO_PLAYING) {
    TESSARD_SIM_PTZ_SRC(element)->state->wait.set_flushing(false);
  }
  return GST_ELEMENT_CLASS(tessard_sim_ptz_src_parent_class)->change_state(element, transition);
}

static GstFlowReturn
tessard_sim_ptz_src_create(GstPushSrc *push, GstBuffer **buffer)
{
  State *state = TESSARD_SIM_PTZ_SRC(push)->state;
  StreamingState &streaming = state->streaming;
  for (;;) {
    gint64 deadline = std::min(streaming.cursor.next_change_deadline(), streaming.repeat_at);
    onvif::WakeReason wake = state->wait.wait_until(deadline);
    if (wake == onvif::WakeReason::FLUSHING) {
      const GstFlowReturn flow = gst_base_src_wait_playing(GST_BASE_SRC(push));
      if (flow != GST_FLOW_OK) {
        return flow;
      }
      continue;
    }

    sim::WorldTime now = streaming.cursor.now();
    bool send = wake == onvif::WakeReason::SYNC_POINT || is_due(streaming, now);
    streaming.cursor.advance_to(now);
    if (send) {
      *buffer = next_fragment(streaming, now);
      return GST_FLOW_OK;
    }
  }
}

static void
install_properties(GObjectClass *object_class)
{
  auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
  properties[PROP_CHANNEL] =
      g_param_spec_int("channel", "Channel", "Video channel whose PTZ head to report", 0, G_MAXINT, 1, flags);
  properties[PROP_COORDINATE_SPACE_PANTILT] =
      g_param_spec_int("coordinate-space-pantilt", "Pan and tilt coordinate space",
                       "0 generic, 1 degrees, 2 radians, -1 default", sim::PTZ_DEFAULT_SPACE,
                       sim::PTZ_LAST_SPACE, sim::PTZ_DEFAULT_SPACE, flags);
  properties[PROP_COORDINATE_SPACE_ZOOM] = g_param_spec_int(
      "coordinate-space-zoom", "Zoom coordinate space", "0 generic, 1 millimetres, 2 zoom factor, -1 default",
      sim::PTZ_DEFAULT_SPACE, sim::PTZ_LAST_SPACE, sim::PTZ_DEFAULT_SPACE, flags);
  properties[PROP_FILTER_POSITION] =
      g_param_spec_boolean("filter-position", "Filter position",
                           "Send the position only; everything if both filters are set", FALSE, flags);
  properties[PROP_FILTER_STATUS] =
      g_param_spec_boolean("filter-status", "Filter status",
                           "Send the move status only; everything if both filters are set", FALSE, flags);
  properties[PROP_PTZ_MOVE_CAPABILITIES] = g_param_spec_int(
      "ptz-move-capabilities", "PTZ move capabilities",
      "Mask of what the driver can move: 1 pan, 2 tilt, 4 zoom; 0 if unknown", G_MININT, G_MAXINT, 0, flags);
  g_object_class_install_properties(object_class, N_PROPERTIES, properties);
}

static void
tessard_sim_ptz_src_class_init(TessardSimPtzSrcClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
  GstBaseSrcClass *base_class = GST_BASE_SRC_CLASS(klass);

  GST_DEBUG_CATEGORY_INIT(ptz_src_debug, "statuscacheptzsrc", 0, "PTZ status of the simulated camera");
  object_class->set_property = tessard_sim_ptz_src_set_property;
  object_class->get_property = tessard_sim_ptz_src_get_property;
  object_class->finalize = tessard_sim_ptz_src_finalize;
  element_class->change_state = tessard_sim_ptz_src_change_state;
  base_class->start = tessard_sim_ptz_src_start;
  base_class->unlock = tessard_sim_ptz_src_unlock;
  base_class->unlock_stop = tessard_sim_ptz_src_unlock_stop;
  base_class->event = tessard_sim_ptz_src_event;
  GST_PUSH_SRC_CLASS(klass)->create = tessard_sim_ptz_src_create;
  install_properties(object_class);

  g_autoptr(GstCaps) caps = gst_caps_new_empty_simple(onvif::FRAGMENT_CAPS);
  gst_element_class_add_pad_template(element_class,
                                     gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
  gst_element_class_set_static_metadata(element_class, "PTZ status source", "Source/Metadata",
                                        "Produces the PTZ status of the simulated camera as ONVIF metadata",
                                        "tessard");
}

static gboolean
plugin_init(GstPlugin *plugin)
{
  return gst_element_register(plugin, "statuscacheptzsrc", GST_RANK_NONE, TESSARD_SIM_TYPE_PTZ_SRC);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, statuscacheptz, "PTZ status of the simulated camera",
                  plugin_init, VERSION, "MIT/X11", PACKAGE, "tessard")
