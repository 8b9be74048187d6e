/* SPDX-License-Identifier: MIT */
/* Writes messages as producers and reads what a measured process makes of them as its clients.
 *
 *   benchload daemon SOCKET PID CLIENTS
 *   benchload broker SOCKET PID CLIENTS
 *   benchload program CLIENTS COMMAND...
 *
 * When the streams are open it prints "ready". Then each line of standard input is a round:
 *
 *   relay BYTES COUNT                  sends COUNT messages on each stream, as fast as they are taken
 *   paced BYTES COUNT INTERVAL START   sends COUNT messages on each stream, one each INTERVAL
 *
 * The first message of a paced round is due at START of the monotonic clock, and the streams take turns
 * within the interval. A round ends when every client has every message, and prints the processor time of the
 * measured process and the time on the clock. A paced round adds the time of each message from its write to
 * its arrival, in the order of the writes. All times are in nanoseconds. */
#include "streams.h"
#include "target.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <poll.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace benchmarks
{

namespace
{

constexpr gint64 BOUND_NS = 30 * G_GINT64_CONSTANT(1000000000);
constexpr gsize WRITE_BYTES = 64 * 1024;
constexpr gsize READ_BYTES = 256 * 1024;

gint64
read_clock(clockid_t clock)
{
  timespec time = {};

  clock_gettime(clock, &time);
  return time.tv_sec * G_GINT64_CONSTANT(1000000000) + time.tv_nsec;
}

[[noreturn]] void
die(const char *what)
{
  fprintf(stderr, "benchload: %s\n", what);
  exit(EXIT_FAILURE);
}

/* The processor time of the measured process and the time on the clock, since the start of a round. */
class Stopwatch
{
public:
  explicit Stopwatch(pid_t pid)
  {
    if (clock_getcpuclockid(pid, &clock_) != 0) {
      die("the measured process is gone");
    }
    processor_ = read_clock(clock_);
    began_ = now_ns();
  }

  void print() const
  {
    const gint64 wall = now_ns() - began_;
    printf("%" G_GINT64_FORMAT " %" G_GINT64_FORMAT, read_clock(clock_) - processor_, wall);
  }

private:
  clockid_t clock_ = 0;
  gint64 processor_ = 0;
  gint64 began_ = 0;
};

/* What is common to all rounds: the messages that are counted, and the waits. */
class Round
{
public:
  Round(Target *target, gsize size, guint64 count)
      : target_(target), message_(target->make_message(size)), count_(count), buffer_(READ_BYTES),
        deadline_(now_ns() + BOUND_NS)
  {
    for (const Inlet &inlet : target->inlets) {
      starts_.push_back(inlet.counter.count());
    }
  }

  /* The messages that a client has got in this round. */
  [[nodiscard]] guint64 received(gsize client) const
  {
    return target_->inlets[client].counter.count() - starts_[client];
  }

  [[nodiscard]] bool is_complete(gsize client) const
  {
    return received(client) >= count_;
  }

  /* Reads once from a client's stream, without blocking. */
  void read_inlet(gsize client)
  {
    const gssize size = recv(target_->inlets[client].fd, buffer_.data(), buffer_.size(), 0);

    if (size == 0 || (size < 0 && errno != EAGAIN)) {
      die("a client's stream has ended");
    }
    target_->inlets[client].counter.feed(buffer_.data(), size > 0 ? size : 0);
  }

protected:
  /* Waits for one of the polled descriptors, at most until the time. */
  void wait(std::vector<pollfd> *polled, gint64 until_ns) const
  {
    const gint64 left = std::max<gint64>(until_ns - now_ns(), 0);
    const timespec timeout = {left / 1000000000, left % 1000000000};

    ppoll(polled->data(), polled->size(), &timeout, nullptr);
    if (now_ns() > deadline_) {
      die("messages were lost, or are late");
    }
  }

  Target *target_;
  std::string message_;
  guint64 count_;
  std::vector<guint8> buffer_;
  gint64 deadline_;
  std::vector<guint64> starts_;
};

/* Messages as fast as they are taken. */
class RelayRound : public Round
{
public:
  RelayRound(Target *target, gsize size, guint64 count) : Round(target, size, count)
  {
    const gsize copies = std::clamp<gsize>(WRITE_BYTES / message_.size(), 1, count);

    for (gsize i = 0; i < copies; i++) {
      pattern_ += message_;
    }
    written_.resize(target->outlets.size());
  }

  void run()
  {
    const Stopwatch watch(target_->pid);
    std::vector<pollfd> polled;

    while (collect(&polled)) {
      wait(&polled, deadline_);
      for (const pollfd &one : polled) {
        serve(one);
      }
    }
    watch.print();
    printf("\n");
  }

private:
  /* The bytes that may be written to a stream now. */
  [[nodiscard]] gsize get_room(gsize stream) const
  {
    const gsize total = message_.size() * count_;
    gsize end = total;

    if (target_->window_bytes > 0) {
      guint64 least = count_;
      for (gsize i = 0; i < target_->inlets.size(); i++) {
        least = std::min(least, received(i));
      }
      end = std::min(total, message_.size() * least + std::max(target_->window_bytes, message_.size()));
    }
    return end - std::min(end, written_[stream]);
  }

  /* Lists the descriptors on which something is left to do. */
  bool collect(std::vector<pollfd> *polled)
  {
    polled->clear();
    kinds_.clear();
    for (gsize i = 0; i < target_->outlets.size(); i++) {
      if (get_room(i) > 0) {
        polled->push_back({target_->outlets[i], POLLOUT, 0});
        kinds_.push_back(i);
      }
    }
    for (gsize i = 0; i < target_->inlets.size(); i++) {
      if (!is_complete(i)) {
        polled->push_back({target_->inlets[i].fd, POLLIN, 0});
        kinds_.push_back(i);
      }
    }
    served_ = 0;
    return !polled->empty();
  }

  void serve(const pollfd &one)
  {
    const gsize index = kinds_[served_++];

    if (one.revents == 0) {
      return;
    }
    if (one.events == POLLOUT) {
      write_outlet(index);
    } else {
      read_inlet(index);
    }
  }

  void write_outlet(gsize stream)
  {
    const gsize at = written_[stream] % pattern_.size();
    const gsize size = std::min(pattern_.size() - at, get_room(stream));
    const gssize done = write(target_->outlets[stream], pattern_.data() + at, size);

    if (done < 0 && errno != EAGAIN) {
      die("a producer's stream has ended");
    }
    written_[stream] += done > 0 ? done : 0;
  }

  std::string pattern_;
  std::vector<gsize> written_;
  std::vector<gsize> kinds_; /* the index of each polled descriptor */
  gsize served_ = 0;
};

/* Messages at their times. */
class PacedRound : public Round
{
public:
  PacedRound(Target *target, gsize size, guint64 count, gint64 interval_ns, gint64 start_ns)
      : Round(target, size, count), interval_(interval_ns), start_(start_ns)
  {
    writes_.resize(target->outlets.size() * count);
    delays_.resize(writes_.size());
    for (const Inlet &inlet : target->inlets) {
      inlets_.push_back({inlet.fd, POLLIN, 0});
    }
  }

  void run()
  {
    const Stopwatch watch(target_->pid);

    while (arrived_ < writes_.size()) {
      if (sent_ < writes_.size() && now_ns() >= get_due(sent_)) {
        send_next();
        continue;
      }
      wait(&inlets_, sent_ < writes_.size() ? get_due(sent_) : deadline_);
      read_arrivals();
    }
    watch.print();
    for (const gint64 delay : delays_) {
      printf(" %" G_GINT64_FORMAT, delay);
    }
    printf("\n");
  }

private:
  [[nodiscard]] gint64 get_due(gsize number) const
  {
    return start_ + static_cast<gint64>(number) * interval_ / static_cast<gint64>(target_->outlets.size());
  }

  void send_next()
  {
    const int fd = target_->outlets[sent_ % target_->outlets.size()];
    gsize done = 0;

    writes_[sent_++] = now_ns();
    while (done < message_.size()) {
      const gssize size = write(fd, message_.data() + done, message_.size() - done);
      if (size < 0 && errno != EAGAIN) {
        die("a producer's stream has ended");
      }
      done += size > 0 ? size : 0;
      if (done < message_.size()) {
        wait_for_room(fd);
      }
    }
  }

  void wait_for_room(int fd)
  {
    std::vector<pollfd> polled = inlets_;

    polled.push_back({fd, POLLOUT, 0});
    wait(&polled, deadline_);
    std::copy(polled.begin(), polled.end() - 1, inlets_.begin());
    read_arrivals();
  }

  void read_arrivals()
  {
    for (gsize i = 0; i < inlets_.size(); i++) {
      if (inlets_[i].revents == 0) {
        continue;
      }
      guint64 number = received(i);
      read_inlet(i);
      const gint64 now = now_ns();
      for (; number < received(i); number++) {
        const gsize which = number * inlets_.size() + i;
        delays_[which] = now - writes_[which];
        arrived_++;
      }
    }
  }

  gint64 interval_;
  gint64 start_;
  std::vector<pollfd> inlets_;
  std::vector<gint64> writes_;
  std::vector<gint64> delays_;
  gsize sent_ = 0;
  gsize arrived_ = 0;
};

bool
run_round(Target *target, const std::string &line)
{
  std::istringstream words(line);
  std::string kind;
  gsize size = 0;
  guint64 count = 0;
  gint64 interval = 0;
  gint64 start = 0;

  words >> kind >> size >> count;
  if (kind == "relay" && words) {
    RelayRound(target, size, count).run();
    return true;
  }
  words >> interval >> start;
  if (kind == "paced" && words && target->outlets.size() == target->inlets.size()) {
    PacedRound(target, size, count, interval, start).run();
    return true;
  }
  return false;
}

std::unique_ptr<Target>
open_target(int argc, char **argv, GError **error)
{
  const std::string kind = argc > 3 ? argv[1] : "";

  if (kind == "program") {
    return target_open_program(argv + 3, static_cast<guint>(atoi(argv[2])), error);
  }
  if ((kind != "daemon" && kind != "broker") || argc != 5) {
    die("see the head of load.cpp for the arguments");
  }
  const auto open = kind == "daemon" ? target_open_daemon : target_open_broker;
  return open(argv[2], atoi(argv[3]), static_cast<guint>(atoi(argv[4])), error);
}

int
run_load(int argc, char **argv)
{
  g_autoptr(GError) error = nullptr;

  prctl(PR_SET_TIMERSLACK, 1);
  const std::unique_ptr<Target> target = open_target(argc, argv, &error);
  if (!target) {
    die(error->message);
  }
  printf("ready\n");
  fflush(stdout);
  for (std::string line; std::getline(std::cin, line);) {
    if (!run_round(target.get(), line)) {
      die("a line is not a round");
    }
    fflush(stdout);
  }
  return EXIT_SUCCESS;
}

} // namespace

} // namespace benchmarks

int
main(int argc, char **argv)
{
  return benchmarks::run_load(argc, argv);
}
