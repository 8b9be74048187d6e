#include "platform.h"

#include "ptzcoordinator.h"
#include "scenemanager.h"
#include "videocapture.h"

#include <algorithm>

namespace sim
{

Platform::Platform()
{
  services_.push_back(std::make_unique<PtzCoordinator>(camera));
  services_.push_back(std::make_unique<VideoCapture>(camera));
  services_.push_back(std::make_unique<SceneManager>(camera));
  auto metadata_receiver = std::make_unique<MetadataReceiver>(camera);
  receiver = metadata_receiver.get();
  services_.push_back(std::move(metadata_receiver));
}

/**
 * Platform::find_service:
 * @nick: what options and verbs call the service
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
 * Returns: every service, for a person to read
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
 * @list: the services that shall be there, with commas between them; may be empty
 * @error: set if there is no such service
 *
 * Makes all other services absent. To be called before they are on a bus.
 *
 * Returns: whether it is done
 */
bool
Platform::choose_services(const std::string &list, GError **error)
{
  const Words wanted = words_split(list);

  for (const std::string &nick : wanted) {
    if (find_service(nick, error) == nullptr) {
      return false;
    }
  }
  return std::all_of(services_.begin(), services_.end(), [&](const auto &service) {
    return std::find(wanted.begin(), wanted.end(), service->nick()) != wanted.end() || service->vanish(error);
  });
}

/**
 * Platform::publish:
 * @connection: the connection to the bus
 * @error: set if a name is taken
 *
 * Puts every service on the bus.
 *
 * Returns: whether all are there that should be
 */
bool
Platform::publish(GDBusConnection *connection, GError **error)
{
  return std::all_of(services_.begin(), services_.end(),
                     [&](const auto &service) { return service->publish(connection, error); });
}

} /* namespace sim */
