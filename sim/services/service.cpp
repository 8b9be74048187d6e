#include "service.h"

#include "bus.h"

namespace sim
{

namespace
{

constexpr const char *ERROR_NAME = "org.freedesktop.DBus.Error.Failed";

/* As a message, because GDBus holds a method's result against the interface and drops what does not fit.
 * Takes the call over. */
void
send_reply(GDBusMethodInvocation *call, GVariant *body)
{
  g_autoptr(GDBusMethodInvocation) invocation = call;
  g_autoptr(GDBusMessage) reply =
      g_dbus_message_new_method_reply(g_dbus_method_invocation_get_message(invocation));

  g_dbus_message_set_body(reply, body);
  g_dbus_connection_send_message(g_dbus_method_invocation_get_connection(invocation), reply,
                                 G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
}

/* A slow answer on its way. */
struct LateAnswer {
  GDBusMethodInvocation *invocation; /* owned; unset once answered */
  GVariant *body;                    /* owned */

  ~LateAnswer()
  {
    g_clear_object(&invocation);
    g_variant_unref(body);
  }
};

gboolean
on_answer_due(gpointer user_data)
{
  auto *late = static_cast<LateAnswer *>(user_data);

  send_reply(g_steal_pointer(&late->invocation), late->body);
  return G_SOURCE_REMOVE;
}

/* Takes the call over. */
void
send_reply_later(GDBusMethodInvocation *call, GVariant *body, guint delay_ms)
{
  g_timeout_add_full(G_PRIORITY_DEFAULT, delay_ms, on_answer_due, new LateAnswer{call, g_variant_ref(body)},
                     [](gpointer data) { delete static_cast<LateAnswer *>(data); });
}

} /* namespace */

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
 * Returns: how many questions have arrived, whatever became of them
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
 * Puts the objects on the bus and then takes the name, unless the service is to be absent. To be called once.
 *
 * Returns: whether the service is there, as far as it should be
 */
bool
Service::publish(GDBusConnection *connection, GError **error)
{
  connection_ = G_DBUS_CONNECTION(g_object_ref(connection));
  return export_objects(connection, error) && (!present_ || bus_name_own(connection, bus_name_, error));
}

/**
 * Service::appear:
 * @error: set if the name is taken
 *
 * Owns the name, at once or as soon as there is a bus.
 *
 * Returns: whether the service is there
 */
bool
Service::appear(GError **error)
{
  if (connection_ != nullptr && !bus_name_own(connection_, bus_name_, error)) {
    return false;
  }
  present_ = true;
  return true;
}

/**
 * Service::vanish:
 * @error: set if the bus does not answer
 *
 * Gives the name up, or does not take it in the first place.
 *
 * Returns: whether the service is absent
 */
bool
Service::vanish(GError **error)
{
  if (connection_ != nullptr && !bus_name_release(connection_, bus_name_, error)) {
    return false;
  }
  present_ = false;
  return true;
}

/**
 * Service::misbehave:
 * @words: how, see misbehaviour_parse()
 * @error: set if there is no such misbehaviour; the service then goes on as before
 *
 * Misbehaves from the next question on. Slow answers on their way still come.
 *
 * Returns: whether it does
 */
bool
Service::misbehave(const Words &words, GError **error)
{
  Misbehaviour asked;

  if (!misbehaviour_parse(words, wrong_replies_, &asked, error)) {
    return false;
  }
  misbehaviour_ = std::move(asked);
  return true;
}

/**
 * Service::behave:
 *
 * Gives the right answer from the next question on.
 */
void
Service::behave()
{
  misbehaviour_ = {};
}

/**
 * Service::answer:
 * @invocation: (transfer full): a question
 * @body: (transfer floating): the right answer
 *
 * Answers as the service behaves at the moment.
 */
void
Service::answer(GDBusMethodInvocation *invocation, GVariant *body)
{
  g_autoptr(GVariant) right = g_variant_ref_sink(body);

  calls_++;
  switch (misbehaviour_.conduct) {
  case Conduct::GOOD:
    send_reply(invocation, right);
    break;
  case Conduct::ERROR:
    g_dbus_method_invocation_return_dbus_error(invocation, ERROR_NAME, misbehaviour_.error_text.c_str());
    break;
  case Conduct::REPLY:
    send_reply(invocation, misbehaviour_.reply.get());
    break;
  case Conduct::SLOW:
    send_reply_later(invocation, right, misbehaviour_.delay_ms);
    break;
  case Conduct::NEVER:
    g_object_unref(invocation);
    break;
  }
}

/**
 * Service::answer_property:
 * @invocation: (transfer full): what came to the standard interface for properties
 * @name: the only property that the object has
 * @value: (transfer floating): its value
 *
 * Answers "Get", which is a question, and "GetAll", which is none: that comes from tools that look around,
 * and from clients that keep copies of properties.
 */
void
Service::answer_property(GDBusMethodInvocation *invocation, const char *name, GVariant *value)
{
  g_autoptr(GVariant) right = g_variant_ref_sink(value);

  if (g_str_equal(g_dbus_method_invocation_get_method_name(invocation), "Get")) {
    answer(invocation, g_variant_new("(v)", right));
    return;
  }
  GVariant *entry = g_variant_new_dict_entry(g_variant_new_string(name), g_variant_new_variant(right));
  GVariant *all = g_variant_new_array(nullptr, &entry, 1);
  g_dbus_method_invocation_return_value(invocation, g_variant_new_tuple(&all, 1));
}

} /* namespace sim */
