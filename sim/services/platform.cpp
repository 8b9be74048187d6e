/* SPDX-License-Identifier: MIT */
#include "platform.h"

#include "valueservice.h"
#include "videocapture.h"

#include <algorithm>

namespace sim
{

Platform::Platform()
{
  services_.push_back(std::make_unique<ValueService>(PTZ_COORDINATOR, camera));
  services_.push_back(std::make_unique<VideoCapture>(camera));
  services_.push_back(std::make_unique<ValueService>(SCENE_MANAGER, camera));
  auto metadata_receiver = std::make_unique<MetadataReceiver>(camera);
  receiver = metadata_receiver.get();
  services_.push_back(std::move(metadata_receiver));
}

/**
 * Platform::find_service:
 * @nick: the name of the service in options and verbs
 * @error: set if there is no such service
 *
 * Returns: (transfer none) (nullable): the service
 */
Service *
Platform::find_service(const std::string &nick, GError **error) const
{
  for (const auto &service : services_) {
    if (service->nick() == nick) {
      return service.get();
    }
  }
  refuse(error, "unknown service '%s'; there are: %s", nick.c_str(), service_list().c_str());
  return nullptr;
}

/**
 * Platform::service_list:
 *
 * Returns: the names of all services, for messages
 */
std::string
Platform::service_list() const
{
  std::string list;

  for (const auto &service : services_) {
    list.append(list.empty() ? "" : ", ").append(service->nick());
  }
  return list;
}

/**
 * Platform::choose_services:
 * @list: a comma-separated list of the services to be present; may be empty
 * @error: set if a service is unknown
 *
 * Makes all other services absent. Call it before publish().
 *
 * Returns: whether @list is valid
 */
bool
Platform::choose_services(const std::string &list, GError **error)
{
  const Arguments chosen = arguments_split(list);

  for (const std::string &nick : chosen) {
    if (find_service(nick, error) == nullptr) {
      return false;
    }
  }
  return std::all_of(services_.begin(), services_.end(), [&](const auto &service) {
    return std::find(chosen.begin(), chosen.end(), service->nick()) != chosen.end() ||
           service->make_absent(error);
  });
}

/**
 * Platform::publish:
 * @connection: the connection to the bus
 * @error: set if a name is taken
 *
 * Publishes all services.
 *
 * Returns: whether all services are published
 */
bool
Platform::publish(GDBusConnection *connection, GError **error)
{
  return std::all_of(services_.begin(), services_.end(),
                     [&](const auto &service) { return service->publish(connection, error); });
}

} // namespace sim
