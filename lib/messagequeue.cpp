/* SPDX-License-Identifier: MIT */
#include "messagequeue.h"

MessageQueue::~MessageQueue()
{
  g_mutex_clear(&lock);
}

/**
 * MessageQueue::push:
 * @text: an item
 * @expired: (out): how many items are dropped because of their age
 *
 * Returns: %FALSE if @text does not fit
 */
gboolean
MessageQueue::push(std::string text, guint *expired)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);

  *expired = expire();
  if (!messages.empty() &&
      (messages.size() == TESSARD_QUEUE_MAX_ITEMS || bytes + text.size() > TESSARD_QUEUE_MAX_BYTES)) {
    return FALSE;
  }
  bytes += text.size();
  messages.push_back({std::move(text), g_get_monotonic_time()});
  return TRUE;
}

/**
 * MessageQueue::pop:
 * @expired: (out): how many items are dropped because of their age
 *
 * Returns: the item that waits longest
 */
std::optional<std::string>
MessageQueue::pop(guint *expired)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);

  *expired = expire();
  if (messages.empty()) {
    return std::nullopt;
  }
  std::string text = std::move(messages.front().text);
  bytes -= text.size();
  messages.pop_front();
  return text;
}

/**
 * MessageQueue::clear:
 *
 * Returns: how many items are dropped
 */
guint
MessageQueue::clear()
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(&lock);
  const guint count = static_cast<guint>(messages.size());

  messages.clear();
  bytes = 0;
  return count;
}

/* Called with the lock held. */
guint
MessageQueue::expire()
{
  const gint64 oldest = g_get_monotonic_time() - TESSARD_QUEUE_MAX_AGE_MS * G_TIME_SPAN_MILLISECOND;
  guint count = 0;

  for (; !messages.empty() && messages.front().time < oldest; count++) {
    bytes -= messages.front().text.size();
    messages.pop_front();
  }
  return count;
}
