#include "scenemanager.h"

#include "bus.h"

namespace sim
{

namespace
{

constexpr const char *OBJECT_PATH = "/com/quon/VideoSceneManager1";

constexpr const char *XML = R"(
<node>
  <interface name="com.quon.VideoSceneManager1.Scene">
    <method name="GetNumberOfChannels">
      <arg name="channels" type="i" direction="out"/>
    </method>
  </interface>
</node>)";

constexpr std::array WRONG_REPLIES = {
    WrongReply{"wrong-type", "('wrong',)"},
    WrongReply{"wrong-number", "(uint32 1,)"},
    WrongReply{"variant", "(<1>,)"},
    WrongReply{"nested", "((1,),)"},
    WrongReply{"empty", "()"},
};

} /* namespace */

SceneManager::SceneManager(const Camera &camera)
    : Service("scenes", "com.quon.VideoSceneManager1", WRONG_REPLIES), camera_(camera)
{
}

bool
SceneManager::export_objects(GDBusConnection *connection, GError **error)
{
  static constexpr GDBusInterfaceVTable VTABLE = {on_call, nullptr, nullptr, {}};

  return bus_register_object(connection, OBJECT_PATH, XML, &VTABLE, this, error);
}

void
SceneManager::on_call(GDBusConnection *connection, const gchar *sender, const gchar *path,
                      const gchar *interface, const gchar *method, GVariant *arguments,
                      GDBusMethodInvocation *invocation, gpointer user_data)
{
  auto *self = static_cast<SceneManager *>(user_data);

  self->answer(invocation, g_variant_new("(i)", static_cast<gint32>(self->camera_.channels)));
}

} /* namespace sim */
