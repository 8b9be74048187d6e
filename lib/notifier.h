/* SPDX-License-Identifier: MIT */
#pragma once

#include <gio/gio.h>
#include <memory>

/* Calls a function of an object in the main context that was the thread's default when the notifier was made.
 * Any thread. */
class Notifier : public std::enable_shared_from_this<Notifier>
{
public:
  /* Called with a reference on the object. */
  using Function = void (*)(GObject *object);

  static std::shared_ptr<Notifier> create(GObject *object, Function function);
  Notifier(GObject *object, Function function);
  Notifier(const Notifier &) = delete;
  Notifier &operator=(const Notifier &) = delete;
  ~Notifier();

  void schedule();

private:
  static gboolean on_dispatch(gpointer user_data);

  GMainContext *context;
  GWeakRef object;
  const Function function;
  gint scheduled = FALSE; /* atomic */
};
