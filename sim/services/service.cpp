/* SPDX-License-Identifier: MIT */
#include "service.h"

#include "bus.h"

namespace sim
{

namespace
{

constexpr const char *ERROR_NAME = "org.freedesktop.DBus.Error.Failed";

/* @invocation: (transfer full) */
void
send_reply(GDBusMethodInvocation *invocation, const ReplyMaker &make_reply)
{
  GError *error = nullptr;
  const std::optional<Reply> reply = make_reply(&error);

  if (!reply.has_value()) {
    g_dbus_method_invocation_take_error(invocation, error);
    return;
  }
  g_autoptr(GUnixFDList) fds = reply->fds;
  bus_reply(invocation, reply->body, fds);
}

/* Sends a reply of a wrong form, if necessary with the correct reply's descriptors.
 *
 * @invocation: (transfer full) */
void
send_wrong_reply(GDBusMethodInvocation *invocation, const Fault &fault, const ReplyMaker &make_reply)
{
  g_autoptr(GUnixFDList) fds = nullptr;

  if (fault.reply_has_descriptors) {
    if (const std::optional<Reply> reply = make_reply(nullptr)) {
      g_variant_unref(g_variant_ref_sink(reply->body));
      fds = reply->fds;
    }
  }
  bus_reply(invocation, fault.reply.get(), fds);
}

struct DelayedReply {
  GDBusMethodInvocation *invocation; /* owned; nullptr after the reply */
  ReplyMaker make_reply;

  ~DelayedReply()
  {
    g_clear_object(&invocation);
  }
};

gboolean
on_reply_due(gpointer user_data)
{
  auto *delayed = static_cast<DelayedReply *>(user_data);

  send_reply(g_steal_pointer(&delayed->invocation), delayed->make_reply);
  return G_SOURCE_REMOVE;
}

/* @invocation: (transfer full) */
void
reply_later(GDBusMethodInvocation *invocation, ReplyMaker make_reply, guint delay_ms)
{
  g_timeout_add_full(G_PRIORITY_DEFAULT, delay_ms, on_reply_due,
                     new DelayedReply{invocation, std::move(make_reply)},
                     [](gpointer data) { delete static_cast<DelayedReply *>(data); });
}

} // namespace

Service::Service(const char *nick, const char *bus_name, std::span<const WrongReply> wrong_replies)
    : nick_(nick), bus_name_(bus_name), wrong_replies_(wrong_replies)
{
}

Service::~Service()
{
  g_clear_object(&connection_);
}

const std::string &
Service::nick() const
{
  return nick_;
}

/**
 * Service::calls:
 *
 * Returns: the number of calls that have arrived, including those with faults
 */
guint64
Service::calls() const
{
  return calls_;
}

/**
 * Service::publish:
 * @connection: the connection to the bus
 * @error: set if the name is taken
 *
 * Exports the objects and then acquires the name, unless the service is absent. Call it once.
 *
 * Returns: whether the service is published
 */
bool
Service::publish(GDBusConnection *connection, GError **error)
{
  connection_ = G_DBUS_CONNECTION(g_object_ref(connection));
  return export_objects(connection, error) && (!present_ || bus_name_own(connection, bus_name_, error));
}

/**
 * Service::make_present:
 * @error: set if the name is taken
 *
 * Acquires the name, or makes publish() acquire it.
 *
 * Returns: whether the service is present
 */
bool
Service::make_present(GError **error)
{
  if (connection_ != nullptr && !bus_name_own(connection_, bus_name_, error)) {
    return false;
  }
  present_ = true;
  return true;
}

/**
 * Service::make_absent:
 * @error: set if the bus does not reply
 *
 * Releases the name, or keeps publish() from acquiring it.
 *
 * Returns: whether the service is absent
 */
bool
Service::make_absent(GError **error)
{
  if (connection_ != nullptr && !bus_name_release(connection_, bus_name_, error)) {
    return false;
  }
  present_ = false;
  return true;
}

/**
 * Service::inject_fault:
 * @arguments: the fault and its argument, see fault_parse()
 * @error: set if the fault is unknown; the current fault then stays
 *
 * Injects a fault into the replies to all later calls. Delayed replies to earlier calls are still sent.
 *
 * Returns: whether the fault is injected
 */
bool
Service::inject_fault(const Arguments &arguments, GError **error)
{
  Fault fault;

  if (!fault_parse(arguments, wrong_replies_, &fault, error)) {
    return false;
  }
  fault_ = std::move(fault);
  return true;
}

/**
 * Service::clear_fault:
 *
 * Sends correct replies to all later calls.
 */
void
Service::clear_fault()
{
  fault_ = {};
}

/**
 * Service::reply:
 * @invocation: (transfer full): a call
 * @body: (transfer floating): the correct reply
 *
 * Replies, with the service's fault if there is one.
 */
void
Service::reply(GDBusMethodInvocation *invocation, GVariant *body)
{
  const std::shared_ptr<GVariant> correct(g_variant_ref_sink(body), g_variant_unref);

  reply(invocation, {}, [correct](GError **error) { return Reply{.body = correct.get()}; });
}

/**
 * Service::reply:
 * @invocation: (transfer full): a call
 * @own_fault: the fault of the object that was called; overrides the service's fault
 * @make_reply: makes the correct reply when it is sent
 *
 * Replies, with the fault if there is one.
 */
void
Service::reply(GDBusMethodInvocation *invocation, const Fault &own_fault, ReplyMaker make_reply)
{
  const Fault &fault = own_fault.type != FaultType::NONE ? own_fault : fault_;

  calls_++;
  switch (fault.type) {
  case FaultType::NONE:
    send_reply(invocation, make_reply);
    break;
  case FaultType::ERROR:
    g_dbus_method_invocation_return_dbus_error(invocation, ERROR_NAME, fault.error_text.c_str());
    break;
  case FaultType::REPLY:
    send_wrong_reply(invocation, fault, make_reply);
    break;
  case FaultType::DELAY:
    reply_later(invocation, std::move(make_reply), fault.delay_ms);
    break;
  case FaultType::NO_REPLY:
    g_object_unref(invocation);
    break;
  }
}

/**
 * Service::reply_property:
 * @invocation: (transfer full): a call of the standard interface for properties
 * @name: the only property of the object
 * @value: (transfer floating): its value
 *
 * Replies to "Get", with the service's fault if there is one, and to "GetAll", which is never counted and
 * always correct: generic D-Bus tools and proxies that cache properties call it.
 */
void
Service::reply_property(GDBusMethodInvocation *invocation, const char *name, GVariant *value)
{
  g_autoptr(GVariant) correct = g_variant_ref_sink(value);

  if (g_str_equal(g_dbus_method_invocation_get_method_name(invocation), "Get")) {
    reply(invocation, g_variant_new("(v)", correct));
    return;
  }
  GVariant *entry = g_variant_new_dict_entry(g_variant_new_string(name), g_variant_new_variant(correct));
  GVariant *all = g_variant_new_array(nullptr, &entry, 1);
  g_dbus_method_invocation_return_value(invocation, g_variant_new_tuple(&all, 1));
}

} // namespace sim
