/* A producer's end of a stream: what it sends, message by message or byte by byte. */
#pragma once

#include <glib.h>
#include <string>

namespace teststream
{

/* A FIFO is what a pipe is once it has been opened by a path. */
enum class Carrier { PIPE, FIFO, SOCKET };
enum class Mode { BLOCKING, NON_BLOCKING };

/* A length before a payload. */
std::string message(const std::string &payload);

/* The frame that comes of it. */
std::string frame(const std::string &source_name, const std::string &payload);

/* Opens the file of a descriptor once more, with an open file description of its own. */
int reopen(int fd, int flags);

class Producer
{
public:
  Producer(Carrier carrier, Mode mode);
  ~Producer();
  Producer(const Producer &) = delete;
  Producer &operator=(const Producer &) = delete;

  /* All of @bytes, which have to fit. Any thread. */
  void send(const std::string &bytes) const;

  /* As much of @bytes as goes without waiting. Any thread. */
  gsize send_some(const char *bytes, gsize count) const;

  void hang_up();

  /* The consumer's end, which is closed by whoever takes it. */
  int consumer_fd = -1;

private:
  int fd_ = -1;
};

} // namespace teststream
