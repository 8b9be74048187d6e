#pragma once

#include "camera.h"
#include "metadatareceiver.h"

namespace sim
{

/* The camera and all its services. */
class Platform
{
public:
  Platform();

  Camera camera;
  MetadataReceiver *receiver; /* one of the services */

  Service *find_service(const std::string &nick, GError **error) const;
  std::string service_list() const;
  bool choose_services(const std::string &list, GError **error);
  bool publish(GDBusConnection *connection, GError **error);

private:
  std::vector<std::unique_ptr<Service>> services_;
};

} /* namespace sim */
