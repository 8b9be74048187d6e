/* SPDX-License-Identifier: MIT */
/* The interface between the server and the kinds of metadata that the daemon produces. The server does not
 * depend on kinds, and a factory does not depend on clients. A factory declines with NULL and no error, and
 * fails with NULL and an error.
 */
#include "sourcefactory.h"

#include "logtext.h"

#include <syslog.h>

G_DEFINE_INTERFACE(SourceFactory, source_factory, G_TYPE_OBJECT)

static void
source_factory_default_init(SourceFactoryInterface *iface)
{
}

/**
 * source_factory_error_quark:
 *
 * The domain of the errors of factories. All have code 0 and differ in their messages.
 *
 * Returns: the quark of "source_factory_error"
 */
GQuark
source_factory_error_quark(void)
{
  return g_quark_from_static_string("source_factory_error");
}

/**
 * source_factory_create_source:
 * @self: (transfer none): a factory
 * @params: (transfer none) (element-type utf8 utf8): the request's parameters
 * @error: (out) (optional): where to put the failure
 *
 * Requests a source from one factory. Does not check its arguments.
 *
 * The calling thread's current #GCancellable is cancelled when the source is not needed. A factory that waits
 * then ends its wait and fails the request.
 *
 * Returns: (transfer full) (nullable): a new element, usually floating, with one source pad to link; %NULL
 *   without an error when the factory declines; %NULL with an error when the request fails
 */
GstElement *
source_factory_create_source(SourceFactory *self, GHashTable *params, GError **error)
{
  return SOURCE_FACTORY_GET_IFACE(self)->create_source(self, params, error);
}

/**
 * source_factory_lookup_param:
 * @params: (transfer none) (element-type utf8 utf8): the request's parameters
 * @key: the key of one of them
 *
 * Returns: (transfer none) (nullable): the parameter's text, which lives as long as @params; %NULL if the
 *   request does not have it
 */
const gchar *
source_factory_lookup_param(GHashTable *params, const gchar *key)
{
  return static_cast<const gchar *>(g_hash_table_lookup(params, key));
}

/**
 * source_factory_add_ghost_pad:
 * @bin: (transfer none): the bin that a factory builds
 * @last: (transfer none): the element in it whose pad "src" is the bin's output
 *
 * Adds the pad that a source must have, "src". If @last, an element of the platform, has no such pad, this
 * function fails without a warning of GStreamer.
 *
 * Returns: whether the pad was added
 */
gboolean
source_factory_add_ghost_pad(GstElement *bin, GstElement *last)
{
  g_autoptr(GstPad) target = gst_element_get_static_pad(last, "src");
  if (target == nullptr) {
    return FALSE;
  }

  GstPad *pad = gst_ghost_pad_new("src", target);
  return pad != nullptr && gst_element_add_pad(bin, pad);
}

/**
 * source_factory_fail:
 * @error: (out) (optional): where to put the failure, unset
 * @domain: the error's domain
 * @format: a printf format of the message, followed by its arguments
 *
 * Refuses a request: sets an error with code 0 in @domain and logs the same text at warning priority. A text
 * of the client must be passed to source_factory_refuse_value() instead.
 */
void
source_factory_fail(GError **error, GQuark domain, const gchar *format, ...)
{
  va_list args;
  va_start(args, format);
  g_autofree gchar *message = g_strdup_vprintf(format, args);
  va_end(args);

  syslog(LOG_WARNING, "%s", message);
  g_set_error_literal(error, domain, 0, message);
}

/**
 * source_factory_refuse_value:
 * @error: (out) (optional): where to put the failure, unset
 * @domain: the error's domain
 * @problem: what is wrong with @value
 * @value: the client's text, any bytes
 *
 * Refuses a request because of one of its texts: sets an error with code 0 in @domain and the message
 * "@problem: '@value'.", and logs the same at warning priority. The error has the whole @value; the log has
 * the result of log_text_clip().
 */
void
source_factory_refuse_value(GError **error, GQuark domain, const gchar *problem, const gchar *value)
{
  g_autofree gchar *logged = log_text_clip(value);

  syslog(LOG_WARNING, "%s: '%s'.", problem, logged);
  g_set_error(error, domain, 0, "%s: '%s'.", problem, value);
}
