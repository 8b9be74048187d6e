/* SPDX-License-Identifier: MIT */
#include "inbox.h"

#include "viewlimits.h"

namespace view
{

/**
 * Inbox:
 * @on_items: gets the items on the main thread
 */
Inbox::Inbox(std::function<void(std::vector<StreamItem>)> on_items) : on_items_(std::move(on_items))
{
  g_mutex_init(&lock_);
  g_cond_init(&has_changed_);
}

/* No thread pushes any more. */
Inbox::~Inbox()
{
  close();
  g_cond_clear(&has_changed_);
  g_mutex_clear(&lock_);
}

/**
 * Inbox::open:
 *
 * Lets items in. For the main thread.
 */
void
Inbox::open()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  is_open_ = true;
}

/**
 * Inbox::close:
 *
 * Drops all items, also those that come later. A thread that waits goes on. For the main thread.
 */
void
Inbox::close()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  is_open_ = false;
  items_.clear();
  bytes_ = 0;
  g_clear_handle_id(&idle_, g_source_remove);
  g_cond_broadcast(&has_changed_);
}

/**
 * Inbox::push:
 * @items: the items
 *
 * Waits while %VIEW_INBOX_BYTES_MAX are waiting. For any thread except the main thread.
 */
void
Inbox::push(std::vector<StreamItem> items)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock_);
  while (is_open_ && bytes_ > VIEW_INBOX_BYTES_MAX) {
    g_cond_wait(&has_changed_, &lock_);
  }
  if (!is_open_) {
    return;
  }
  for (StreamItem &item : items) {
    bytes_ += item.text->size();
    items_.push_back(std::move(item));
  }
  if (idle_ == 0) {
    idle_ = g_idle_add_full(G_PRIORITY_DEFAULT, on_idle, this, nullptr);
  }
}

gboolean
Inbox::on_idle(gpointer user_data)
{
  auto *self = static_cast<Inbox *>(user_data);
  std::vector<StreamItem> items;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&self->lock_);
    self->idle_ = 0;
    self->bytes_ = 0;
    items.swap(self->items_);
    g_cond_broadcast(&self->has_changed_);
  }
  self->on_items_(std::move(items));
  return G_SOURCE_REMOVE;
}

} // namespace view
