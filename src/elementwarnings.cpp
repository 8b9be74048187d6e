/* SPDX-License-Identifier: MIT */
/* Logs warnings of the elements in clients' pipelines, for example of a converter about a malformed frame.
 * The stream continues after a warning, so each frame of each client can cause one.
 *
 * The rate is limited for each kind of warning. A kind is the element's factory with the domain and code of
 * the warning, so the elements of all clients share a line. A kind whose interval is over is replaced by a
 * new one.
 */
#include "elementwarnings.h"

#include "logtext.h"
#include "ratelimitedlog.h"

#include <array>
#include <cstring>
#include <syslog.h>

namespace
{

struct Kind {
  const gchar *source; /* interned, NULL at first */
  GQuark domain;
  gint code;
  RateLimitedLog log = RATE_LIMITED_LOG_INIT(ELEMENT_WARNINGS_INTERVAL_US);
};

std::array<Kind, ELEMENT_WARNINGS_MAX_KINDS> kinds;

RateLimitedLog other_kinds = RATE_LIMITED_LOG_INIT(ELEMENT_WARNINGS_INTERVAL_US);

/* Returns the element's factory, because its name differs between clients. */
const gchar *
get_source(GstMessage *message)
{
  GstObject *source = GST_MESSAGE_SRC(message);

  if (source == nullptr) {
    return "the pipeline";
  }
  GstElementFactory *factory =
      GST_IS_ELEMENT(source) ? gst_element_get_factory(GST_ELEMENT(source)) : nullptr;
  return g_intern_string(factory != nullptr ? GST_OBJECT_NAME(factory) : G_OBJECT_TYPE_NAME(source));
}

RateLimitedLog *
find_log(const gchar *source, const GError *warning)
{
  Kind *idle = nullptr;

  for (Kind &kind : kinds) {
    if (g_strcmp0(kind.source, source) == 0 && kind.domain == warning->domain && kind.code == warning->code) {
      return &kind.log;
    }
    if (idle == nullptr && rate_limited_log_is_idle(&kind.log)) {
      idle = &kind;
    }
  }
  if (idle == nullptr) {
    return &other_kinds;
  }
  idle->source = source;
  idle->domain = warning->domain;
  idle->code = warning->code;
  return &idle->log;
}

/* The debug text is the position in the element's code, a line feed, and the element's details. */
gchar *
make_text(const GError *warning, const gchar *debug)
{
  const gchar *line_feed = debug != nullptr ? strchr(debug, '\n') : nullptr;
  g_autofree gchar *text = line_feed != nullptr ? g_strdup_printf("%s (%s)", warning->message, line_feed + 1)
                                                : g_strdup(warning->message);

  return log_text_clip(text);
}

} // namespace

/**
 * element_warnings_log:
 * @message: (transfer none): a warning on the bus of a client's pipeline
 *
 * Logs a warning of an element, at most one of its kind in %ELEMENT_WARNINGS_INTERVAL_US, with the count of
 * the others. Main thread.
 *
 * Warnings: "Warning from %s in metadata connection manager pipeline: %s"
 */
void
element_warnings_log(GstMessage *message)
{
  g_autoptr(GError) warning = nullptr;
  g_autofree gchar *debug = nullptr;

  gst_message_parse_warning(message, &warning, &debug);
  const gchar *source = get_source(message);
  g_autofree gchar *text = make_text(warning, debug);
  rate_limited_log(find_log(source, warning), LOG_WARNING,
                   "Warning from %s in metadata connection manager pipeline: %s", source, text);
}
