/* SPDX-License-Identifier: MIT */
/* Formats the daemon's status for people: some lines of sums, a table of the clients and one of the external
 * producers. No text of a client or of the bus brings a control character into it.
 */
#include "statustable.h"
#include "texttable.h"

#include <algorithm>
#include <array>
#include <pwd.h>

namespace
{

constexpr gchar NOTHING[] = "-";

/* The words for a value of a request. Without a value, the words are a format for any value. */
struct Words {
  const gchar *key;
  const gchar *value;
  const gchar *words;
};

/* In the order of the words. No words for values without an effect. */
constexpr std::array REQUEST_WORDS = {
    Words{"event", "0", ""},
    Words{"event", "1", "events"},
    Words{"event_topic", nullptr, "topics '%s'"},
    Words{"event_content", nullptr, "contents '%s'"},
    Words{"analytics", "0", ""},
    Words{"analytics", "1", "objects with boxes"},
    Words{"analytics", "2", "objects with boxes and polygons"},
    Words{"ptz", "0", ""},
    Words{"ptz", "1", "PTZ status and position"},
    Words{"ptz", "2", "PTZ position"},
    Words{"ptz", "3", "PTZ status"},
    Words{"ptz_pantilt_coordinate_space", nullptr, "pan and tilt space %s"},
    Words{"ptz_zoom_coordinate_space", nullptr, "zoom space %s"},
    Words{"video_channel", nullptr, "channel %s"},
};

/* The row after the one that matches is for the same key only if the value is another one. */
std::string
describe_request(const DaemonClient &client)
{
  std::string text;

  for (const Words &words : REQUEST_WORDS) {
    const auto found = client.request.find(words.key);
    if (found == client.request.end() || *words.words == '\0' ||
        (words.value != nullptr && found->second != words.value)) {
      continue;
    }
    const std::string value = text_table_make_cell(found->second);
    const std::string format = words.words;
    const gsize place = format.find("%s");
    text += text.empty() ? "" : ", ";
    text += place == std::string::npos ? format : format.substr(0, place) + value + format.substr(place + 2);
  }
  return client.is_streaming ? text : text + " (not ready)";
}

std::string
format_size(guint64 bytes)
{
  g_autofree gchar *text = g_format_size_full(bytes, G_FORMAT_SIZE_IEC_UNITS);

  return text;
}

/* In the two largest units. */
std::string
format_time(guint64 us)
{
  const guint64 s = us / G_USEC_PER_SEC;
  const auto join = [](guint64 first, const char *first_unit, guint64 second, const char *second_unit) {
    return std::to_string(first) + first_unit + std::to_string(second) + second_unit;
  };

  if (s < 60) {
    return std::to_string(s) + " s";
  }
  if (s < 60 * 60) {
    return join(s / 60, " min ", s % 60, " s");
  }
  if (s < 24 * 60 * 60) {
    return join(s / 3600, " h ", s / 60 % 60, " min");
  }
  return join(s / 86400, " d ", s / 3600 % 24, " h");
}

/* With tenths of seconds, because documents follow each other fast. */
std::string
format_short_time(gint64 us)
{
  if (us < 0) {
    return NOTHING;
  }
  if (us >= 60 * G_USEC_PER_SEC) {
    return format_time(us);
  }
  const gint64 tenths = us / (G_USEC_PER_SEC / 10);
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " s";
}

/* The difference of two counts in a second; 0 if the daemon was started between them. */
gdouble
get_rate(guint64 earlier, guint64 count, guint64 us)
{
  return us > 0 && count >= earlier
             ? static_cast<gdouble>(count - earlier) * G_USEC_PER_SEC / static_cast<gdouble>(us)
             : 0;
}

std::string
format_rate(guint64 earlier, guint64 count, guint64 us)
{
  g_autofree gchar *text = g_strdup_printf("%.1f/s", get_rate(earlier, count, us));

  return text;
}

std::string
format_size_rate(guint64 earlier, guint64 count, guint64 us)
{
  g_autofree gchar *text = g_strdup_printf("%.1f KiB/s", get_rate(earlier, count, us) / 1024);

  return text;
}

/* The name, or the number of a user without one. */
std::string
format_user(uid_t uid)
{
  const struct passwd *user = getpwuid(uid);

  return user != nullptr ? text_table_make_cell(user->pw_name) : std::to_string(uid);
}

/* The number of microseconds between two readings; 0 if the daemon was started between them. */
guint64
get_interval(const DaemonStatus &earlier, const DaemonStatus &status)
{
  const gboolean is_same =
      status.uptime_us >= earlier.uptime_us && status.start_time_s == earlier.start_time_s;

  return is_same ? status.uptime_us - earlier.uptime_us : 0;
}

gchar *
format_clients(const DaemonStatus &earlier, const DaemonStatus &status)
{
  const guint64 us = get_interval(earlier, status);
  std::vector<TextTableRow> rows = {
      {"CLIENT", "PID", "USER", "DOCUMENTS", "RATE", "BYTES", "RATE", "QUEUED", "AGE", "LAST", "REQUEST"}};

  for (const DaemonClient &client : status.clients) {
    const auto found =
        std::find_if(earlier.clients.begin(), earlier.clients.end(),
                     [&client](const DaemonClient &candidate) { return candidate.id == client.id; });
    const DaemonClient before = found != earlier.clients.end() ? *found : DaemonClient();
    rows.push_back({std::to_string(client.id), std::to_string(client.pid), format_user(client.uid),
                    std::to_string(client.documents), format_rate(before.documents, client.documents, us),
                    format_size(client.bytes), format_size_rate(before.bytes, client.bytes, us),
                    std::to_string(client.queue_items) + ", " + format_size(client.queue_bytes),
                    format_time(client.age_us), format_short_time(client.last_document_age_us),
                    describe_request(client)});
  }
  return text_table_format(rows, "rrlrrrrrrrl");
}

gchar *
format_sources(const DaemonStatus &earlier, const DaemonStatus &status)
{
  const guint64 us = get_interval(earlier, status);
  std::vector<TextTableRow> rows = {{"STREAMS", "MESSAGES", "RATE", "BYTES", "RATE", "DROPPED", "SOURCE"}};

  for (const DaemonSource &source : status.sources) {
    const auto found =
        std::find_if(earlier.sources.begin(), earlier.sources.end(),
                     [&source](const DaemonSource &candidate) { return candidate.source == source.source; });
    const DaemonSource before = found != earlier.sources.end() ? *found : DaemonSource();
    rows.push_back({std::to_string(source.streams), std::to_string(source.messages),
                    format_rate(before.messages, source.messages, us), format_size(source.bytes),
                    format_size_rate(before.bytes, source.bytes, us), std::to_string(source.dropped),
                    text_table_make_cell(source.source)});
  }
  return text_table_format(rows, "rrrrrrl");
}

void
append_sums(GString *text, const DaemonStatus &status)
{
  g_string_append_printf(text, "tessard %s, up %s\n", text_table_make_cell(status.version).c_str(),
                         format_time(status.uptime_us).c_str());
  g_string_append_printf(text, "Clients: %" G_GSIZE_FORMAT " of %u, %" G_GUINT64_FORMAT " since the start\n",
                         status.clients.size(), status.limits.clients, status.clients_total);
  g_string_append_printf(text, "Documents: %" G_GUINT64_FORMAT ", %s\n", status.documents_total,
                         format_size(status.bytes_total).c_str());
  g_string_append_printf(
      text,
      "Messages of producers: %" G_GUINT64_FORMAT ", %s; %" G_GUINT64_FORMAT " dropped; %s of %s wait\n",
      status.messages_total, format_size(status.message_bytes_total).c_str(), status.dropped_total,
      format_size(status.held_bytes).c_str(), format_size(status.limits.held_bytes).c_str());
  g_string_append_printf(text, "Descriptors: %u of %u\n", status.descriptors, status.limits.descriptors);
}

} // namespace

/**
 * status_table_format:
 * @earlier: a reading of the status
 * @status: a later one
 *
 * Returns: (transfer full): the later status, with the rates between the two
 */
gchar *
status_table_format(const DaemonStatus &earlier, const DaemonStatus &status)
{
  g_autoptr(GString) text = g_string_new(nullptr);

  append_sums(text, status);
  if (!status.clients.empty()) {
    g_autofree gchar *clients = format_clients(earlier, status);
    g_string_append_printf(text, "\n%s", clients);
  }
  if (!status.sources.empty()) {
    g_autofree gchar *sources = format_sources(earlier, status);
    g_string_append_printf(text, "\n%s", sources);
  }
  return g_string_free(g_steal_pointer(&text), FALSE);
}
