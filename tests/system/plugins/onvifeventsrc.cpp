/* SPDX-License-Identifier: MIT */
/* A fake of the simulated camera's "onvifeventsrc" that fails on command. Only this plug-in reads the
 * variables:
 *
 * - TESTPLUGIN_FAILS: the state change that fails, with GStreamer's name ("PAUSED->READY"), or "STREAM" for a
 *   stream with an immediate error
 * - TESTPLUGIN_WORKS: "1" if the element performs the state change in spite of the failure, or "0"
 * - TESTPLUGIN_TIMES: the number of failures of each element before the state change succeeds
 *
 * Like the camera's, the element is a live source. It sends one fragment without events and then nothing.
 */
#include <cstdlib>
#include <cstring>
#include <gst/base/gstpushsrc.h>
#include <string_view>

namespace
{

constexpr const char *FRAGMENT = "<tt:Event/>";
constexpr const char *FRAGMENT_CAPS = "application/x-onvif-metadata-fragment";

std::string_view
variable(const char *name)
{
  const char *value = g_getenv(name);

  return value != nullptr ? value : "";
}

} // namespace

struct TestEventSrc {
  GstPushSrc parent_instance;

  GMutex lock;
  GCond cond;
  gboolean unlocked;
  gboolean sent;
  int failures_left;
};

struct TestEventSrcClass {
  GstPushSrcClass parent_class;
};

GType test_event_src_get_type();
G_DEFINE_TYPE(TestEventSrc, test_event_src, GST_TYPE_PUSH_SRC)

static TestEventSrc *
test_event_src(gpointer instance)
{
  return G_TYPE_CHECK_INSTANCE_CAST(instance, test_event_src_get_type(), TestEventSrc);
}

static GstFlowReturn
test_event_src_wait(TestEventSrc *self)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);

  while (!self->unlocked) {
    g_cond_wait(&self->cond, &self->lock);
  }
  return GST_FLOW_FLUSHING;
}

static GstFlowReturn
test_event_src_create(GstPushSrc *push, GstBuffer **buffer)
{
  TestEventSrc *self = test_event_src(push);

  if (variable("TESTPLUGIN_FAILS") == "STREAM") {
    GST_ELEMENT_ERROR(self, STREAM, FAILED, ("No events"), (nullptr));
    return GST_FLOW_ERROR;
  }
  if (self->sent) {
    return test_event_src_wait(self);
  }
  *buffer = gst_buffer_new_memdup(FRAGMENT, strlen(FRAGMENT));
  self->sent = TRUE;
  return GST_FLOW_OK;
}

static gboolean
test_event_src_set_unlocked(GstBaseSrc *base, gboolean unlocked)
{
  TestEventSrc *self = test_event_src(base);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock);

  self->unlocked = unlocked;
  g_cond_signal(&self->cond);
  return TRUE;
}

static gboolean
test_event_src_unlock(GstBaseSrc *base)
{
  return test_event_src_set_unlocked(base, TRUE);
}

static gboolean
test_event_src_unlock_stop(GstBaseSrc *base)
{
  return test_event_src_set_unlocked(base, FALSE);
}

static GstStateChangeReturn
test_event_src_change_state(GstElement *element, GstStateChange change)
{
  TestEventSrc *self = test_event_src(element);
  const gboolean fails =
      self->failures_left > 0 && variable("TESTPLUGIN_FAILS") == gst_state_change_get_name(change);
  GstStateChangeReturn result = GST_STATE_CHANGE_FAILURE;

  if (!fails || variable("TESTPLUGIN_WORKS") == "1") {
    result = GST_ELEMENT_CLASS(test_event_src_parent_class)->change_state(element, change);
  }
  if (fails) {
    self->failures_left--;
    result = GST_STATE_CHANGE_FAILURE;
  }
  return result;
}

static void
test_event_src_finalize(GObject *object)
{
  TestEventSrc *self = test_event_src(object);

  g_mutex_clear(&self->lock);
  g_cond_clear(&self->cond);
  G_OBJECT_CLASS(test_event_src_parent_class)->finalize(object);
}

static void
test_event_src_init(TestEventSrc *self)
{
  g_mutex_init(&self->lock);
  g_cond_init(&self->cond);
  self->failures_left = atoi(variable("TESTPLUGIN_TIMES").data());
  gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
  gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
  gst_base_src_set_do_timestamp(GST_BASE_SRC(self), TRUE);
}

static void
test_event_src_class_init(TestEventSrcClass *klass)
{
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
  GstBaseSrcClass *base_class = GST_BASE_SRC_CLASS(klass);
  g_autoptr(GstCaps) caps = gst_caps_new_empty_simple(FRAGMENT_CAPS);

  G_OBJECT_CLASS(klass)->finalize = test_event_src_finalize;
  element_class->change_state = test_event_src_change_state;
  base_class->unlock = test_event_src_unlock;
  base_class->unlock_stop = test_event_src_unlock_stop;
  GST_PUSH_SRC_CLASS(klass)->create = test_event_src_create;
  gst_element_class_add_pad_template(element_class,
                                     gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
  gst_element_class_set_static_metadata(element_class, "Failing event source", "Source/Metadata",
                                        "Fails as a test wishes", "tessard");
}

static gboolean
plugin_init(GstPlugin *plugin)
{
  return gst_element_register(plugin, "onvifeventsrc", GST_RANK_NONE, test_event_src_get_type());
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, onvifeventsrc, "Events that fail", plugin_init,
                  VERSION, "MIT/X11", PACKAGE, "tessard")
