/* SPDX-License-Identifier: MIT */
/* Many cameras in one process, as publishers to an MQTT broker. Each camera has a connection of its own, and
 * sends the recorded messages of one tessard-mqtt again and again, with its own prefix and the present time.
 * The cameras do not send at the same moment.
 *
 * Each message has the time at which it is due, so that what this process or the broker delays counts as
 * delay.
 *
 * The recording has a line for each message: "state", "change", "event" or "frame", the topic without its
 * prefix, and the payload, with tabs between them. States and changes are retained; states are sent once, at
 * the begin.
 *
 * benchmarks/fleet-load starts this program. */
#include "fleetoptions.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <glib.h>
#include <mosquitto.h>
#include <queue>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <vector>

namespace
{

constexpr int KEEP_ALIVE_SECONDS = 60;
constexpr gint64 CONNECT_US = 60 * G_USEC_PER_SEC;
constexpr gint64 MAINTAIN_US = G_USEC_PER_SEC;
constexpr gint64 DRAIN_US = 5 * G_USEC_PER_SEC;

/* The bytes of a payload in which its time begins. */
constexpr gsize TIME_WITHIN = 64;

struct Options {
  int port = 1883;
  int cameras = 1000;
  int first = 1;
  double frames = 1;
  double events = 0.2;
  int qos = 1;
  int seconds = 10;
};

/* A recorded message; its payload is what stands before and after its time. */
struct Recorded {
  std::string topic;
  std::string before;
  std::string after;
  bool has_time;
  bool is_retained;
};

struct Recording {
  std::vector<Recorded> states;
  std::vector<Recorded> events;
  std::vector<Recorded> frames;
};

class Fleet;

struct Camera {
  Fleet *fleet = nullptr;
  mosquitto *client = nullptr;
  std::string prefix;
  gsize next_event = 0;
  gsize next_frame = 0;
  bool wants_write = false;
};

/* A message that is due at a time. */
struct Due {
  gint64 time;
  gsize camera;
  bool is_frame;

  bool operator>(const Due &other) const
  {
    return time > other.time;
  }
};

Recorded
split_payload(const std::string &topic, const std::string &payload, bool is_retained)
{
  static constexpr std::string_view MEMBER = "UtcTime\":\"";
  gsize at = payload.find(MEMBER);
  if (at > TIME_WITHIN) { /* nor at all */
    return {topic, payload, "", false, is_retained};
  }
  gsize begin = at + MEMBER.size();
  return {topic, payload.substr(0, begin), payload.substr(payload.find('"', begin)), true, is_retained};
}

Recording
read_recording(const char *path)
{
  Recording recording;
  std::ifstream file(path);
  std::string line;
  while (std::getline(file, line)) {
    gsize first = line.find('\t');
    gsize second = line.find('\t', first + 1);
    std::string kind = line.substr(0, first);
    auto &messages = kind == "state"   ? recording.states
                     : kind == "frame" ? recording.frames
                                       : recording.events;
    messages.push_back(split_payload(line.substr(first + 1, second - first - 1), line.substr(second + 1),
                                     kind == "state" || kind == "change"));
  }
  if (recording.events.empty() || recording.frames.empty()) {
    fail(path, "has no events or no frames");
  }
  return recording;
}

std::string
format_time(gint64 time_us)
{
  g_autoptr(GDateTime) time = g_date_time_new_from_unix_utc(time_us / G_USEC_PER_SEC);
  g_autofree char *seconds = g_date_time_format(time, "%Y-%m-%dT%H:%M:%S");
  std::array<char, 16> fraction = {};
  g_snprintf(fraction.data(), fraction.size(), ".%06dZ", static_cast<int>(time_us % G_USEC_PER_SEC));
  return std::string(seconds) + fraction.data();
}

/* The cameras and their messages. */
class Fleet
{
public:
  Fleet(const Options &options, const Recording &recording)
      : options_(options), recording_(recording), epoll_(epoll_create1(EPOLL_CLOEXEC)),
        cameras_(static_cast<gsize>(options.cameras))
  {
  }

  void connect()
  {
    for (gsize i = 0; i < cameras_.size(); i++) {
      connect(i);
    }
    gint64 deadline = g_get_real_time() + CONNECT_US;
    while (connected_ < cameras_.size() || acknowledged_ < published_) {
      if (g_get_real_time() > deadline) {
        fail("connect", "not all cameras are connected in time");
      }
      handle_sockets(MAINTAIN_US);
    }
  }

  void run(gint64 begin_us)
  {
    gint64 end = begin_us + options_.seconds * G_USEC_PER_SEC;
    gint64 maintained = g_get_real_time();
    plan(begin_us);
    while (due_.top().time < end) {
      gint64 now = g_get_real_time();
      while (due_.top().time <= now && due_.top().time < end) {
        send_next();
      }
      if (now - maintained > MAINTAIN_US) {
        maintain();
        maintained = now;
      }
      handle_sockets(CLAMP(due_.top().time - g_get_real_time(), 0, MAINTAIN_US));
    }
  }

  /* Sends what waits in this process, for at most this time. */
  void drain(gint64 time_us)
  {
    gint64 deadline = g_get_real_time() + time_us;
    while (g_get_real_time() < deadline && acknowledged_ < published_) {
      handle_sockets(MAINTAIN_US);
    }
  }

  void print() const
  {
    printf("{\"frames\": %" G_GUINT64_FORMAT ", \"events\": %" G_GUINT64_FORMAT
           ", \"bytes\": %" G_GUINT64_FORMAT ", \"waiting\": %" G_GUINT64_FORMAT
           ", \"latest_us\": %" G_GINT64_FORMAT "}\n",
           frames_, events_, bytes_, published_ - acknowledged_, latest_us_);
  }

private:
  void connect(gsize index)
  {
    Camera &camera = cameras_[index];
    std::array<char, 16> name = {};
    g_snprintf(name.data(), name.size(), "camera%05d", options_.first + static_cast<int>(index));
    camera.prefix = std::string(name.data()) + "/";
    camera.fleet = this;
    camera.client = mosquitto_new(name.data(), true, &camera);
    mosquitto_connect_callback_set(camera.client, on_connect);
    mosquitto_publish_callback_set(camera.client, on_publish);
    require(mosquitto_max_inflight_messages_set(camera.client, 0), "mosquitto_max_inflight_messages_set");
    require(mosquitto_connect(camera.client, "127.0.0.1", options_.port, KEEP_ALIVE_SECONDS), "connect");
    epoll_event event = {EPOLLIN, {.u64 = index}};
    epoll_ctl(epoll_, EPOLL_CTL_ADD, mosquitto_socket(camera.client), &event);
    watch_writing(index);
  }

  static void on_connect(mosquitto * /*client*/, void *user_data, int status)
  {
    auto *camera = static_cast<Camera *>(user_data);
    if (status != 0) {
      fail("connect", mosquitto_connack_string(status));
    }
    camera->fleet->connected_++;
    camera->fleet->send_states(*camera);
  }

  static void on_publish(mosquitto * /*client*/, void *user_data, int /*id*/)
  {
    static_cast<Camera *>(user_data)->fleet->acknowledged_++;
  }

  void send_states(const Camera &camera)
  {
    for (const Recorded &state : recording_.states) {
      publish(camera, state, g_get_real_time());
    }
  }

  /* The first messages, over the first interval. */
  void plan(gint64 begin_us)
  {
    auto plan_one = [&](gsize index, double rate, bool is_frame) {
      if (rate > 0) {
        double share = static_cast<double>(index) / static_cast<double>(cameras_.size());
        auto phase = static_cast<gint64>(share * G_USEC_PER_SEC / rate);
        due_.push({begin_us + phase, index, is_frame});
      }
    };
    for (gsize i = 0; i < cameras_.size(); i++) {
      plan_one(i, options_.frames, true);
      plan_one(i, options_.events, false);
      cameras_[i].next_frame = i % recording_.frames.size();
      cameras_[i].next_event = i % recording_.events.size();
    }
  }

  void send_next()
  {
    Due due = due_.top();
    due_.pop();
    Camera &camera = cameras_[due.camera];
    const auto &messages = due.is_frame ? recording_.frames : recording_.events;
    gsize &next = due.is_frame ? camera.next_frame : camera.next_event;
    publish(camera, messages[next], due.time);
    next = (next + 1) % messages.size();
    (due.is_frame ? frames_ : events_)++;
    latest_us_ = std::max(latest_us_, g_get_real_time() - due.time);
    watch_writing(due.camera);
    double rate = due.is_frame ? options_.frames : options_.events;
    due.time += static_cast<gint64>(G_USEC_PER_SEC / rate);
    due_.push(due);
  }

  void publish(const Camera &camera, const Recorded &message, gint64 time_us)
  {
    std::string topic = camera.prefix + message.topic;
    std::string payload = message.before;
    if (message.has_time) {
      payload += format_time(time_us) + message.after;
    }
    require(mosquitto_publish(camera.client, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                              payload.data(), options_.qos, message.is_retained),
            "publish");
    published_++;
    bytes_ += payload.size();
  }

  /* Asks for the moment at which the socket takes data, only while data waits. */
  void watch_writing(gsize index)
  {
    Camera &camera = cameras_[index];
    bool wants = mosquitto_want_write(camera.client);
    if (wants == camera.wants_write) {
      return;
    }
    camera.wants_write = wants;
    epoll_event event = {wants ? EPOLLIN | EPOLLOUT : EPOLLIN, {.u64 = index}};
    epoll_ctl(epoll_, EPOLL_CTL_MOD, mosquitto_socket(camera.client), &event);
  }

  /* Waits for the sockets at most this time. */
  void handle_sockets(gint64 timeout_us)
  {
    const timespec timeout = {timeout_us / G_USEC_PER_SEC, timeout_us % G_USEC_PER_SEC * 1000};
    std::array<epoll_event, 256> events;
    int count = epoll_pwait2(epoll_, events.data(), events.size(), &timeout, nullptr);
    for (int i = 0; i < count; i++) {
      const epoll_event &event = events.at(static_cast<gsize>(i));
      gsize index = event.data.u64;
      if ((event.events & EPOLLOUT) != 0) {
        require(mosquitto_loop_write(cameras_[index].client, 1), "write");
      }
      if ((event.events & ~static_cast<guint32>(EPOLLOUT)) != 0) {
        require(mosquitto_loop_read(cameras_[index].client, 1), "read");
      }
      watch_writing(index);
    }
  }

  void maintain()
  {
    for (gsize i = 0; i < cameras_.size(); i++) {
      require(mosquitto_loop_misc(cameras_[i].client), "keep alive");
      watch_writing(i);
    }
  }

  Options options_;
  const Recording &recording_;
  int epoll_;
  std::vector<Camera> cameras_;
  std::priority_queue<Due, std::vector<Due>, std::greater<>> due_;
  gsize connected_ = 0;
  guint64 published_ = 0;
  guint64 acknowledged_ = 0; /* a message at QoS 0 counts when it is written */
  guint64 frames_ = 0;
  guint64 events_ = 0;
  guint64 bytes_ = 0;
  gint64 latest_us_ = 0; /* the longest delay of a message in this process, up to the library */
};

Options
read_options(int *argc, char ***argv)
{
  Options options;
  const GOptionEntry entries[] = {
      {"port", 0, 0, G_OPTION_ARG_INT, &options.port, "Port of the broker", "N"},
      {"cameras", 0, 0, G_OPTION_ARG_INT, &options.cameras, "Number of cameras", "N"},
      {"first", 0, 0, G_OPTION_ARG_INT, &options.first, "Number of the first camera", "N"},
      {"frames", 0, 0, G_OPTION_ARG_DOUBLE, &options.frames, "Frames of a camera, per second", "RATE"},
      {"events", 0, 0, G_OPTION_ARG_DOUBLE, &options.events, "Events of a camera, per second", "RATE"},
      {"qos", 0, 0, G_OPTION_ARG_INT, &options.qos, "Quality of service", "0|1"},
      {"seconds", 0, 0, G_OPTION_ARG_INT, &options.seconds, "Duration", "N"},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr}};
  parse_options(argc, argv, entries, "RECORDING");
  return options;
}

} // namespace

/* Prints "ready" when all cameras are connected, waits for a line with the time of the beginning, in
 * microseconds since 1970, and prints at the end what it has sent. */
int
main(int argc, char **argv)
{
  Options options = read_options(&argc, &argv);
  Recording recording = read_recording(argv[1]);
  mosquitto_lib_init();
  Fleet fleet(options, recording);
  fleet.connect();
  puts("ready");
  fflush(stdout);

  gint64 begin_us = 0;
  if (scanf("%" G_GINT64_FORMAT, &begin_us) != 1) {
    fail("begin", "no time on standard input");
  }
  fleet.run(begin_us);
  fleet.drain(DRAIN_US);
  fleet.print();
  return 0;
}
