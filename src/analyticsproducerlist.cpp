/* SPDX-License-Identifier: MIT */
/* The table of the daemon's producers of analytics data.
 *
 * The list's lock is held during the callbacks and during each function called by foreach. It is taken before
 * the lock of the producers' entries and that of the producers' file.
 */
#include "analyticsproducerlist.h"

#include <syslog.h>

struct AnalyticsProducerList {
  GHashTable *table;
  GMutex lock; /* for the table and the callbacks; not recursive */
  AnalyticsProducerFunc on_added;
  AnalyticsProducerFunc on_removed;
};

namespace
{

AnalyticsProducer *
lookup(AnalyticsProducerList *list, const gchar *name)
{
  return static_cast<AnalyticsProducer *>(g_hash_table_lookup(list->table, name));
}

} // namespace

/**
 * analytics_producer_list_new:
 *
 * Returns: (transfer full): an empty list without callbacks
 */
AnalyticsProducerList *
analytics_producer_list_new(void)
{
  auto *list = g_new0(AnalyticsProducerList, 1);

  list->table = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_object_unref);
  g_mutex_init(&list->lock);
  return list;
}

/**
 * analytics_producer_list_free:
 * @list: (transfer full): a list that no other thread uses
 *
 * Drops the list's references to its producers. No callback is called.
 */
void
analytics_producer_list_free(AnalyticsProducerList *list)
{
  g_return_if_fail(list != NULL);

  g_hash_table_unref(list->table);
  g_mutex_clear(&list->lock);
  g_free(list);
}

/**
 * analytics_producer_list_set_callbacks:
 * @list: (transfer none): a list
 * @on_added: (nullable): called for each producer that is added from now on
 * @on_removed: (nullable): called for each producer that is removed from now on, while it is still listed
 *
 * Replaces both callbacks. They are called on the thread that changes the list.
 */
void
analytics_producer_list_set_callbacks(AnalyticsProducerList *list, AnalyticsProducerFunc on_added,
                                      AnalyticsProducerFunc on_removed)
{
  g_return_if_fail(list != NULL);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&list->lock);
  list->on_added = on_added;
  list->on_removed = on_removed;
}

/**
 * analytics_producer_list_add:
 * @list: (transfer none): a list
 * @producer: (transfer none): a producer
 *
 * Adds the producer under its name. The list takes a reference.
 *
 * Warnings: "tried to add a producer that already exists: %s"; the existing producer stays. "list != NULL"
 * and "producer != NULL" are preconditions.
 *
 * Returns: whether the producer was added
 */
gboolean
analytics_producer_list_add(AnalyticsProducerList *list, AnalyticsProducer *producer)
{
  g_return_val_if_fail(list != NULL, FALSE);
  g_return_val_if_fail(producer != NULL, FALSE);

  g_autofree gchar *name = nullptr;
  g_object_get(producer, "name", &name, nullptr);
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&list->lock);

  if (g_hash_table_contains(list->table, name)) {
    syslog(LOG_WARNING, "tried to add a producer that already exists: %s", name);
    return FALSE;
  }
  g_hash_table_insert(list->table, g_strdup(name), g_object_ref(producer));
  if (list->on_added != nullptr) {
    list->on_added(producer);
  }
  return TRUE;
}

/**
 * analytics_producer_list_remove:
 * @list: (transfer none): a list
 * @name: (transfer none): a producer's name
 *
 * Drops the list's reference to the producer.
 *
 * Warnings: "tried to remove non-existing producer: %s"
 */
void
analytics_producer_list_remove(AnalyticsProducerList *list, const gchar *name)
{
  g_return_if_fail(list != NULL);
  g_return_if_fail(name != NULL);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&list->lock);
  AnalyticsProducer *producer = lookup(list, name);

  if (producer == nullptr) {
    syslog(LOG_WARNING, "tried to remove non-existing producer: %s", name);
    return;
  }
  if (list->on_removed != nullptr) {
    list->on_removed(producer);
  }
  g_hash_table_remove(list->table, name);
}

/**
 * analytics_producer_list_foreach:
 * @list: (transfer none): a list
 * @function: called for each producer, in any order
 * @user_data: for @function
 */
void
analytics_producer_list_foreach(AnalyticsProducerList *list, AnalyticsProducerForeachFunc function,
                                gpointer user_data)
{
  g_return_if_fail(list != NULL);
  g_return_if_fail(function != NULL);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&list->lock);
  GHashTableIter iter;
  gpointer producer = nullptr;

  g_hash_table_iter_init(&iter, list->table);
  while (g_hash_table_iter_next(&iter, nullptr, &producer)) {
    function(ANALYTICS_PRODUCER(producer), user_data);
  }
}

/**
 * analytics_producer_list_contains:
 * @list: (transfer none): a list
 * @name: (transfer none): a producer's name
 *
 * Returns: whether the list has a producer with that name
 */
gboolean
analytics_producer_list_contains(AnalyticsProducerList *list, const gchar *name)
{
  g_return_val_if_fail(list != NULL, FALSE);
  g_return_val_if_fail(name != NULL, FALSE);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&list->lock);
  return g_hash_table_contains(list->table, name);
}

/**
 * analytics_producer_list_get_producer:
 * @list: (transfer none): a list
 * @name: (transfer none): a producer's name
 *
 * Returns: (transfer full) (nullable): the producer with that name
 */
AnalyticsProducer *
analytics_producer_list_get_producer(AnalyticsProducerList *list, const gchar *name)
{
  g_return_val_if_fail(list != NULL, nullptr);
  g_return_val_if_fail(name != NULL, nullptr);

  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&list->lock);
  AnalyticsProducer *producer = lookup(list, name);

  return producer != nullptr ? ANALYTICS_PRODUCER(g_object_ref(producer)) : nullptr;
}
