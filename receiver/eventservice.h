/* SPDX-License-Identifier: MIT */
#pragma once

#include "applications.h"
#include "events.h"

namespace receiver
{

/* The events on the bus: it serves the calls of applications and of the daemon. Main thread only. */
class EventService
{
public:
  EventService(Events *events, GDBusConnection *connection);
  ~EventService();
  EventService(const EventService &) = delete;
  EventService &operator=(const EventService &) = delete;

  bool publish(GError **error);

private:
  struct Handlers;

  Events *events_;
  GDBusConnection *connection_; /* owned */
  Applications applications_;
  GDBusInterfaceSkeleton *skeleton_; /* owned */
};

} // namespace receiver
