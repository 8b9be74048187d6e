/* SPDX-License-Identifier: MIT */
#pragma once

#include <functional>
#include <gio/gio.h>

/* The thread of the library, one for the process. It is started when it is first needed, and ends with the
 * process. worker_invoke() is for any thread, everything else for the worker itself. */

using WorkerFunction = std::function<void()>;

void worker_invoke(WorkerFunction function);

/* A source of the worker's main context, and its function. Destroyed with this object, also from within the
 * function. */
class WorkerSource
{
public:
  using Function = std::function<void()>;

  WorkerSource() = default;
  WorkerSource(const WorkerSource &) = delete;
  WorkerSource &operator=(const WorkerSource &) = delete;
  ~WorkerSource();

  void watch_fd(int fd, GIOCondition condition, Function function);
  void start_timer(guint milliseconds, Function function);
  void clear();
  gboolean is_set() const;

private:
  void attach(GSource *source, GSourceFunc callback, Function function);

  GSource *source = nullptr;
};
