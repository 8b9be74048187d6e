/* SPDX-License-Identifier: MIT */
/* A producer's end of a stream, which sends messages or single bytes. */
#pragma once

#include <glib.h>
#include <string>

namespace teststream
{

/* A FIFO is a pipe that is opened by its path. */
enum class Carrier { PIPE, FIFO, SOCKET };
enum class Mode { BLOCKING, NON_BLOCKING };

/* A length before a payload. */
std::string message(const std::string &payload);

/* The frame of this message. */
std::string frame(const std::string &source_name, const std::string &payload);

/* Opens the file of a descriptor again, with a new open file description. */
int reopen(int fd, int flags);

class Producer
{
public:
  Producer(Carrier carrier, Mode mode);
  ~Producer();
  Producer(const Producer &) = delete;
  Producer &operator=(const Producer &) = delete;

  /* Sends all of @bytes, which must fit. Any thread. */
  void send(const std::string &bytes) const;

  /* Sends as much of @bytes as fits. Any thread. */
  gsize send_some(const char *bytes, gsize count) const;

  void hang_up();

  /* The consumer's end, which the code under test closes. */
  int consumer_fd = -1;

private:
  int fd_ = -1;
};

} // namespace teststream
