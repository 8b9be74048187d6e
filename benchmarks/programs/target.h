/* SPDX-License-Identifier: MIT */
#pragma once

#include "packetcounter.h"

#include <gio/gio.h>
#include <memory>
#include <string>
#include <vector>

namespace benchmarks
{

class BenchReceiver;

/* Where a measured process writes the data of one client. */
struct Inlet {
  int fd;
  PacketCounter counter;
};

/* A process that passes messages on, and this program's ends of its streams. Descriptors are non-blocking. */
struct Target {
  Target();
  ~Target();
  Target(const Target &) = delete;
  Target &operator=(const Target &) = delete;

  pid_t pid = 0;
  bool is_own = false;      /* ended with the target */
  std::vector<int> outlets; /* one for each producer's stream */
  std::vector<Inlet> inlets;
  std::string (*make_message)(gsize size) = nullptr;
  gsize window_bytes = 0; /* of messages under way to the slowest client; 0 without a limit */
  std::unique_ptr<BenchReceiver> receiver;
};

std::unique_ptr<Target> target_open_daemon(const char *socket_path, pid_t pid, guint clients, GError **error);
std::unique_ptr<Target> target_open_program(char **command, guint clients, GError **error);
std::unique_ptr<Target> target_open_broker(const char *socket_path, pid_t pid, guint clients, GError **error);

} // namespace benchmarks
