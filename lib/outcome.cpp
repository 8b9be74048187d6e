/* SPDX-License-Identifier: MIT */
#include "outcome.h"

#include <memory>

namespace
{

/* Shared, because the worker can still unlock it when the other thread goes on. */
struct Outcome {
  Outcome() = default;
  Outcome(const Outcome &) = delete;
  Outcome &operator=(const Outcome &) = delete;
  ~Outcome()
  {
    g_clear_error(&error);
    g_cond_clear(&changed);
    g_mutex_clear(&lock);
  }

  GMutex lock = {};
  GCond changed = {};
  gboolean is_known = FALSE;
  GError *error = nullptr;
};

} // namespace

/**
 * outcome_return_to:
 * @task: (transfer full): a task
 *
 * Returns: a function that returns %TRUE or the error from @task, in the main context of its caller
 */
OutcomeFunction
outcome_return_to(GTask *task)
{
  return [task](const GError *error) {
    if (error != nullptr) {
      g_task_return_error(task, g_error_copy(error));
    } else {
      g_task_return_boolean(task, TRUE);
    }
    g_object_unref(task);
  };
}

/**
 * outcome_wait:
 * @start: starts an operation, which calls the function at its end
 * @error: return location for the error of the operation
 *
 * Blocks until the operation ends. Not for the worker.
 *
 * Returns: whether it has succeeded
 */
gboolean
outcome_wait(const std::function<void(OutcomeFunction function)> &start, GError **error)
{
  const auto outcome = std::make_shared<Outcome>();

  start([outcome](const GError *failure) {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&outcome->lock);
    outcome->error = failure != nullptr ? g_error_copy(failure) : nullptr;
    outcome->is_known = TRUE;
    g_cond_signal(&outcome->changed);
  });
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&outcome->lock);
  while (!outcome->is_known) {
    g_cond_wait(&outcome->changed, &outcome->lock);
  }
  if (outcome->error != nullptr) {
    g_propagate_error(error, g_error_copy(outcome->error));
    return FALSE;
  }
  return TRUE;
}
