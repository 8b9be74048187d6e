/* SPDX-License-Identifier: MIT */
/* Formats the daemon's status as OpenMetrics text. The text is also valid in the older text format of
 * Prometheus, which the textfile collector of node exporters reads: there is no metric of a type that only
 * OpenMetrics has, and no time stamp.
 *
 * A label's value has no control character: it is written as its JSON escape, and a backslash in it as two,
 * so that different names stay different. The format then escapes the result.
 */
#include "statusmetrics.h"
#include "printable.h"

#include <array>

namespace
{

enum class Type { COUNTER, GAUGE };

/* One metric. @unit is the end of its name, or empty. */
struct Metric {
  const gchar *name;
  Type type;
  const gchar *unit;
  const gchar *help;
};

template <typename Entry> struct MetricOf : Metric {
  std::string (*get)(const Entry &entry);
};

std::string
seconds(guint64 us)
{
  g_autofree gchar *text = g_strdup_printf("%" G_GUINT64_FORMAT ".%06u", us / G_USEC_PER_SEC,
                                           static_cast<guint>(us % G_USEC_PER_SEC));

  return text;
}

const std::array<MetricOf<DaemonStatus>, 15> STATUS_METRICS = {{
    {{"tessard_start_time_seconds", Type::GAUGE, "seconds", "When the daemon started, since 1970."},
     [](const DaemonStatus &status) { return std::to_string(status.start_time_s); }},
    {{"tessard_uptime_seconds", Type::GAUGE, "seconds", "The time since the daemon's start."},
     [](const DaemonStatus &status) { return seconds(status.uptime_us); }},
    {{"tessard_clients", Type::GAUGE, "", "The present clients."},
     [](const DaemonStatus &status) { return std::to_string(status.clients.size()); }},
    {{"tessard_clients_limit", Type::GAUGE, "", "The clients that can be there at the same time."},
     [](const DaemonStatus &status) { return std::to_string(status.limits.clients); }},
    {{"tessard_accepted_clients", Type::COUNTER, "", "The clients since the daemon's start."},
     [](const DaemonStatus &status) { return std::to_string(status.clients_total); }},
    {{"tessard_documents", Type::COUNTER, "", "The documents passed to all clients."},
     [](const DaemonStatus &status) { return std::to_string(status.documents_total); }},
    {{"tessard_document_bytes", Type::COUNTER, "bytes", "The bytes of the documents passed to all clients."},
     [](const DaemonStatus &status) { return std::to_string(status.bytes_total); }},
    {{"tessard_messages", Type::COUNTER, "", "The messages of all sources that were passed on."},
     [](const DaemonStatus &status) { return std::to_string(status.messages_total); }},
    {{"tessard_message_bytes", Type::COUNTER, "bytes", "The bytes of the messages that were passed on."},
     [](const DaemonStatus &status) { return std::to_string(status.message_bytes_total); }},
    {{"tessard_dropped_messages", Type::COUNTER, "", "The messages of all sources that were dropped."},
     [](const DaemonStatus &status) { return std::to_string(status.dropped_total); }},
    {{"tessard_held_message_bytes", Type::GAUGE, "bytes", "The bytes of messages that wait in the daemon."},
     [](const DaemonStatus &status) { return std::to_string(status.held_bytes); }},
    {{"tessard_held_message_limit_bytes", Type::GAUGE, "bytes", "The bytes beyond which all producers wait."},
     [](const DaemonStatus &status) { return std::to_string(status.limits.held_bytes); }},
    {{"tessard_client_held_message_limit_bytes", Type::GAUGE, "bytes",
      "The bytes for one client beyond which its producers wait."},
     [](const DaemonStatus &status) { return std::to_string(status.limits.client_held_bytes); }},
    {{"tessard_open_descriptors", Type::GAUGE, "", "The open file descriptors."},
     [](const DaemonStatus &status) { return std::to_string(status.descriptors); }},
    {{"tessard_descriptors_limit", Type::GAUGE, "", "The file descriptors that can be open."},
     [](const DaemonStatus &status) { return std::to_string(status.limits.descriptors); }},
}};

const std::array<MetricOf<DaemonClient>, 6> CLIENT_METRICS = {{
    {{"tessard_client_documents", Type::COUNTER, "", "The documents passed to a client."},
     [](const DaemonClient &client) { return std::to_string(client.documents); }},
    {{"tessard_client_document_bytes", Type::COUNTER, "bytes",
      "The bytes of the documents passed to a client."},
     [](const DaemonClient &client) { return std::to_string(client.bytes); }},
    {{"tessard_client_queued_documents", Type::GAUGE, "", "The documents that wait until a client reads."},
     [](const DaemonClient &client) { return std::to_string(client.queue_items); }},
    {{"tessard_client_queued_bytes", Type::GAUGE, "bytes", "The bytes of the documents that wait."},
     [](const DaemonClient &client) { return std::to_string(client.queue_bytes); }},
    {{"tessard_client_age_seconds", Type::GAUGE, "seconds", "The time since a client's request."},
     [](const DaemonClient &client) { return seconds(client.age_us); }},
    {{"tessard_client_last_document_age_seconds", Type::GAUGE, "seconds",
      "The time since a client's last document, -1 before the first one."},
     [](const DaemonClient &client) {
       return client.last_document_age_us < 0 ? "-1" : seconds(client.last_document_age_us);
     }},
}};

const std::array<MetricOf<DaemonSource>, 4> SOURCE_METRICS = {{
    {{"tessard_source_streams", Type::GAUGE, "", "The open streams of a source, one for each client."},
     [](const DaemonSource &source) { return std::to_string(source.streams); }},
    {{"tessard_source_messages", Type::COUNTER, "", "The messages of a source that were passed on."},
     [](const DaemonSource &source) { return std::to_string(source.messages); }},
    {{"tessard_source_message_bytes", Type::COUNTER, "bytes", "The bytes of the messages of a source."},
     [](const DaemonSource &source) { return std::to_string(source.bytes); }},
    {{"tessard_source_dropped_messages", Type::COUNTER, "", "The messages of a source that were dropped."},
     [](const DaemonSource &source) { return std::to_string(source.dropped); }},
}};

std::string
double_backslashes(const std::string &text)
{
  std::string doubled;

  for (const char c : text) {
    doubled += c == '\\' ? "\\\\" : std::string(1, c);
  }
  return doubled;
}

std::string
make_label(const gchar *name, const std::string &value)
{
  g_autofree gchar *printable = printable_line(double_backslashes(value).c_str());
  std::string label = std::string(name) + "=\"";

  for (const char c : double_backslashes(printable)) {
    label += c == '"' ? "\\\"" : std::string(1, c);
  }
  return label + "\"";
}

std::string
make_labels(const DaemonStatus &)
{
  return "";
}

std::string
make_labels(const DaemonClient &client)
{
  return "{" + make_label("client", std::to_string(client.id)) + "," +
         make_label("pid", std::to_string(client.pid)) + "," + make_label("uid", std::to_string(client.uid)) +
         "}";
}

std::string
make_labels(const DaemonSource &source)
{
  return "{" + make_label("source", source.source) + "}";
}

void
append_head(GString *text, const Metric &metric)
{
  g_string_append_printf(text, "# TYPE %s %s\n", metric.name,
                         metric.type == Type::COUNTER ? "counter" : "gauge");
  if (*metric.unit != '\0') {
    g_string_append_printf(text, "# UNIT %s %s\n", metric.name, metric.unit);
  }
  g_string_append_printf(text, "# HELP %s %s\n", metric.name, metric.help);
}

template <typename Metrics, typename Entries>
void
append_metrics(GString *text, const Metrics &metrics, const Entries &entries)
{
  for (const auto &metric : metrics) {
    append_head(text, metric);
    for (const auto &entry : entries) {
      g_string_append_printf(text, "%s%s%s %s\n", metric.name, metric.type == Type::COUNTER ? "_total" : "",
                             make_labels(entry).c_str(), metric.get(entry).c_str());
    }
  }
}

} // namespace

/**
 * status_metrics_format:
 * @status: the status
 *
 * Returns: (transfer full): OpenMetrics text
 */
gchar *
status_metrics_format(const DaemonStatus &status)
{
  g_autoptr(GString) text = g_string_new(nullptr);
  const std::array all = {status};

  append_head(text, {"tessard_build", Type::GAUGE, "", "The daemon's version, as a label."});
  g_string_append_printf(text, "tessard_build{%s} 1\n", make_label("version", status.version).c_str());
  append_metrics(text, STATUS_METRICS, all);
  append_metrics(text, CLIENT_METRICS, status.clients);
  append_metrics(text, SOURCE_METRICS, status.sources);
  g_string_append(text, "# EOF\n");
  return g_string_free(g_steal_pointer(&text), FALSE);
}
