/* SPDX-License-Identifier: MIT */
#pragma once

#include "camera.h"
#include "producer.h"
#include "replay.h"
#include "service.h"

namespace sim
{

/* The service that receives metadata from producers of analytics and hands out their streams. Each producer
 * is an object of an object manager. */
class MetadataReceiver : public Service
{
public:
  static constexpr gsize MAX_PRODUCERS = 64;
  static constexpr gsize MAX_NAME_BYTES = 255;

  explicit MetadataReceiver(const Camera &camera);
  ~MetadataReceiver() override;

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
    std::shared_ptr<GDBusObjectSkeleton> object;
    bool reads_input;
  };

  std::unique_ptr<Feed> make_feed(const std::string &name, const std::string *file, GError **error);
  void announce(std::shared_ptr<Producer> producer, bool reads_input);
  std::shared_ptr<GDBusObjectSkeleton> make_object(const std::shared_ptr<Producer> &producer,
                                                   const std::string &interface_name);
  void on_call(const std::weak_ptr<Producer> &called, const char *method, GVariant *arguments,
               GDBusMethodInvocation *invocation);

  const Camera &camera_;
  GDBusObjectManagerServer *manager_; /* owned */
  std::map<std::string, Announced> producers_;
};

} // namespace sim
