/* SPDX-License-Identifier: MIT */
#pragma once

#include "streamtext.h"

#include <functional>

namespace view
{

/* Hands items from the thread of a pipeline to the main loop, in bounded memory: a writer waits while it is
 * full. */
class Inbox
{
public:
  explicit Inbox(std::function<void(std::vector<StreamItem>)> on_items);
  ~Inbox();
  Inbox(const Inbox &) = delete;
  Inbox &operator=(const Inbox &) = delete;

  void open();
  void close();
  void push(std::vector<StreamItem> items);

private:
  static gboolean on_idle(gpointer user_data);

  std::function<void(std::vector<StreamItem>)> on_items_;
  GMutex lock_; /* protects all below */
  GCond has_changed_;
  bool is_open_ = false;
  guint idle_ = 0;
  gsize bytes_ = 0;
  std::vector<StreamItem> items_;
};

} // namespace view
