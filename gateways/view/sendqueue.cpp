/* SPDX-License-Identifier: MIT */
#include "sendqueue.h"

namespace view
{

/**
 * SendQueue::push:
 * @key: what the text replaces; empty for nothing
 * @text: the text
 *
 * Returns: %FALSE, with the queue unchanged, if the text exceeds the bound of bytes
 */
bool
SendQueue::push(const std::string &key, Text text)
{
  const auto known = key.empty() ? by_key_.end() : by_key_.find(key);
  const gsize replaced = known != by_key_.end() ? known->second->text->size() : 0;
  const gsize bytes = bytes_ - replaced + text->size();
  if (bytes > bytes_max_) {
    return false;
  }
  bytes_ = bytes;
  if (known != by_key_.end()) {
    known->second->text = std::move(text);
    return true;
  }
  entries_.push_back({key, std::move(text)});
  if (!key.empty()) {
    by_key_.emplace(key, std::prev(entries_.end()));
  }
  return true;
}

/**
 * SendQueue::add_barrier:
 *
 * Keeps all texts that wait from being replaced.
 */
void
SendQueue::add_barrier()
{
  by_key_.clear();
}

/**
 * SendQueue::pop:
 *
 * Returns: (nullable): the text that has waited longest; %NULL if none waits
 */
Text
SendQueue::pop()
{
  if (entries_.empty()) {
    return nullptr;
  }
  const auto known = by_key_.find(entries_.front().key);
  if (known != by_key_.end() && known->second == entries_.begin()) {
    by_key_.erase(known);
  }
  Text text = std::move(entries_.front().text);
  entries_.pop_front();
  bytes_ -= text->size();
  return text;
}

/**
 * SendQueue::is_empty:
 *
 * Returns: whether no text waits
 */
bool
SendQueue::is_empty() const
{
  return entries_.empty();
}

/**
 * SendQueue::bytes:
 *
 * Returns: the bytes of all texts that wait
 */
gsize
SendQueue::bytes() const
{
  return bytes_;
}

} // namespace view
