/* SPDX-License-Identifier: MIT */
#pragma once

#include "backoff.h"
#include "brokersession.h"

namespace mqtt
{

/* Publishes what is in the outbox, and connects again whenever the connection ends. It has a thread of its
 * own, because the library blocks while it looks an address up and connects. */
class BrokerLink
{
public:
  BrokerLink(const BrokerConfig *config, std::string status_topic, Outbox *outbox);
  ~BrokerLink();
  BrokerLink(const BrokerLink &) = delete;
  BrokerLink &operator=(const BrokerLink &) = delete;

  bool check(GError **error) const;
  void start();
  void wake();
  bool stop();

private:
  static gpointer on_thread(gpointer user_data);
  void run();
  void run_session();
  void run_turns(BrokerSession *session);
  bool turn(BrokerSession *session);
  void wait_for_retry();
  void log_connected();
  void log_dropped();
  void log_dropped_later();
  void log_lost(const std::string &failure);
  bool must_stop() const;

  const BrokerConfig *config_;
  std::string status_topic_;
  Outbox *outbox_;
  int wake_fd_;
  GThread *thread_ = nullptr;
  mutable GMutex lock_;
  GCond ended_;
  bool has_ended_ = false;
  gint64 stop_us_ = G_MAXINT64; /* when the thread must have ended */

  /* only for the thread */
  Backoff backoff_;
  Dropped dropped_; /* what was logged */
  gint64 dropped_us_ = g_get_monotonic_time();
  std::string failure_; /* the last one that was logged */
  gint64 failure_us_ = 0;
};

} // namespace mqtt
