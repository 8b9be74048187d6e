/* SPDX-License-Identifier: MIT */
/* The function is called at most once for any number of requests before its call: it compares states, so that
 * nothing piles up while an application does not run its main loop.
 */
#include "notifier.h"

namespace
{

void
free_notifier(gpointer notifier)
{
  delete static_cast<std::shared_ptr<Notifier> *>(notifier);
}

} // namespace

/**
 * Notifier::create:
 * @object: (transfer none): not kept alive by the notifier
 * @function: called with @object, as long as it lives
 *
 * Returns: a notifier for the thread's default main context
 */
std::shared_ptr<Notifier>
Notifier::create(GObject *object, Function function)
{
  return std::make_shared<Notifier>(object, function);
}

Notifier::Notifier(GObject *notified_object, Function notify)
    : context(g_main_context_ref_thread_default()), function(notify)
{
  g_weak_ref_init(&object, notified_object);
}

Notifier::~Notifier()
{
  g_weak_ref_clear(&object);
  g_main_context_unref(context);
}

/**
 * Notifier::schedule:
 *
 * Has the function called soon.
 */
void
Notifier::schedule()
{
  if (!g_atomic_int_compare_and_exchange(&scheduled, FALSE, TRUE)) {
    return;
  }
  g_autoptr(GSource) source = g_idle_source_new();

  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(source, on_dispatch, new std::shared_ptr<Notifier>(shared_from_this()),
                        free_notifier);
  g_source_attach(source, context);
}

gboolean
Notifier::on_dispatch(gpointer user_data)
{
  Notifier *self = static_cast<std::shared_ptr<Notifier> *>(user_data)->get();
  g_autoptr(GObject) notified = G_OBJECT(g_weak_ref_get(&self->object));

  g_atomic_int_set(&self->scheduled, FALSE);
  if (notified != nullptr) {
    self->function(notified);
  }
  return G_SOURCE_REMOVE;
}
