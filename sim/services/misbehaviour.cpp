#include "misbehaviour.h"

#include "bus.h"

#include <array>

/* The ways to misbehave that every service has stand in one table; replies of a wrong form are named by each
 * service, which alone knows what the right one is. GDBus would check replies against the interface, so a
 * wrong one is made from text and sent as a message of its own. */

namespace sim
{

namespace
{

constexpr const char *DEFAULT_ERROR_TEXT = "The simulated service fails.";

bool
prepare_error(Misbehaviour *misbehaviour, const std::string *argument, GError **error)
{
  misbehaviour->conduct = Conduct::ERROR;
  misbehaviour->error_text = argument != nullptr ? *argument : DEFAULT_ERROR_TEXT;
  return true;
}

bool
prepare_reply(Misbehaviour *misbehaviour, const std::string *argument, GError **error)
{
  g_autoptr(GError) found = nullptr;
  g_autoptr(GVariant) body = g_variant_parse(nullptr, argument->c_str(), nullptr, nullptr, &found);

  if (body == nullptr) {
    return refuse(error, "the reply is not in GVariant's text format: %s", found->message);
  }
  if (!g_variant_is_of_type(body, G_VARIANT_TYPE_TUPLE)) {
    return refuse(error, "the reply must be a tuple, not '%s'", argument->c_str());
  }
  if (!bus_can_carry(body)) {
    return refuse(error, "the bus carries no such reply: '%s'", argument->c_str());
  }
  misbehaviour->conduct = Conduct::REPLY;
  misbehaviour->reply.reset(g_steal_pointer(&body));
  return true;
}

bool
prepare_slow(Misbehaviour *misbehaviour, const std::string *argument, GError **error)
{
  gint64 delay_ms = 0;

  if (!parse_number(*argument, "the delay in milliseconds", 1, Misbehaviour::MAX_DELAY_MS, &delay_ms,
                    error)) {
    return false;
  }
  misbehaviour->conduct = Conduct::SLOW;
  misbehaviour->delay_ms = static_cast<guint>(delay_ms);
  return true;
}

bool
prepare_never(Misbehaviour *misbehaviour, const std::string *argument, GError **error)
{
  misbehaviour->conduct = Conduct::NEVER;
  return true;
}

struct Kind {
  const char *name;
  gsize min_arguments; /* of one at most */
  gsize max_arguments;
  const char *usage;
  bool (*prepare)(Misbehaviour *misbehaviour, const std::string *argument, GError **error);
};

constexpr std::array KINDS = {
    Kind{"error", 0, 1, "error [TEXT]", prepare_error},
    Kind{"reply", 1, 1, "reply BODY", prepare_reply},
    Kind{"slow", 1, 1, "slow MILLISECONDS", prepare_slow},
    Kind{"never", 0, 0, "never", prepare_never},
};

bool
prepare(const Kind &kind, const Words &words, Misbehaviour *misbehaviour, GError **error)
{
  const gsize arguments = words.size() - 1;

  if (arguments < kind.min_arguments || arguments > kind.max_arguments) {
    return refuse(error, "wrong number of arguments; usage: %s", kind.usage);
  }
  return kind.prepare(misbehaviour, arguments > 0 ? &words[1] : nullptr, error);
}

bool
prepare(const WrongReply &wrong, const Words &words, Misbehaviour *misbehaviour, GError **error)
{
  const std::string body = wrong.body;

  if (words.size() > 1) {
    return refuse(error, "wrong number of arguments; usage: %s", wrong.kind);
  }
  misbehaviour->reply_has_descriptors = wrong.with_descriptors;
  return prepare_reply(misbehaviour, &body, error);
}

} /* namespace */

void
Misbehaviour::Free::operator()(GVariant *variant) const
{
  g_variant_unref(variant);
}

/**
 * misbehaviour_parse:
 * @words: the kind and its argument
 * @wrong_replies: the replies of a wrong form that the service has
 * @misbehaviour: (out): how the service shall answer; complete only on success
 * @error: set if there is no such kind, or its argument is wrong
 *
 * Returns: whether @misbehaviour is set
 */
bool
misbehaviour_parse(const Words &words, std::span<const WrongReply> wrong_replies, Misbehaviour *misbehaviour,
                   GError **error)
{
  const std::string name = words.empty() ? "" : words[0];

  for (const Kind &kind : KINDS) {
    if (name == kind.name) {
      return prepare(kind, words, misbehaviour, error);
    }
  }
  for (const WrongReply &wrong : wrong_replies) {
    if (name == wrong.kind) {
      return prepare(wrong, words, misbehaviour, error);
    }
  }
  return refuse(error, "unknown misbehaviour '%s'; there are: %s", name.c_str(),
                misbehaviour_list(wrong_replies).c_str());
}

/**
 * misbehaviour_list:
 * @wrong_replies: the replies of a wrong form that the service has
 *
 * Returns: every way in which the service can misbehave, for a person to read
 */
std::string
misbehaviour_list(std::span<const WrongReply> wrong_replies)
{
  std::string list;

  for (const Kind &kind : KINDS) {
    list.append(list.empty() ? "" : ", ").append(kind.usage);
  }
  for (const WrongReply &wrong : wrong_replies) {
    list.append(", ").append(wrong.kind);
  }
  return list;
}

} /* namespace sim */
