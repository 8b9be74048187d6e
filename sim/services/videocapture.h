/* SPDX-License-Identifier: MIT */
#pragma once

#include "camera.h"
#include "service.h"

namespace sim
{

/* The service that captures video, with an object for each current channel of the camera. */
class VideoCapture : public Service
{
public:
  explicit VideoCapture(const Camera &camera);
  ~VideoCapture() override;

protected:
  bool export_objects(GDBusConnection *connection, GError **error) override;

private:
  static gchar **on_enumerate(GDBusConnection *connection, const gchar *sender, const gchar *path,
                              gpointer user_data);
  static GDBusInterfaceInfo **on_introspect(GDBusConnection *connection, const gchar *sender,
                                            const gchar *path, const gchar *node, gpointer user_data);
  static const GDBusInterfaceVTable *on_dispatch(GDBusConnection *connection, const gchar *sender,
                                                 const gchar *path, const gchar *interface, const gchar *node,
                                                 gpointer *call_user_data, gpointer user_data);
  static void on_call(GDBusConnection *connection, const gchar *sender, const gchar *path,
                      const gchar *interface, const gchar *method, GVariant *arguments,
                      GDBusMethodInvocation *invocation, gpointer user_data);

  GVariant *settings_of(const char *path) const;

  const Camera &camera_;
  GDBusNodeInfo *introspection_; /* owned */
};

} // namespace sim
