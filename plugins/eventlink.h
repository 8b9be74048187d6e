/* SPDX-License-Identifier: MIT */
#pragma once

#include "messagestream.h"

#include <memory>

namespace plugins
{

/* The time before another attempt, which doubles with each failure. */
constexpr guint EVENT_LINK_FIRST_RETRY_MS = 1000;
constexpr guint EVENT_LINK_LAST_RETRY_MS = 60000;

/* Keeps a stream of events open as long as the metadata receiver is on the system bus. Runs in the thread of
 * one main context, which is the thread's default one. */
class EventLink
{
public:
  /* The stream has begun; its messages follow. */
  using Began = std::function<void()>;
  /* There is no stream, or none any more. */
  using Gone = std::function<void()>;

  EventLink(GMainContext *context, GCancellable *cancellable, Began began, MessageStream::Deliver deliver,
            Gone gone);
  ~EventLink();
  EventLink(const EventLink &) = delete;
  EventLink &operator=(const EventLink &) = delete;

  void start();

private:
  static void on_owner_changed(GDBusConnection *connection, const gchar *bus, const gchar *path,
                               const gchar *interface, const gchar *signal, GVariant *parameters,
                               gpointer user_data);
  static void on_stream(GObject *connection, GAsyncResult *result, gpointer user_data);
  static void on_closed(GDBusConnection *connection, gboolean vanished, GError *error, gpointer user_data);
  static gboolean on_retry(gpointer user_data);

  bool connect();
  void disconnect();
  void request_stream();
  void take_stream(int fd);
  void end_stream(const char *reason);
  void retry_later();
  void cancel_retry();

  GMainContext *context_;
  GCancellable *cancellable_; /* of everything, from another thread */
  const Began began_;
  const MessageStream::Deliver deliver_;
  const Gone gone_;
  GDBusConnection *connection_ = nullptr; /* owned */
  guint subscription_ = 0;
  gulong closed_ = 0;
  guint calls_ = 0;              /* without a reply */
  GCancellable *call_ = nullptr; /* owned; of the last call */
  GSource *retry_ = nullptr;     /* owned */
  guint retry_ms_ = EVENT_LINK_FIRST_RETRY_MS;
  std::unique_ptr<MessageStream> stream_;
};

} // namespace plugins
