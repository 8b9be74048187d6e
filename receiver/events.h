/* SPDX-License-Identifier: MIT */
#pragma once

#include "budget.h"
#include "eventstream.h"

namespace receiver
{

/* The events of applications: their topics and states, and the streams. Main thread only. */
class Events
{
public:
  explicit Events(Budget *budget);
  ~Events();
  Events(const Events &) = delete;
  Events &operator=(const Events &) = delete;

  EventStore *store();
  int open_stream(GError **error);
  void application_disconnected(const std::string &sender);

private:
  static gboolean on_removal(gpointer user_data);

  void deliver(const SharedText &text, guint64 property);
  void remove_stream(Stream *stream);
  void schedule_removal();

  Budget *budget_;
  EventStore store_;
  std::vector<std::unique_ptr<EventStream>> streams_;
  guint removal_ = 0; /* the timeout, or 0 */
};

} // namespace receiver
