/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>

namespace view
{

/* What is sent to several clients. */
using Text = std::shared_ptr<const std::string>;

/* Texts that wait for a client. A text with a key replaces one with the same key that waits, in its place;
 * none is replaced across a barrier. One thread at a time. */
class SendQueue
{
public:
  explicit SendQueue(gsize bytes_max) : bytes_max_(bytes_max)
  {
  }

  bool push(const std::string &key, Text text);
  void add_barrier();
  Text pop();
  bool is_empty() const;
  gsize bytes() const;

private:
  struct Entry {
    std::string key;
    Text text;
  };

  gsize bytes_max_;
  gsize bytes_ = 0;
  std::list<Entry> entries_;
  std::unordered_map<std::string, std::list<Entry>::iterator> by_key_; /* behind the last barrier */
};

} // namespace view
