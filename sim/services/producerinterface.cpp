/* SPDX-License-Identifier: MIT */
#include "producerinterface.h"

#include "bus.h"

#include <memory>

namespace
{

/* A format string; its argument is the name of the interface. */
constexpr const char *XML = R"(
<node>
  <interface name="%s">
    <method name="GetSampleFrame">
      <arg name="frame" type="s" direction="out"/>
    </method>
    <method name="GetStreamFd">
      <arg name="channel" type="i" direction="in"/>
      <arg name="fd" type="h" direction="out"/>
    </method>
    <property name="Name" type="s" access="read"/>
    <property name="NiceName" type="s" access="read"/>
    <property name="SupportedChannels" type="au" access="read"/>
  </interface>
</node>)";

struct State {
  std::shared_ptr<GDBusNodeInfo> node;
  sim::ProducerProperties properties;
  sim::ProducerCall call;
};

struct ProducerInterface {
  GDBusInterfaceSkeleton parent_instance;
  State *state;
};

struct ProducerInterfaceClass {
  GDBusInterfaceSkeletonClass parent_class;
};

GType producer_interface_get_type(void);

G_DEFINE_FINAL_TYPE(ProducerInterface, producer_interface, G_TYPE_DBUS_INTERFACE_SKELETON)

State *
state_of(gpointer object)
{
  return static_cast<ProducerInterface *>(object)->state;
}

GVariant *
all_properties(gpointer object)
{
  return g_variant_ref_sink(state_of(object)->properties());
}

/* Replies to a call of the standard interface for properties. An omitted property does not exist. */
void
reply_property(gpointer object, GVariant *arguments, GDBusMethodInvocation *invocation)
{
  g_autoptr(GVariant) properties = all_properties(object);
  const gchar *name = nullptr;

  if (g_str_equal(g_dbus_method_invocation_get_method_name(invocation), "GetAll")) {
    sim::bus_reply(invocation, g_variant_new("(@a{sv})", properties), nullptr);
    return;
  }
  g_variant_get(arguments, "(s&s)", nullptr, &name);
  g_autoptr(GVariant) value = g_variant_lookup_value(properties, name, nullptr);
  if (value == nullptr) {
    g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
                                          "No such property “%s”", name);
    return;
  }
  sim::bus_reply(invocation, g_variant_new("(v)", value), nullptr);
}

void
on_call(GDBusConnection *connection, const gchar *sender, const gchar *path, const gchar *interface,
        const gchar *method, GVariant *arguments, GDBusMethodInvocation *invocation, gpointer user_data)
{
  if (g_str_equal(interface, "org.freedesktop.DBus.Properties")) {
    reply_property(user_data, arguments, invocation);
  } else {
    state_of(user_data)->call(method, arguments, invocation);
  }
}

GDBusInterfaceInfo *
get_info(GDBusInterfaceSkeleton *skeleton)
{
  return state_of(skeleton)->node->interfaces[0];
}

GDBusInterfaceVTable *
get_vtable(GDBusInterfaceSkeleton *skeleton)
{
  /* Without get_property, GDBus passes calls for properties to method_call. */
  static GDBusInterfaceVTable vtable = {on_call, nullptr, nullptr, {}};

  return &vtable;
}

GVariant *
get_properties(GDBusInterfaceSkeleton *skeleton)
{
  return all_properties(skeleton);
}

/* The properties do not change while the object is exported. */
void
flush(GDBusInterfaceSkeleton *skeleton)
{
}

void
finalize(GObject *object)
{
  delete state_of(object);
  G_OBJECT_CLASS(producer_interface_parent_class)->finalize(object);
}

void
producer_interface_init(ProducerInterface *self)
{
  self->state = new State;
}

void
producer_interface_class_init(ProducerInterfaceClass *klass)
{
  GDBusInterfaceSkeletonClass *skeleton_class = G_DBUS_INTERFACE_SKELETON_CLASS(klass);

  G_OBJECT_CLASS(klass)->finalize = finalize;
  skeleton_class->get_info = get_info;
  skeleton_class->get_vtable = get_vtable;
  skeleton_class->get_properties = get_properties;
  skeleton_class->flush = flush;
}

} // namespace

namespace sim
{

/**
 * producer_interface_new:
 * @name: a valid name of an interface
 * @properties: returns the current properties
 * @call: replies to the methods
 *
 * Returns: (transfer full): the interface, for an object
 */
GDBusInterfaceSkeleton *
producer_interface_new(const std::string &name, ProducerProperties properties, ProducerCall call)
{
  auto *self = static_cast<ProducerInterface *>(g_object_new(producer_interface_get_type(), nullptr));
  g_autofree gchar *xml = g_strdup_printf(XML, name.c_str());

  *self->state = {{g_dbus_node_info_new_for_xml(xml, nullptr), g_dbus_node_info_unref},
                  std::move(properties),
                  std::move(call)};
  return G_DBUS_INTERFACE_SKELETON(self);
}

} // namespace sim
