#include "ptzcoordinator.h"

#include "bus.h"

namespace sim
{

namespace
{

constexpr const char *OBJECT_PATH = "/com/quon/PTZ/Coordinator/1";

constexpr const char *XML = R"(
<node>
  <interface name="com.quon.PTZ.Coordinator">
    <property name="DriverMoveCapabilities" type="i" access="read"/>
  </interface>
</node>)";

constexpr std::array WRONG_REPLIES = {
    WrongReply{"wrong-type", "(<'wrong'>,)"},
    WrongReply{"wrong-number", "(<uint32 1>,)"},
    WrongReply{"no-variant", "(1,)"},
    WrongReply{"nested", "(<<1>>,)"},
    WrongReply{"empty", "()"},
};

} /* namespace */

PtzCoordinator::PtzCoordinator(const Camera &camera)
    : Service("ptz", "com.quon.PTZ.Coordinator", WRONG_REPLIES), camera_(camera)
{
}

bool
PtzCoordinator::export_objects(GDBusConnection *connection, GError **error)
{
  /* Without get_property, what comes for properties comes to method_call. */
  static constexpr GDBusInterfaceVTable VTABLE = {on_call, nullptr, nullptr, {}};

  return bus_register_object(connection, OBJECT_PATH, XML, &VTABLE, this, error);
}

void
PtzCoordinator::on_call(GDBusConnection *connection, const gchar *sender, const gchar *path,
                        const gchar *interface, const gchar *method, GVariant *arguments,
                        GDBusMethodInvocation *invocation, gpointer user_data)
{
  auto *self = static_cast<PtzCoordinator *>(user_data);

  self->answer_property(invocation, "DriverMoveCapabilities",
                        g_variant_new_int32(self->camera_.move_capabilities));
}

} /* namespace sim */
