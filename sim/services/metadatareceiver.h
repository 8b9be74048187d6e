/* SPDX-License-Identifier: MIT */
#pragma once

#include "camera.h"
#include "producer.h"
#include "receiver/directory.h"
#include "replay.h"
#include "service.h"

namespace sim
{

/* The product's metadata receiver with the simulated camera's producers in place of applications, and with
 * faults. */
class MetadataReceiver : public Service
{
public:
  explicit MetadataReceiver(const Camera &camera);

  Producer *find_producer(const std::string &name, GError **error) const;
  bool choose_producers(const std::string &list, GError **error);
  bool add_producer(const std::string &name, const std::string *file, GError **error);
  bool remove_producer(const std::string &name, GError **error);
  bool set_property(const std::string &name, const std::string &property, const std::string &value,
                    GError **error);
  bool set_interface(const std::string &name, const std::string &interface, GError **error);

  ReplayOptions replay_options;

protected:
  bool export_objects(GDBusConnection *connection, GError **error) override;

private:
  /* A producer and its object on the bus. */
  struct Announced {
    std::shared_ptr<Producer> producer;
    std::shared_ptr<GDBusInterfaceSkeleton> interface;
    bool reads_input;
  };

  std::unique_ptr<Feed> make_feed(const std::string &name, const std::string *file, GError **error);
  void announce(std::shared_ptr<Producer> producer, bool reads_input);
  std::shared_ptr<GDBusInterfaceSkeleton> make_interface(const std::shared_ptr<Producer> &producer,
                                                         const std::string &interface_name);
  void list_again(const std::string &name);
  void on_call(const std::weak_ptr<Producer> &called, const char *method, GVariant *arguments,
               GDBusMethodInvocation *invocation);

  const Camera &camera_;
  receiver::Directory directory_;
  receiver::Budget budget_;
  std::map<std::string, Announced> producers_;
};

} // namespace sim
