/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>
#include <vector>

namespace benchmarks
{

constexpr const char *PRODUCER_NAME = "Benchmark";

/* The metadata receiver on the system bus, with one producer of the name PRODUCER_NAME on channel 1. Each
 * request for its stream gets the read end of a new pipe. Used on one thread, whose default main context has
 * to run for calls to be answered. */
class BenchReceiver
{
public:
  BenchReceiver();
  ~BenchReceiver();
  BenchReceiver(const BenchReceiver &) = delete;
  BenchReceiver &operator=(const BenchReceiver &) = delete;

  bool start(GError **error);

  /* The write ends of all pipes so far, in the order of the requests. They stay the receiver's. */
  [[nodiscard]] const std::vector<int> &streams() const
  {
    return streams_;
  }

private:
  static void on_call(GDBusConnection *connection, const gchar *sender, const gchar *path,
                      const gchar *interface, const gchar *method, GVariant *arguments,
                      GDBusMethodInvocation *invocation, gpointer user_data);
  void send_stream(GDBusMethodInvocation *invocation);
  bool register_objects(GError **error);
  bool own_name(GError **error);

  GDBusConnection *connection_ = nullptr;
  std::vector<int> streams_;
};

} // namespace benchmarks
