/* SPDX-License-Identifier: MIT */
#pragma once

#include "inbox.h"
#include "metadatastream.h"
#include "statestore.h"

#include <set>

namespace view
{

class Connection;

/* The daemon's stream of a channel as server-sent events, for all clients of the channel. It runs while there
 * is a client. All functions are for the main thread; documents are converted on the stream's thread. */
class ChannelFeed
{
public:
  ChannelFeed(const gateway::MetadataRequest *request, guint channel);
  ~ChannelFeed();
  ChannelFeed(const ChannelFeed &) = delete;
  ChannelFeed &operator=(const ChannelFeed &) = delete;

  void add(Connection *client, const Text &producers);
  void remove(Connection *client);
  void send(const std::string &key, const Text &text);

private:
  void end();
  void take_document(GstBuffer *document);
  void take_failure();
  void log_refused(const char *reason);
  void take_items(const std::vector<StreamItem> &items);
  static void send_item(Connection *client, const StreamItem &item);

  guint channel_;
  std::set<Connection *> clients_;
  StateStore store_;
  Inbox inbox_;
  bool is_connected_ = false;    /* of the stream's callbacks */
  gint64 refused_logged_us_ = 0; /* of the stream's callbacks */
  gateway::MetadataStream stream_;
};

} // namespace view
