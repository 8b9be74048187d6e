/* SPDX-License-Identifier: MIT */
/* Clients of the daemon, which read everything and keep nothing.
 *
 *   benchclients SOCKET
 *
 * Each line of standard input is a command:
 *
 *   open COUNT HEADER   connects clients at once, with the lines of HEADER, in which ";" stands for a line
 * feed close               closes all clients
 *
 * After "open" it waits until every new client has its first document, and prints for each the time of "OK"
 * and the time of the document, in nanoseconds since the command. After "close" it prints a line. Between two
 * commands it reads what the clients get. */
#include "packetcounter.h"
#include "streams.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <poll.h>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace benchmarks
{

namespace
{

constexpr int BOUND_MS = 30 * 1000;
constexpr gsize READ_BYTES = 64 * 1024;
constexpr std::string_view ACCEPTED = std::string_view("OK\0", 3);

[[noreturn]] void
die(const char *what, const std::string &more)
{
  fprintf(stderr, "benchclients: %s%s\n", what, more.c_str());
  exit(EXIT_FAILURE);
}

/* One connection. Owns its descriptor. */
class Client
{
public:
  Client(const char *path, const std::string &request) : fd_(connect_to(path))
  {
    if (fd_ < 0 ||
        send(fd_, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<gssize>(request.size())) {
      die("no connection: ", g_strerror(errno));
    }
    set_nonblocking(fd_);
  }

  ~Client()
  {
    if (fd_ >= 0) {
      close(fd_);
    }
  }

  Client(Client &&other) noexcept
      : fd_(other.fd_), reply_(std::move(other.reply_)), counter_(other.counter_), accepted_(other.accepted_),
        begun_(other.begun_)
  {
    other.fd_ = -1;
  }

  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;
  Client &operator=(Client &&) = delete;

  [[nodiscard]] int fd() const
  {
    return fd_;
  }

  [[nodiscard]] bool has_begun() const
  {
    return begun_ != 0;
  }

  void print(gint64 since) const
  {
    printf(" %" G_GINT64_FORMAT " %" G_GINT64_FORMAT, accepted_ - since, begun_ - since);
  }

  /* Reads once. */
  void read_some()
  {
    static std::array<guint8, READ_BYTES> data;
    const gssize size = recv(fd_, data.data(), data.size(), 0);

    if (size == 0 || (size < 0 && errno != EAGAIN)) {
      die("the daemon ended a stream: ", reply_);
    }
    take(data.data(), size > 0 ? size : 0);
  }

private:
  void take(const guint8 *data, gsize size)
  {
    const gint64 now = now_ns();

    while (size > 0 && accepted_ == 0) {
      reply_.push_back(static_cast<char>(*data++));
      size--;
      if (reply_.back() == '\0') {
        accept(now);
      }
    }
    counter_.feed(data, size);
    if (begun_ == 0 && counter_.count() > 0) {
      begun_ = now;
    }
  }

  void accept(gint64 now)
  {
    if (reply_ != ACCEPTED) {
      die("the daemon refuses: ", reply_);
    }
    accepted_ = now;
  }

  int fd_;
  std::string reply_;
  PacketCounter counter_ = PacketCounter(PacketForm::GDP);
  gint64 accepted_ = 0;
  gint64 begun_ = 0;
};

class Clients
{
public:
  explicit Clients(const char *path) : path_(path)
  {
  }

  void open(gsize count, std::string header)
  {
    const gint64 since = now_ns();
    const gsize first = clients_.size();

    std::replace(header.begin(), header.end(), ';', '\n');
    for (gsize i = 0; i < count; i++) {
      clients_.emplace_back(path_, "OPEN\n" + header + "\n\n");
    }
    while (!std::all_of(clients_.begin() + static_cast<gssize>(first), clients_.end(),
                        [](const Client &client) { return client.has_begun(); })) {
      if (!wait(BOUND_MS, false)) {
        die("no first document", "");
      }
    }
    for (gsize i = first; i < clients_.size(); i++) {
      clients_[i].print(since);
    }
    printf("\n");
  }

  void close()
  {
    clients_.clear();
    printf("\n");
  }

  /* Reads what arrives until there is a command. */
  void read_until_command()
  {
    while (!wait(-1, true)) {
    }
  }

private:
  /* Waits once. With @for_command returns whether there is a command, otherwise whether anything arrived. */
  bool wait(int timeout_ms, bool for_command)
  {
    std::vector<pollfd> polled;

    for (const Client &client : clients_) {
      polled.push_back({client.fd(), POLLIN, 0});
    }
    if (for_command) {
      polled.push_back({STDIN_FILENO, POLLIN, 0});
    }
    const int ready = poll(polled.data(), polled.size(), timeout_ms);
    for (gsize i = 0; i < clients_.size(); i++) {
      if (polled[i].revents != 0) {
        clients_[i].read_some();
      }
    }
    return for_command ? polled.back().revents != 0 : ready > 0;
  }

  const char *path_;
  std::vector<Client> clients_;
};

int
run_clients(const char *path)
{
  Clients clients(path);

  /* Without a buffer, so that poll() sees each line that is not read. */
  setvbuf(stdin, nullptr, _IONBF, 0);
  for (std::string line;; line.clear()) {
    clients.read_until_command();
    if (!std::getline(std::cin, line)) {
      return EXIT_SUCCESS;
    }
    std::istringstream words(line);
    std::string command;
    std::string header;
    gsize count = 0;
    words >> command >> count >> header;
    if (command == "open" && words) {
      clients.open(count, header);
    } else if (command == "close") {
      clients.close();
    } else {
      die("not a command: ", line);
    }
    fflush(stdout);
  }
}

} // namespace

} // namespace benchmarks

int
main(int argc, char **argv)
{
  if (argc != 2) {
    fprintf(stderr, "Usage: benchclients SOCKET\n");
    return 2;
  }
  return benchmarks::run_clients(argv[1]);
}
