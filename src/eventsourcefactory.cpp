/* SPDX-License-Identifier: MIT */
/* Makes an "onvifeventsrc" element for a request for events. The factory has no state, so several requests
 * can use it at once.
 */
#include "eventsourcefactory.h"

#include "sourcefactory.h"

#include <string_view>

struct _EventSourceFactory {
  GObject parent_instance;
};

static void event_source_factory_iface_init(SourceFactoryInterface *iface);

G_DEFINE_TYPE_WITH_CODE(EventSourceFactory, event_source_factory, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(SOURCE_TYPE_FACTORY, event_source_factory_iface_init))

namespace
{

/* Returns whether the request asks for events; FALSE with @error set for a bad value of "event". */
gboolean
wants_events(GHashTable *params, GError **error)
{
  const gchar *event = source_factory_lookup_param(params, "event");

  if (event == nullptr || g_str_equal(event, "0")) {
    return FALSE;
  }
  if (!g_str_equal(event, "1")) {
    source_factory_refuse_value(error, source_factory_error_quark(), "Invalid value of 'event' parameter",
                                event);
    return FALSE;
  }
  return TRUE;
}

/* Decodes backslash escapes. Any client can send a lone backslash at the end, which g_strcompress() drops
 * with a warning, so it is removed before. */
gchar *
unescape(const gchar *escaped)
{
  const std::string_view text = escaped;
  const gsize backslashes = text.size() - (text.find_last_not_of('\\') + 1);
  g_autofree gchar *complete = g_strndup(escaped, text.size() - backslashes % 2);

  return g_strcompress(complete);
}

/* Sets one filter of the request. An absent one leaves the element's default. */
void
set_filter(GstElement *source, const gchar *property, GHashTable *params, const gchar *key)
{
  const gchar *escaped = source_factory_lookup_param(params, key);
  if (escaped == nullptr) {
    return;
  }

  /* A header line cannot contain a line break, so filters have backslash escapes. */
  g_autofree gchar *filter = unescape(escaped);
  g_object_set(source, property, filter, nullptr);
}

GstElement *
create_event_source(SourceFactory *self, GHashTable *params, GError **error)
{
  if (!wants_events(params, error)) {
    return nullptr;
  }

  GstElement *source = gst_element_factory_make("onvifeventsrc", nullptr);
  if (source == nullptr) {
    source_factory_fail(error, source_factory_error_quark(), "Could not construct onvifeventsrc.");
    return nullptr;
  }

  set_filter(source, "event-topic", params, "event_topic");
  set_filter(source, "event-content", params, "event_content");
  return source;
}

} // namespace

static void
event_source_factory_init(EventSourceFactory *self)
{
}

static void
event_source_factory_class_init(EventSourceFactoryClass *klass)
{
}

static void
event_source_factory_iface_init(SourceFactoryInterface *iface)
{
  iface->create_source = create_event_source;
}

/**
 * event_source_factory_new:
 *
 * Any thread.
 *
 * Returns: (transfer full): a new factory of event sources
 */
EventSourceFactory *
event_source_factory_new(void)
{
  return EVENT_SOURCE_FACTORY(g_object_new(EVENT_TYPE_SOURCE_FACTORY, nullptr));
}
