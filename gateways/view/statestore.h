/* SPDX-License-Identifier: MIT */
#pragma once

#include "streamtext.h"

#include <list>
#include <unordered_map>

namespace view
{

/* The newest texts by key, in the order of their first or last change. The oldest are forgotten beyond a
 * number or beyond bytes. */
class BoundedTexts
{
public:
  BoundedTexts(gsize count_max, gsize bytes_max) : count_max_(count_max), bytes_max_(bytes_max)
  {
  }

  void set(const std::string &key, Text text);
  void remove(const std::string &key);
  void clear();
  void append_to(std::vector<StreamItem> *items, ItemKind kind) const;

private:
  struct Entry {
    std::string key;
    Text text;
  };

  gsize count_max_;
  gsize bytes_max_;
  gsize bytes_ = 0;
  std::list<Entry> entries_; /* the oldest first */
  std::unordered_map<std::string, std::list<Entry>::iterator> by_key_;
};

/* The present state of a channel, for clients that come late. One thread at a time. */
class StateStore
{
public:
  StateStore();

  void apply(const StreamItem &item);
  void clear();
  std::vector<StreamItem> items() const;

private:
  bool is_connected_ = false;
  Text ptz_;
  BoundedTexts frames_;
  BoundedTexts properties_;
};

} // namespace view
