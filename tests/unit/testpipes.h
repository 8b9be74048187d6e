/* SPDX-License-Identifier: MIT */
/* The test's ends of pipes: the read ends of streams, and the write ends of channels. */
#pragma once

#include <glib.h>
#include <string>
#include <vector>

namespace testpipes
{

using Texts = std::vector<std::string>;

/* A text with its length before it. */
std::string wire_form(const std::string &text);

/* Owns a descriptor. */
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

  /* Writes all bytes; the pipe must have room for them. */
  void write(const std::string &bytes) const;

  /* Returns the bytes that can be read immediately, at most @limit. */
  std::string read_some(gsize limit) const;

  /* Runs the main loop until it has read @size bytes. */
  std::string read(gsize size) const;

  /* Reads the next @count messages. */
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

} // namespace testpipes
