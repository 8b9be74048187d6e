/* SPDX-License-Identifier: MIT */
#pragma once

#include "eventarguments.h"
#include "tessardevents.h"

/**
 * EVENTS_SESSION_WAIT_MS:
 *
 * The time for the receiver to take an event, or to list the topics, in milliseconds.
 */
#define EVENTS_SESSION_WAIT_MS 10000

gboolean events_declare(TessardEvents *events, const EventArguments &event, GError **error);
void events_emit_async(TessardEvents *events, const EventArguments &event, GAsyncReadyCallback callback,
                       gpointer user_data);

/* One operation at the receiver, which does not wait for a receiver that is not there. For the main thread.
 */
class EventsSession
{
public:
  explicit EventsSession(const gchar *bus_address);
  EventsSession(const EventsSession &) = delete;
  EventsSession &operator=(const EventsSession &) = delete;
  ~EventsSession();

  gboolean emit(const EventArguments &event, GError **error);
  GVariant *get_topics(GError **error);

private:
  struct Reply;

  static void on_interrupted(TessardEvents *events, const GError *reason, gpointer user_data);
  static void on_reply(GObject *object, GAsyncResult *result, gpointer user_data);
  static gboolean on_late(gpointer user_data);

  gboolean wait_for(const Reply *reply, GError **error);

  TessardEvents *events;
  GMainLoop *loop;
  GError *interruption = nullptr; /* why events are not taken */
};
