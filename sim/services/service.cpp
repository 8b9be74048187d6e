#include "service.h"

#include "bus.h"

namespace sim
{

namespace
{

constexpr const char *ERROR_NAME = "org.freedesktop.DBus.Error.Failed";

/* Takes the call over. */
void
answer_rightly(GDBusMethodInvocation *invocation, const RightAnswer &right)
{
  GError *error = nullptr;
  const std::optional<Reply> reply = right(&error);

  if (!reply.has_value()) {
    g_dbus_method_invocation_take_error(invocation, error);
    return;
  }
  g_autoptr(GUnixFDList) fds = reply->fds;
  bus_reply(invocation, reply->body, fds);
}

/* A reply of a wrong form, which may come with the right one's descriptors. Takes the call over. */
void
answer_wrongly(GDBusMethodInvocation *invocation, const Misbehaviour &how, const RightAnswer &right)
{
  g_autoptr(GUnixFDList) fds = nullptr;

  if (how.reply_has_descriptors) {
    if (const std::optional<Reply> reply = right(nullptr)) {
      g_variant_unref(g_variant_ref_sink(reply->body));
      fds = reply->fds;
    }
  }
  bus_reply(invocation, how.reply.get(), fds);
}

/* A slow answer on its way. */
struct LateAnswer {
  GDBusMethodInvocation *invocation; /* owned; unset once answered */
  RightAnswer right;

  ~LateAnswer()
  {
    g_clear_object(&invocation);
  }
};

gboolean
on_answer_due(gpointer user_data)
{
  auto *late = static_cast<LateAnswer *>(user_data);

  answer_rightly(g_steal_pointer(&late->invocation), late->right);
  return G_SOURCE_REMOVE;
}

/* Takes the call over. */
void
answer_later(GDBusMethodInvocation *call, RightAnswer right, guint delay_ms)
{
  g_timeout_add_full(G_PRIORITY_DEFAULT, delay_ms, on_answer_due, new LateAnswer{call, std::move(right)},
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
  const std::shared_ptr<GVariant> right(g_variant_ref_sink(body), g_variant_unref);

  answer(invocation, {}, [right](GError **error) { return Reply{.body = right.get()}; });
}

/**
 * Service::answer:
 * @invocation: (transfer full): a question
 * @particular: how whoever was asked misbehaves for itself; counts before how the service does
 * @right: makes the right answer, when that is sent
 *
 * Answers as the service behaves at the moment.
 */
void
Service::answer(GDBusMethodInvocation *invocation, const Misbehaviour &particular, RightAnswer right)
{
  const Misbehaviour &how = particular.conduct != Conduct::GOOD ? particular : misbehaviour_;

  calls_++;
  switch (how.conduct) {
  case Conduct::GOOD:
    answer_rightly(invocation, right);
    break;
  case Conduct::ERROR:
    g_dbus_method_invocation_return_dbus_error(invocation, ERROR_NAME, how.error_text.c_str());
    break;
  case Conduct::REPLY:
    answer_wrongly(invocation, how, right);
    break;
  case Conduct::SLOW:
    answer_later(invocation, std::move(right), how.delay_ms);
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
