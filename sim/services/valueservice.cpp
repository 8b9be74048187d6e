/* SPDX-License-Identifier: MIT */
#include "valueservice.h"

#include "bus.h"

namespace sim
{

namespace
{

constexpr const char *PTZ_XML = R"(
<node>
  <interface name="com.quon.PTZ.Coordinator">
    <property name="DriverMoveCapabilities" type="i" access="read"/>
  </interface>
</node>)";

constexpr const char *SCENES_XML = R"(
<node>
  <interface name="com.quon.VideoSceneManager1.Scene">
    <method name="GetNumberOfChannels">
      <arg name="channels" type="i" direction="out"/>
    </method>
  </interface>
</node>)";

constexpr std::array PTZ_WRONG_REPLIES = {
    WrongReply{"wrong-type", "(<'wrong'>,)"},
    WrongReply{"wrong-number", "(<uint32 1>,)"},
    WrongReply{"no-variant", "(1,)"},
    WrongReply{"nested", "(<<1>>,)"},
    WrongReply{"empty", "()"},
};

constexpr std::array SCENES_WRONG_REPLIES = {
    WrongReply{"wrong-type", "('wrong',)"},
    WrongReply{"wrong-number", "(uint32 1,)"},
    WrongReply{"variant", "(<1>,)"},
    WrongReply{"nested", "((1,),)"},
    WrongReply{"empty", "()"},
};

GVariant *
move_capabilities(const Camera &camera)
{
  return g_variant_new_int32(camera.move_capabilities);
}

GVariant *
number_of_channels(const Camera &camera)
{
  return g_variant_new_int32(static_cast<gint32>(camera.channels));
}

} // namespace

constinit const ValueServiceDescription PTZ_COORDINATOR = {
    .nick = "ptz",
    .bus_name = "com.quon.PTZ.Coordinator",
    .object_path = "/com/quon/PTZ/Coordinator/1",
    .xml = PTZ_XML,
    .property = "DriverMoveCapabilities",
    .value = move_capabilities,
    .wrong_replies = PTZ_WRONG_REPLIES,
};

constinit const ValueServiceDescription SCENE_MANAGER = {
    .nick = "scenes",
    .bus_name = "com.quon.VideoSceneManager1",
    .object_path = "/com/quon/VideoSceneManager1",
    .xml = SCENES_XML,
    .property = nullptr,
    .value = number_of_channels,
    .wrong_replies = SCENES_WRONG_REPLIES,
};

/**
 * ValueService:
 * @description: the service; outlives it
 * @camera: has the value; outlives the service
 */
ValueService::ValueService(const ValueServiceDescription &description, const Camera &camera)
    : Service(description.nick, description.bus_name, description.wrong_replies), description_(description),
      camera_(camera)
{
}

bool
ValueService::export_objects(GDBusConnection *connection, GError **error)
{
  /* Without get_property, GDBus passes calls for properties to method_call. */
  static constexpr GDBusInterfaceVTable VTABLE = {on_call, nullptr, nullptr, {}};

  return bus_register_object(connection, description_.object_path, description_.xml, &VTABLE, this, error);
}

void
ValueService::on_call(GDBusConnection *connection, const gchar *sender, const gchar *path,
                      const gchar *interface, const gchar *method, GVariant *arguments,
                      GDBusMethodInvocation *invocation, gpointer user_data)
{
  auto *self = static_cast<ValueService *>(user_data);
  GVariant *value = self->description_.value(self->camera_);

  if (self->description_.property != nullptr) {
    self->reply_property(invocation, self->description_.property, value);
  } else {
    self->reply(invocation, g_variant_new_tuple(&value, 1));
  }
}

} // namespace sim
