#pragma once

#include "camera.h"
#include "service.h"

namespace sim
{

/* The service that provides scenes, the moving objects that the camera sees, and knows for how many channels.
 */
class SceneManager : public Service
{
public:
  explicit SceneManager(const Camera &camera);

protected:
  bool export_objects(GDBusConnection *connection, GError **error) override;

private:
  static void on_call(GDBusConnection *connection, const gchar *sender, const gchar *path,
                      const gchar *interface, const gchar *method, GVariant *arguments,
                      GDBusMethodInvocation *invocation, gpointer user_data);

  const Camera &camera_;
};

} /* namespace sim */
