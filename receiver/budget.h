/* SPDX-License-Identifier: MIT */
#pragma once

#include "stream.h"

#include <set>

namespace receiver
{

/* The resources that all producers share. */
class Budget
{
public:
  void add(Stream *stream);
  void remove(Stream *stream);
  gsize stream_count() const;
  void keep_queued_bytes();

  gsize open_channels = 0;

private:
  std::set<Stream *> streams_;
};

} // namespace receiver
