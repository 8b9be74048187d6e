/* SPDX-License-Identifier: MIT */
#include "videocapture.h"

#include <cstdlib>
#include <cstring>

/* The number of channels changes, so the objects are a subtree, which GDBus enumerates at every call. */

namespace sim
{

namespace
{

constexpr const char *CHANNELS_PATH = "/com/quon/Capt1/Channels";

constexpr const char *XML = R"(
<node>
  <interface name="com.quon.Capt1.Channel">
    <property name="settings" type="a{sv}" access="read"/>
  </interface>
</node>)";

constexpr std::array WRONG_REPLIES = {
    WrongReply{"wrong-type", "(<'wrong'>,)"},
    WrongReply{"wrong-number", "(<{'rotation': <90>}>,)"},
    WrongReply{"wrong-rotation", "(<{'rotation': <'wrong'>}>,)"},
    WrongReply{"no-variant", "({'rotation': <uint32 90>},)"},
    WrongReply{"nested", "(<<{'rotation': <uint32 90>}>>,)"},
    WrongReply{"empty", "()"},
};

} // namespace

VideoCapture::VideoCapture(const Camera &camera)
    : Service("capture", "com.quon.Capt1", WRONG_REPLIES), camera_(camera),
      introspection_(g_dbus_node_info_new_for_xml(XML, nullptr))
{
}

VideoCapture::~VideoCapture()
{
  g_dbus_node_info_unref(introspection_);
}

bool
VideoCapture::export_objects(GDBusConnection *connection, GError **error)
{
  static constexpr GDBusSubtreeVTable VTABLE = {on_enumerate, on_introspect, on_dispatch, {}};

  return g_dbus_connection_register_subtree(connection, CHANNELS_PATH, &VTABLE, G_DBUS_SUBTREE_FLAGS_NONE,
                                            this, nullptr, error) != 0;
}

gchar **
VideoCapture::on_enumerate(GDBusConnection *connection, const gchar *sender, const gchar *path,
                           gpointer user_data)
{
  auto *self = static_cast<VideoCapture *>(user_data);
  g_autoptr(GStrvBuilder) nodes = g_strv_builder_new();

  for (guint channel = 1; channel <= self->camera_.channels; channel++) {
    g_autofree gchar *node = g_strdup_printf("%u", channel);
    g_strv_builder_add(nodes, node);
  }
  return g_strv_builder_end(nodes);
}

/* @node is nullptr for the parent of the channels, which is not an object. */
GDBusInterfaceInfo **
VideoCapture::on_introspect(GDBusConnection *connection, const gchar *sender, const gchar *path,
                            const gchar *node, gpointer user_data)
{
  auto *self = static_cast<VideoCapture *>(user_data);

  if (node == nullptr) {
    return nullptr;
  }
  auto **interfaces = g_new0(GDBusInterfaceInfo *, 2);
  interfaces[0] = g_dbus_interface_info_ref(self->introspection_->interfaces[0]);
  return interfaces;
}

const GDBusInterfaceVTable *
VideoCapture::on_dispatch(GDBusConnection *connection, const gchar *sender, const gchar *path,
                          const gchar *interface, const gchar *node, gpointer *call_user_data,
                          gpointer user_data)
{
  /* Without get_property, GDBus passes calls for properties to method_call. */
  static constexpr GDBusInterfaceVTable VTABLE = {on_call, nullptr, nullptr, {}};

  *call_user_data = user_data;
  return &VTABLE;
}

void
VideoCapture::on_call(GDBusConnection *connection, const gchar *sender, const gchar *path,
                      const gchar *interface, const gchar *method, GVariant *arguments,
                      GDBusMethodInvocation *invocation, gpointer user_data)
{
  auto *self = static_cast<VideoCapture *>(user_data);

  self->reply_property(invocation, "settings", self->settings_of(path));
}

/* GDBus has compared the path with the enumerated nodes, so it ends with a valid channel. */
GVariant *
VideoCapture::settings_of(const char *path) const
{
  const unsigned long channel = strtoul(strrchr(path, '/') + 1, nullptr, 10);
  const std::optional<guint32> &rotation = camera_.rotations[channel - 1];
  g_auto(GVariantDict) settings = G_VARIANT_DICT_INIT(nullptr);

  if (rotation.has_value()) {
    g_variant_dict_insert(&settings, "rotation", "u", *rotation);
  }
  return g_variant_dict_end(&settings);
}

} // namespace sim
