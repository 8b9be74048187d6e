#pragma once

#include "camera.h"
#include "service.h"

namespace sim
{

/* The service that knows what the camera's PTZ driver can do. */
class PtzCoordinator : public Service
{
public:
  explicit PtzCoordinator(const Camera &camera);

protected:
  bool export_objects(GDBusConnection *connection, GError **error) override;

private:
  static void on_call(GDBusConnection *connection, const gchar *sender, const gchar *path,
                      const gchar *interface, const gchar *method, GVariant *arguments,
                      GDBusMethodInvocation *invocation, gpointer user_data);

  const Camera &camera_;
};

} /* namespace sim */
