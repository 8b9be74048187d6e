/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

namespace benchmarks
{

/* A producer's stream, and the socket of the client that gets it. */
struct StreamPair {
  int in;
  int out;
};

bool parse_stream_pair(const char *text, StreamPair *pair);
bool read_exactly(int fd, void *data, gsize size);
int connect_to(const char *path);
void set_nonblocking(int fd);
gint64 now_ns();

} // namespace benchmarks
