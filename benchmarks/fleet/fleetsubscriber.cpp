/* SPDX-License-Identifier: MIT */
/* One subscriber of a fleet, which measures the delay of the messages that fleet-publishers sends: from the
 * time in a message to its arrival in this process. Messages with a time before the beginning or after the
 * end do not count.
 *
 * benchmarks/fleet-load starts this program. */
#include "fleetoptions.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <glib.h>
#include <mosquitto.h>
#include <string>
#include <string_view>
#include <vector>

namespace
{

constexpr int KEEP_ALIVE_SECONDS = 60;
constexpr int LOOP_MS = 100;

/* The bytes of a payload in which its time begins. */
constexpr gsize TIME_WITHIN = 64;

struct Subscription {
  std::string topic;
  int qos = 1;
  gint64 begin_us = 0;
  gint64 end_us = 0;
  guint64 bytes = 0;
  std::vector<gint64> frame_delays;
  std::vector<gint64> event_delays;
};

/* The time in a payload, in microseconds since 1970; 0 if there is none. */
gint64
find_time(std::string_view payload)
{
  static constexpr std::string_view MEMBER = "UtcTime\":\"";
  gsize at = payload.substr(0, TIME_WITHIN).find(MEMBER);
  if (at == std::string_view::npos) {
    return 0;
  }
  std::string text(payload.substr(at + MEMBER.size(), sizeof("2000-01-01T00:00:00.000000Z") - 1));
  g_autoptr(GDateTime) time = g_date_time_new_from_iso8601(text.c_str(), nullptr);
  return time == nullptr ? 0 : g_date_time_to_unix(time) * G_USEC_PER_SEC + g_date_time_get_microsecond(time);
}

void
on_connect(mosquitto *client, void *user_data, int /*status*/)
{
  auto *subscription = static_cast<Subscription *>(user_data);
  mosquitto_subscribe(client, nullptr, subscription->topic.c_str(), subscription->qos);
}

void
on_message(mosquitto * /*client*/, void *user_data, const mosquitto_message *message)
{
  auto *subscription = static_cast<Subscription *>(user_data);
  gint64 now = g_get_real_time();
  std::string_view payload(static_cast<const char *>(message->payload),
                           static_cast<gsize>(message->payloadlen));
  gint64 time = find_time(payload);
  if (message->retain || time < subscription->begin_us || time >= subscription->end_us) {
    return;
  }
  subscription->bytes += payload.size();
  bool is_frame = std::string_view(message->topic).find("/onvif-mj/") != std::string_view::npos;
  (is_frame ? subscription->frame_delays : subscription->event_delays).push_back(now - time);
}

void
print_delays(const char *name, std::vector<gint64> delays)
{
  std::sort(delays.begin(), delays.end());
  auto quantile = [&](double share) {
    auto last = static_cast<double>(delays.size() - 1);
    return delays.empty() ? 0 : delays[static_cast<gsize>(std::lround(share * last))];
  };
  printf(", \"%s\": {\"count\": %zu, \"median_us\": %" G_GINT64_FORMAT ", \"p99_us\": %" G_GINT64_FORMAT
         ", \"max_us\": %" G_GINT64_FORMAT "}",
         name, delays.size(), quantile(0.5), quantile(0.99), quantile(1));
}

void
print(const Subscription &subscription)
{
  printf("{\"bytes\": %" G_GUINT64_FORMAT, subscription.bytes);
  print_delays("frames", subscription.frame_delays);
  print_delays("events", subscription.event_delays);
  puts("}");
}

struct Options {
  int port = 1883;
  int qos = 1;
  int seconds = 10;
  int grace = 5;
  gint64 begin_us = 0;
};

Options
read_options(int *argc, char ***argv)
{
  Options options;
  const GOptionEntry entries[] = {
      {"port", 0, 0, G_OPTION_ARG_INT, &options.port, "Port of the broker", "N"},
      {"qos", 0, 0, G_OPTION_ARG_INT, &options.qos, "Quality of service", "0|1"},
      {"begin", 0, 0, G_OPTION_ARG_INT64, &options.begin_us, "Beginning, in microseconds since 1970", "TIME"},
      {"seconds", 0, 0, G_OPTION_ARG_INT, &options.seconds, "Duration", "N"},
      {"grace", 0, 0, G_OPTION_ARG_INT, &options.grace, "Seconds to wait for late messages", "N"},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr}};
  parse_options(argc, argv, entries, "TOPIC");
  return options;
}

} // namespace

int
main(int argc, char **argv)
{
  Options options = read_options(&argc, &argv);
  Subscription subscription;
  subscription.topic = argv[1];
  subscription.qos = options.qos;
  subscription.begin_us = options.begin_us;
  subscription.end_us = options.begin_us + options.seconds * G_USEC_PER_SEC;

  mosquitto_lib_init();
  mosquitto *client = mosquitto_new(nullptr, true, &subscription);
  mosquitto_connect_callback_set(client, on_connect);
  mosquitto_message_callback_set(client, on_message);
  require(mosquitto_connect(client, "127.0.0.1", options.port, KEEP_ALIVE_SECONDS), "connect");
  while (g_get_real_time() < subscription.end_us + options.grace * G_USEC_PER_SEC) {
    require(mosquitto_loop(client, LOOP_MS, 1), "loop");
  }
  print(subscription);
  mosquitto_destroy(client);
  mosquitto_lib_cleanup();
  return 0;
}
