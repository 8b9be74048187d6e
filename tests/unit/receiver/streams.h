/* SPDX-License-Identifier: MIT */
/* Both ends of streams and channels: what a reader takes, and what an application writes. */
#pragma once

#include "receiver/message.h"

#include <string>
#include <vector>

namespace teststreams
{

using Texts = std::vector<std::string>;

/* A length before a text. */
std::string wire_form(const std::string &text);

/* An open descriptor, which is closed with this object. */
class Descriptor
{
public:
  explicit Descriptor(int fd);
  Descriptor(Descriptor &&other) noexcept;
  ~Descriptor();
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;

  int fd() const;
  void close();

  /* Writes all of it, which has to fit. */
  void write(const std::string &bytes) const;

  /* What can be read without waiting, at most so much. */
  std::string read_some(gsize limit) const;

  /* Runs the main loop until it has read so much. */
  std::string read(gsize size) const;

  /* The next messages. */
  Texts messages(gsize count) const;

  /* Whether the other end is closed and nothing is left to read. Runs the main loop until then. */
  bool reaches_end() const;

private:
  int fd_;
};

struct Pipe {
  Descriptor read_end;
  Descriptor write_end;
};

/* Both ends are non-blocking; a capacity in bytes, 0 for the system's. */
Pipe open_pipe(int capacity = 0);

/* A duplicate, for code that takes a descriptor. */
int duplicate(const Descriptor &descriptor);

} // namespace teststreams
