/* SPDX-License-Identifier: MIT */
#pragma once

#include "clientguard.h"
#include "metadatafeed.h"
#include "rtspoptions.h"

#include <memory>

namespace rtsp
{

/* The server with its mounts. */
class Server
{
public:
  Server();
  ~Server();
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;

  bool set_up(const Options &options, GError **error);
  bool listen(GError **error);
  std::string address() const;

private:
  bool add_mounts(const Options &options, GError **error);
  bool add_mount(const Options &options, guint channel, GError **error);
  void configure_mount(GstRTSPMediaFactory *mount, const Options &options);
  bool set_up_access(const Options &options, GError **error);
  bool set_up_ports(const Options &options, GError **error);

  GstRTSPServer *server_;
  GstRTSPAddressPool *ports_;
  std::unique_ptr<gateway::ProducerFollower> producers_; /* if the request has analytics */
  gateway::MetadataRequest request_ = {};
  std::unique_ptr<ClientGuard> guard_;
  const char *scheme_ = "rtsp";
  guint listener_ = 0;
  guint clean_up_ = 0;
};

} // namespace rtsp
