/* SPDX-License-Identifier: MIT */
#pragma once

#include <functional>
#include <gio/gio.h>
#include <string>

namespace view
{

/* A listening socket. All functions are for the main thread. */
class Listener
{
public:
  using AcceptFunction = std::function<void(GSocketConnection *connection)>;

  explicit Listener(AcceptFunction on_accepted);
  ~Listener();
  Listener(const Listener &) = delete;
  Listener &operator=(const Listener &) = delete;

  bool listen_at_port(guint port, GError **error);
  bool listen_at_path(const char *path, GError **error);
  guint port() const;

private:
  bool listen(GSocketFamily family, GSocketAddress *address, GError **error);
  void watch();
  bool accept();
  static gboolean on_incoming(GSocket *socket, GIOCondition condition, gpointer user_data);
  static gboolean on_retry(gpointer user_data);

  AcceptFunction on_accepted_;
  GSocket *socket_ = nullptr;
  guint watch_ = 0;
  guint retry_ = 0;
  std::string path_; /* of a UNIX socket */
};

} // namespace view
