/* SPDX-License-Identifier: MIT */
#pragma once

#include "camera.h"
#include "metadatareceiver.h"

namespace sim
{

/* The camera and its services. */
class Platform
{
public:
  Platform();

  Camera camera;
  MetadataReceiver *receiver; /* owned by services_ */

  Service *find_service(const std::string &nick, GError **error) const;
  std::string service_list() const;
  bool choose_services(const std::string &list, GError **error);
  bool publish(GDBusConnection *connection, GError **error);

private:
  std::vector<std::unique_ptr<Service>> services_;
};

} // namespace sim
