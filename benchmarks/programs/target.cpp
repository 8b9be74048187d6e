/* SPDX-License-Identifier: MIT */
/* Opens the streams of a measured process: through the daemon, of which this process is a receiver and its
 * clients; through a program that inherits the other ends; or through an MQTT broker. */
#include "target.h"

#include "benchreceiver.h"
#include "messages.h"
#include "streams.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <string_view>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace benchmarks
{

namespace
{

constexpr gint64 BOUND_US = 20 * G_USEC_PER_SEC;
constexpr guint LOOK_MS = 2;
constexpr gsize READ_BYTES = 4096;
constexpr gsize BROKER_WINDOW_BYTES = 256 * 1024;
constexpr std::string_view REQUEST = "OPEN\nanalytics=2\nvideo_channel=1\n\n";
constexpr std::string_view ACCEPTED = std::string_view("OK\0", 3);

bool
fail(GError **error, const char *what)
{
  g_set_error(error, G_IO_ERROR, g_io_error_from_errno(errno), "%s: %s", what, g_strerror(errno));
  return false;
}

/* Runs the main context until the condition holds. Returns false if it does not in time. */
bool
iterate_until(const std::function<bool()> &holds)
{
  const gint64 deadline = g_get_monotonic_time() + BOUND_US;
  const guint look = g_timeout_add(
      LOOK_MS, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  bool held = holds();

  while (!held && g_get_monotonic_time() < deadline) {
    g_main_context_iteration(nullptr, TRUE);
    held = holds();
  }
  g_source_remove(look);
  if (!held) {
    errno = ETIMEDOUT;
  }
  return held;
}

bool
send_all(int fd, std::string_view text)
{
  return send(fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<gssize>(text.size());
}

/* Reads a reply up to its NUL, or to the end of the stream, and no byte behind it. The connection is
 * non-blocking: an incomplete reply is continued by the next call. */
bool
has_reply(int fd, std::string *reply)
{
  char next = '\0';
  gssize size = 0;

  while ((size = recv(fd, &next, 1, 0)) == 1) {
    reply->push_back(next);
    if (next == '\0') {
      return true;
    }
  }
  return size == 0;
}

/* Requests the producer's data once. Returns the connection, or -1 if the daemon refuses. */
int
request_once(const char *path)
{
  const int fd = connect_to(path);
  std::string reply;

  if (fd < 0) {
    return -1;
  }
  const bool sent = send_all(fd, REQUEST);
  set_nonblocking(fd);
  if (!sent || !iterate_until([&] { return has_reply(fd, &reply); }) || reply != ACCEPTED) {
    close(fd);
    return -1;
  }
  return fd;
}

bool
has_data(Inlet *inlet)
{
  std::array<guint8, READ_BYTES> data;
  const gssize size = recv(inlet->fd, data.data(), data.size(), 0);

  inlet->counter.feed(data.data(), size > 0 ? size : 0);
  return inlet->counter.count() > 0;
}

/* Opens one client's stream, and waits for its producer's. The daemon refuses a request while it does not
 * list the producer yet. The first data is the daemon's own. */
bool
open_client(Target *target, const char *path)
{
  const gsize streams = target->receiver->streams().size();
  int fd = -1;

  if (!iterate_until([&] { return (fd = request_once(path)) >= 0; })) {
    return false;
  }
  target->inlets.push_back(Inlet{fd, PacketCounter(PacketForm::GDP)});
  return iterate_until(
      [&] { return has_data(&target->inlets.back()) && target->receiver->streams().size() > streams; });
}

/* The program gets each pair of descriptors as one argument. */
[[noreturn]] void
run_program(char **command, const std::vector<std::array<int, 2>> &ends)
{
  std::vector<std::string> pairs;
  std::vector<char *> arguments;

  prctl(PR_SET_PDEATHSIG, SIGTERM);
  for (const auto &[in, out] : ends) {
    fcntl(in, F_SETFD, 0);
    fcntl(out, F_SETFD, 0);
    pairs.push_back(std::to_string(in) + ":" + std::to_string(out));
  }
  for (; *command != nullptr; command++) {
    arguments.push_back(*command);
  }
  for (std::string &pair : pairs) {
    arguments.push_back(pair.data());
  }
  arguments.push_back(nullptr);
  execv(arguments[0], arguments.data());
  _exit(EXIT_FAILURE);
}

bool
open_pairs(Target *target, guint clients, std::vector<std::array<int, 2>> *ends)
{
  for (guint i = 0; i < clients; i++) {
    std::array<int, 2> stream = {-1, -1};
    std::array<int, 2> client = {-1, -1};
    if (pipe2(stream.data(), O_CLOEXEC) != 0 ||
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, client.data()) != 0) {
      return false;
    }
    set_nonblocking(stream[1]);
    set_nonblocking(client[0]);
    target->outlets.push_back(stream[1]);
    target->inlets.push_back(Inlet{client[0], PacketCounter(PacketForm::GDP)});
    ends->push_back({stream[0], client[1]});
  }
  return true;
}

/* The broker answers each of the packets with one of four or five bytes. */
bool
exchange(int fd, const std::string &packet, gsize reply_bytes)
{
  std::array<guint8, READ_BYTES> reply;

  return send_all(fd, packet) &&
         recv(fd, reply.data(), reply_bytes, MSG_WAITALL) == static_cast<gssize>(reply_bytes);
}

int
connect_to_broker(const char *path, guint number)
{
  constexpr gsize REPLY_BYTES = 4;
  const int fd = connect_to(path);

  if (fd >= 0 && !exchange(fd, make_mqtt_connect(number), REPLY_BYTES)) {
    close(fd);
    return -1;
  }
  return fd;
}

bool
open_subscribers(Target *target, const char *path, guint clients)
{
  constexpr gsize REPLY_BYTES = 5;

  for (guint i = 0; i < clients; i++) {
    const int fd = connect_to_broker(path, i + 1);
    if (fd < 0) {
      return false;
    }
    target->inlets.push_back(Inlet{fd, PacketCounter(PacketForm::MQTT)});
    if (!exchange(fd, make_mqtt_subscribe(), REPLY_BYTES)) {
      return false;
    }
    set_nonblocking(fd);
  }
  return true;
}

} // namespace

Target::Target() = default;

Target::~Target()
{
  for (const int fd : outlets) {
    close(fd);
  }
  for (const Inlet &inlet : inlets) {
    close(inlet.fd);
  }
  if (is_own) {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
  }
}

/**
 * target_open_daemon:
 * @socket_path: the socket of a daemon on whose bus no other receiver is
 * @pid: the daemon
 * @clients: their number
 * @error: set on failure
 *
 * Connects clients, each with a stream of its own from the producer of a new receiver.
 *
 * Returns: the target, or an empty pointer
 */
std::unique_ptr<Target>
target_open_daemon(const char *socket_path, pid_t pid, guint clients, GError **error)
{
  auto target = std::make_unique<Target>();

  target->pid = pid;
  target->make_message = make_producer_message;
  target->receiver = std::make_unique<BenchReceiver>();
  if (!target->receiver->start(error)) {
    return nullptr;
  }
  for (guint i = 0; i < clients; i++) {
    if (!open_client(target.get(), socket_path)) {
      fail(error, "no stream from the daemon");
      return nullptr;
    }
  }
  for (const int stream : target->receiver->streams()) {
    target->outlets.push_back(dup(stream));
  }
  return target;
}

/**
 * target_open_program:
 * @command: the program's path and arguments, with %NULL at the end
 * @clients: the number of streams
 * @error: set on failure
 *
 * Starts a program that reads messages from pipes and writes packets to sockets. It gets an argument of the
 * form "PIPE:SOCKET" for each stream.
 *
 * Returns: the target, or an empty pointer
 */
std::unique_ptr<Target>
target_open_program(char **command, guint clients, GError **error)
{
  auto target = std::make_unique<Target>();
  std::vector<std::array<int, 2>> ends;

  target->make_message = make_producer_message;
  if (!open_pairs(target.get(), clients, &ends) || (target->pid = fork()) < 0) {
    fail(error, "no streams or no process");
    return nullptr;
  }
  if (target->pid == 0) {
    run_program(command, ends);
  }
  target->is_own = true;
  for (const auto &[in, out] : ends) {
    close(in);
    close(out);
  }
  return target;
}

/**
 * target_open_broker:
 * @socket_path: the socket of an MQTT broker
 * @pid: the broker
 * @clients: the number of subscribers
 * @error: set on failure
 *
 * Connects one publisher, and subscribers that get every message of it. The broker drops messages for a
 * subscriber that does not keep up, so the number of those under way is limited.
 *
 * Returns: the target, or an empty pointer
 */
std::unique_ptr<Target>
target_open_broker(const char *socket_path, pid_t pid, guint clients, GError **error)
{
  auto target = std::make_unique<Target>();

  target->pid = pid;
  target->make_message = make_mqtt_message;
  target->window_bytes = BROKER_WINDOW_BYTES;
  const int publisher = connect_to_broker(socket_path, 0);
  if (publisher >= 0) {
    set_nonblocking(publisher);
    target->outlets.push_back(publisher);
  }
  if (publisher < 0 || !open_subscribers(target.get(), socket_path, clients)) {
    fail(error, "no connection to the broker");
    return nullptr;
  }
  return target;
}

} // namespace benchmarks
