/* SPDX-License-Identifier: MIT */
/* All input and output of the library is on this thread, so that none of its functions blocks its caller, and
 * that a program without a main loop needs none.
 *
 * The thread blocks all signals: those of the process are for the application's threads, and a write to a
 * pipe that has lost its reader fails with EPIPE here, without a SIGPIPE.
 */
#include "worker.h"

#include <csignal>
#include <glib-unix.h>
#include <memory>
#include <pthread.h>
#include <utility>

namespace
{

gpointer
run_worker(gpointer context)
{
  auto *main_context = static_cast<GMainContext *>(context);
  g_autoptr(GMainLoop) loop = g_main_loop_new(main_context, FALSE);

  g_main_context_push_thread_default(main_context);
  g_main_loop_run(loop);
  return nullptr;
}

/* A thread inherits the blocked signals of the one that starts it. */
GMainContext *
start_worker(void)
{
  GMainContext *context = g_main_context_new();
  sigset_t all, before;

  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  g_thread_unref(g_thread_new("tessard", run_worker, context));
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return context;
}

GMainContext *
worker_context(void)
{
  static GMainContext *const context = start_worker();

  return context;
}

gboolean
on_invoke(gpointer function)
{
  (*static_cast<WorkerFunction *>(function))();
  return G_SOURCE_REMOVE;
}

gboolean
on_fd(gint fd, GIOCondition condition, gpointer function)
{
  (*static_cast<WorkerSource::Function *>(function))();
  return G_SOURCE_CONTINUE;
}

gboolean
on_timer(gpointer function)
{
  (*static_cast<WorkerSource::Function *>(function))();
  return G_SOURCE_REMOVE;
}

void
free_function(gpointer function)
{
  delete static_cast<std::function<void()> *>(function);
}

} // namespace

/**
 * worker_invoke:
 * @function: called once
 *
 * Calls a function on the worker, after those of earlier calls. Any thread.
 */
void
worker_invoke(WorkerFunction function)
{
  g_autoptr(GSource) source = g_idle_source_new();

  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(source, on_invoke, new WorkerFunction(std::move(function)), free_function);
  g_source_attach(source, worker_context());
}

WorkerSource::~WorkerSource()
{
  clear();
}

/**
 * WorkerSource::watch_fd:
 * @fd: a descriptor that stays open until the source is cleared
 * @condition: what to wait for
 * @function: called whenever @condition holds
 */
void
WorkerSource::watch_fd(int fd, GIOCondition condition, Function function)
{
  /* The type of this source's function is another one, which GLib casts back. */
  attach(g_unix_fd_source_new(fd, condition), reinterpret_cast<GSourceFunc>(reinterpret_cast<void *>(on_fd)),
         std::move(function));
}

/**
 * WorkerSource::start_timer:
 * @milliseconds: the time
 * @function: called once, when the time is over
 */
void
WorkerSource::start_timer(guint milliseconds, Function function)
{
  attach(g_timeout_source_new(milliseconds), on_timer, [this, call = std::move(function)] {
    const Function kept = call;
    clear();
    kept();
  });
}

/**
 * WorkerSource::clear:
 *
 * Ends the source, if there is one.
 */
void
WorkerSource::clear()
{
  if (source != nullptr) {
    GSource *ended = std::exchange(source, nullptr);
    g_source_destroy(ended);
    g_source_unref(ended);
  }
}

gboolean
WorkerSource::is_set() const
{
  return source != nullptr;
}

/* Replaces the source. GLib keeps @function while it is called, also if the source is destroyed meanwhile. */
void
WorkerSource::attach(GSource *new_source, GSourceFunc callback, Function function)
{
  clear();
  source = new_source;
  g_source_set_callback(source, callback, new Function(std::move(function)), free_function);
  g_source_attach(source, worker_context());
}
