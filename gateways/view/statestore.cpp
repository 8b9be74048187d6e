/* SPDX-License-Identifier: MIT */
#include "statestore.h"

#include "viewlimits.h"

namespace view
{

/**
 * BoundedTexts::set:
 * @key: the key
 * @text: its text, which becomes the newest
 */
void
BoundedTexts::set(const std::string &key, Text text)
{
  remove(key);
  bytes_ += key.size() + text->size();
  entries_.push_back({key, std::move(text)});
  by_key_.emplace(key, std::prev(entries_.end()));
  while (entries_.size() > count_max_ || bytes_ > bytes_max_) {
    remove(std::string(entries_.front().key));
  }
}

/**
 * BoundedTexts::remove:
 * @key: the key
 *
 * Forgets its text, if there is one.
 */
void
BoundedTexts::remove(const std::string &key)
{
  const auto known = by_key_.find(key);
  if (known == by_key_.end()) {
    return;
  }
  bytes_ -= key.size() + known->second->text->size();
  entries_.erase(known->second);
  by_key_.erase(known);
}

/**
 * BoundedTexts::clear:
 *
 * Forgets all texts.
 */
void
BoundedTexts::clear()
{
  entries_.clear();
  by_key_.clear();
  bytes_ = 0;
}

/**
 * BoundedTexts::append_to:
 * @items: the list
 * @kind: the kind of the texts
 *
 * Appends all texts, the oldest first.
 */
void
BoundedTexts::append_to(std::vector<StreamItem> *items, ItemKind kind) const
{
  for (const Entry &entry : entries_) {
    items->push_back({kind, entry.key, entry.text, nullptr});
  }
}

StateStore::StateStore()
    : frames_(VIEW_SOURCES_MAX, VIEW_STATE_BYTES_MAX), properties_(VIEW_PROPERTIES_MAX, VIEW_STATE_BYTES_MAX)
{
}

/**
 * StateStore::apply:
 * @item: what the daemon has sent, or the begin or end of its stream
 */
void
StateStore::apply(const StreamItem &item)
{
  switch (item.kind) {
  case ItemKind::CONNECTED:
    is_connected_ = true;
    break;
  case ItemKind::DISCONNECTED:
    clear();
    break;
  case ItemKind::FRAME:
    frames_.set(item.key, item.text);
    break;
  case ItemKind::PTZ:
    ptz_ = item.text;
    break;
  case ItemKind::PROPERTY:
    properties_.set(item.key, item.state);
    break;
  case ItemKind::DELETED_PROPERTY:
    properties_.remove(item.key);
    break;
  default:
    break;
  }
}

/**
 * StateStore::clear:
 *
 * Forgets the state, as when the daemon's stream has ended.
 */
void
StateStore::clear()
{
  is_connected_ = false;
  ptz_ = nullptr;
  frames_.clear();
  properties_.clear();
}

/**
 * StateStore::items:
 *
 * Returns: the present state: the connection, frames, PTZ status and properties
 */
std::vector<StreamItem>
StateStore::items() const
{
  std::vector<StreamItem> items = {connection_item(is_connected_)};
  frames_.append_to(&items, ItemKind::FRAME);
  if (ptz_ != nullptr) {
    items.push_back({ItemKind::PTZ, "ptz", ptz_, nullptr});
  }
  properties_.append_to(&items, ItemKind::EVENT);
  return items;
}

} // namespace view
