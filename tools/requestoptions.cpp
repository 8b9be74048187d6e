/* SPDX-License-Identifier: MIT */
/* The options that say what to ask the daemon for.
 *
 * The daemon validates the values. All texts are raw bytes, not in the locale's encoding, because the daemon
 * gets exactly the bytes of the command line.
 */
#include "requestoptions.h"

#include <array>
#include <cstring>

namespace
{

constexpr gchar PARAGRAPH_SEPARATOR[] = "\xe2\x80\xa9";

enum class ValueKind {
  TEXT,  /* sent escaped, so any bytes are valid */
  PLAIN, /* sent unchanged */
};

struct RequestKey {
  const gchar *key;
  const gchar *option;
  gchar *RequestOptions::*value;
  ValueKind kind;
};

constexpr std::array REQUEST_KEYS = {
    RequestKey{"event_topic", "--event-topic", &RequestOptions::event_topic, ValueKind::TEXT},
    RequestKey{"event_content", "--event-content", &RequestOptions::event_content, ValueKind::TEXT},
    RequestKey{"analytics", "--analytics", &RequestOptions::analytics, ValueKind::PLAIN},
    RequestKey{"video_channel", "--channel", &RequestOptions::channel, ValueKind::PLAIN},
    RequestKey{"ptz", "--ptz", &RequestOptions::ptz, ValueKind::PLAIN},
    RequestKey{"ptz_pantilt_coordinate_space", "--pantilt-space", &RequestOptions::pantilt_space,
               ValueKind::PLAIN},
    RequestKey{"ptz_zoom_coordinate_space", "--zoom-space", &RequestOptions::zoom_space, ValueKind::PLAIN},
};

/* For the daemon, a carriage return and a paragraph separator end a line too. */
gboolean
check_one_line(const gchar *option, const gchar *value, GError **error)
{
  const gchar *fault = nullptr;
  if (*value == '\0') {
    fault = "is empty";
  } else if (strpbrk(value, "\r\n") != nullptr || strstr(value, PARAGRAPH_SEPARATOR) != nullptr) {
    fault = "has more than one line";
  }
  if (fault == nullptr) {
    return TRUE;
  }
  g_set_error(error, G_OPTION_ERROR, G_OPTION_ERROR_BAD_VALUE, "The value of %s %s.", option, fault);
  return FALSE;
}

} // namespace

RequestOptions::~RequestOptions()
{
  g_free(event_topic);
  g_free(event_content);
  g_free(analytics);
  g_free(ptz);
  g_free(pantilt_space);
  g_free(zoom_space);
  g_free(channel);
}

/**
 * request_options_add:
 * @options: (transfer none): as constructed; filled in when @context parses a command line
 * @context: (transfer none): the program's options
 *
 * Adds the options to the main group.
 */
void
request_options_add(RequestOptions *options, GOptionContext *context)
{
  const GOptionEntry entries[] = {
      {"event", 0, 0, G_OPTION_ARG_NONE, &options->event, "Ask for events", nullptr},
      {"event-topic", 0, 0, G_OPTION_ARG_FILENAME, &options->event_topic,
       "Ask for events that match a topic expression", "TEXT"},
      {"event-content", 0, 0, G_OPTION_ARG_FILENAME, &options->event_content,
       "Ask for events that match a message content filter", "TEXT"},
      {"analytics", 0, 0, G_OPTION_ARG_FILENAME, &options->analytics,
       "Ask for detected objects: 1 with bounding boxes, 2 with polygons too", "N"},
      {"ptz", 0, 0, G_OPTION_ARG_FILENAME, &options->ptz,
       "Ask for pan, tilt and zoom: 1 status and position, 2 position, 3 status", "N"},
      {"pantilt-space", 0, 0, G_OPTION_ARG_FILENAME, &options->pantilt_space,
       "Coordinate space of pan and tilt, 0 to 2", "N"},
      {"zoom-space", 0, 0, G_OPTION_ARG_FILENAME, &options->zoom_space, "Coordinate space of zoom, 0 to 2",
       "N"},
      {},
  };

  g_option_context_add_main_entries(context, entries, nullptr);
}

/**
 * request_options_has_kind:
 * @options: (transfer none): parsed options
 *
 * Returns: whether they ask for a kind of metadata
 */
gboolean
request_options_has_kind(const RequestOptions *options)
{
  return options->event || options->event_topic != nullptr || options->event_content != nullptr ||
         options->analytics != nullptr || options->ptz != nullptr;
}

/**
 * request_options_check:
 * @options: (transfer none): parsed options
 * @error: return location for an error of %G_OPTION_ERROR, whose message is for the user
 *
 * Returns: %FALSE when a value does not fit a line of a request
 */
gboolean
request_options_check(const RequestOptions *options, GError **error)
{
  for (const RequestKey &key : REQUEST_KEYS) {
    const gchar *value = options->*key.value;
    if (key.kind == ValueKind::PLAIN && value != nullptr && !check_one_line(key.option, value, error)) {
      return FALSE;
    }
  }
  return TRUE;
}

/**
 * request_options_foreach:
 * @options: (transfer none): parsed options
 * @function: (scope call): called for each key, in their order in a request
 * @user_data: for @function
 *
 * A filter of events requests events as well.
 */
void
request_options_foreach(const RequestOptions *options, RequestOptionsFunc function, gpointer user_data)
{
  if (options->event || options->event_topic != nullptr || options->event_content != nullptr) {
    function("event", "1", FALSE, user_data);
  }
  for (const RequestKey &key : REQUEST_KEYS) {
    const gchar *value = options->*key.value;
    if (value != nullptr) {
      function(key.key, value, key.kind == ValueKind::TEXT, user_data);
    }
  }
}
