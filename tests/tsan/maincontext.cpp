/* SPDX-License-Identifier: MIT */
// Hand-overs to the thread that runs a main context: all that precedes the attachment of a source, or a new
// ready time, happens before the source's callback; the callback happens before the data is freed and before
// the main loop returns.
#include "real.h"

#include <atomic>
#include <glib-unix.h>
#include <sanitizer/tsan_interface.h>

namespace
{

struct Callback {
  std::atomic<int> references = 1;
  GSourceFunc func;
  gpointer data;
  GDestroyNotify notify;
};

void
callback_ref(gpointer callback)
{
  static_cast<Callback *>(callback)->references++;
}

// Called after every dispatch, and when the source is destroyed.
void
callback_unref(gpointer user_data)
{
  auto *callback = static_cast<Callback *>(user_data);
  __tsan_release(callback);
  __tsan_acquire(callback);
  if (--callback->references > 0)
    return;
  if (callback->notify != nullptr)
    callback->notify(callback->data);
  delete callback;
}

// Called before every dispatch, on the thread that dispatches.
void
callback_get(gpointer user_data, GSource *source, GSourceFunc *func, gpointer *data)
{
  auto *callback = static_cast<Callback *>(user_data);
  __tsan_acquire(source);
  *func = callback->func;
  *data = callback->data;
}

GSourceCallbackFuncs callback_funcs = {callback_ref, callback_unref, callback_get};

gboolean
run_invoked(gpointer user_data)
{
  auto *callback = static_cast<Callback *>(user_data);
  __tsan_acquire(callback);
  return callback->func(callback->data);
}

template <typename Function>
GSourceFunc
as_source_func(Function func)
{
  return reinterpret_cast<GSourceFunc>(reinterpret_cast<gpointer>(func));
}

// Like GLib's own functions that add a source, but with the functions below.
guint
add(GSource *source, gint priority, GSourceFunc func, gpointer data, GDestroyNotify notify)
{
  g_source_set_priority(source, priority);
  g_source_set_callback(source, func, data, notify);
  guint id = g_source_attach(source, nullptr);
  g_source_unref(source);
  return id;
}

gpointer
context_tag(GMainContext *context)
{
  return context != nullptr ? context : g_main_context_default();
}

} // namespace

INTERPOSED void
g_source_set_callback(GSource *source, GSourceFunc func, gpointer data, GDestroyNotify notify)
{
  auto *callback = new Callback{.func = func, .data = data, .notify = notify};
  __tsan_release(callback);
  __tsan_release(source);
  g_source_set_callback_indirect(source, callback, &callback_funcs);
}

INTERPOSED guint
g_source_attach(GSource *source, GMainContext *context)
{
  FIND_REAL(g_source_attach);
  __tsan_release(source);
  return real(source, context);
}

INTERPOSED void
g_source_set_ready_time(GSource *source, gint64 ready_time)
{
  FIND_REAL(g_source_set_ready_time);
  __tsan_release(source);
  real(source, ready_time);
}

INTERPOSED guint
g_idle_add_full(gint priority, GSourceFunc function, gpointer data, GDestroyNotify notify)
{
  return add(g_idle_source_new(), priority, function, data, notify);
}

INTERPOSED guint
g_idle_add(GSourceFunc function, gpointer data)
{
  return g_idle_add_full(G_PRIORITY_DEFAULT_IDLE, function, data, nullptr);
}

INTERPOSED guint
g_timeout_add_full(gint priority, guint interval, GSourceFunc function, gpointer data, GDestroyNotify notify)
{
  return add(g_timeout_source_new(interval), priority, function, data, notify);
}

INTERPOSED guint
g_timeout_add(guint interval, GSourceFunc function, gpointer data)
{
  return g_timeout_add_full(G_PRIORITY_DEFAULT, interval, function, data, nullptr);
}

INTERPOSED guint
g_timeout_add_seconds_full(gint priority, guint interval, GSourceFunc function, gpointer data,
                           GDestroyNotify notify)
{
  return add(g_timeout_source_new_seconds(interval), priority, function, data, notify);
}

INTERPOSED guint
g_timeout_add_seconds(guint interval, GSourceFunc function, gpointer data)
{
  return g_timeout_add_seconds_full(G_PRIORITY_DEFAULT, interval, function, data, nullptr);
}

INTERPOSED guint
g_io_add_watch_full(GIOChannel *channel, gint priority, GIOCondition condition, GIOFunc func,
                    gpointer user_data, GDestroyNotify notify)
{
  return add(g_io_create_watch(channel, condition), priority, as_source_func(func), user_data, notify);
}

INTERPOSED guint
g_io_add_watch(GIOChannel *channel, GIOCondition condition, GIOFunc func, gpointer user_data)
{
  return g_io_add_watch_full(channel, G_PRIORITY_DEFAULT, condition, func, user_data, nullptr);
}

INTERPOSED guint
g_unix_fd_add_full(gint priority, gint fd, GIOCondition condition, GUnixFDSourceFunc function,
                   gpointer user_data, GDestroyNotify notify)
{
  return add(g_unix_fd_source_new(fd, condition), priority, as_source_func(function), user_data, notify);
}

INTERPOSED guint
g_unix_fd_add(gint fd, GIOCondition condition, GUnixFDSourceFunc function, gpointer user_data)
{
  return g_unix_fd_add_full(G_PRIORITY_DEFAULT, fd, condition, function, user_data, nullptr);
}

INTERPOSED void
g_main_context_invoke_full(GMainContext *context, gint priority, GSourceFunc function, gpointer data,
                           GDestroyNotify notify)
{
  FIND_REAL(g_main_context_invoke_full);
  auto *callback = new Callback{.func = function, .data = data, .notify = notify};
  __tsan_release(callback);
  real(context, priority, run_invoked, callback, callback_unref);
}

INTERPOSED void
g_main_context_invoke(GMainContext *context, GSourceFunc function, gpointer data)
{
  g_main_context_invoke_full(context, G_PRIORITY_DEFAULT, function, data, nullptr);
}

INTERPOSED void
g_main_context_wakeup(GMainContext *context)
{
  FIND_REAL(g_main_context_wakeup);
  __tsan_release(context_tag(context));
  real(context);
}

INTERPOSED gboolean
g_main_context_iteration(GMainContext *context, gboolean may_block)
{
  FIND_REAL(g_main_context_iteration);
  gboolean dispatched = real(context, may_block);
  __tsan_acquire(context_tag(context));
  return dispatched;
}

INTERPOSED void
g_main_loop_quit(GMainLoop *loop)
{
  FIND_REAL(g_main_loop_quit);
  __tsan_release(loop);
  real(loop);
}

INTERPOSED void
g_main_loop_run(GMainLoop *loop)
{
  FIND_REAL(g_main_loop_run);
  real(loop);
  __tsan_acquire(loop);
}
