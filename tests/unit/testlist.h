/* SPDX-License-Identifier: MIT */
/* A list to which any thread appends, until a test takes the items. */
#pragma once

#include <glib.h>
#include <mutex>
#include <utility>
#include <vector>

namespace testhost
{

template <typename T> class List
{
public:
  void add(T item)
  {
    std::lock_guard guard(lock_);
    items_.push_back(std::move(item));
  }

  /* All items since the last call, in order. */
  std::vector<T> take()
  {
    std::lock_guard guard(lock_);
    return std::exchange(items_, {});
  }

  gsize size()
  {
    std::lock_guard guard(lock_);
    return items_.size();
  }

private:
  std::mutex lock_;
  std::vector<T> items_;
};

} // namespace testhost
