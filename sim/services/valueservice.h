/* SPDX-License-Identifier: MIT */
#pragma once

#include "camera.h"
#include "service.h"

namespace sim
{

/* A service with one object and one interface, which returns one value of the camera. */
struct ValueServiceDescription {
  const char *nick;
  const char *bus_name;
  const char *object_path;
  const char *xml;      /* of the interface */
  const char *property; /* the property that is the value; nullptr if a method returns it */
  GVariant *(*value)(const Camera &camera); /* floating */
  std::span<const WrongReply> wrong_replies;
};

/* The move capabilities of the PTZ driver. */
extern const ValueServiceDescription PTZ_COORDINATOR;

/* The number of channels with scenes. */
extern const ValueServiceDescription SCENE_MANAGER;

class ValueService : public Service
{
public:
  ValueService(const ValueServiceDescription &description, const Camera &camera);

protected:
  bool export_objects(GDBusConnection *connection, GError **error) override;

private:
  static void on_call(GDBusConnection *connection, const gchar *sender, const gchar *path,
                      const gchar *interface, const gchar *method, GVariant *arguments,
                      GDBusMethodInvocation *invocation, gpointer user_data);

  const ValueServiceDescription &description_;
  const Camera &camera_;
};

} // namespace sim
