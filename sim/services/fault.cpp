/* SPDX-License-Identifier: MIT */
#include "fault.h"

#include "bus.h"

#include <array>

/* One table has the faults of all services. Each service names its own replies of a wrong form, because they
 * depend on the correct one. GDBus would compare a reply with the interface, so a wrong reply is parsed from
 * text and sent as a message. */

namespace sim
{

namespace
{

constexpr const char *DEFAULT_ERROR_TEXT = "The simulated service fails.";

bool
prepare_error(Fault *fault, const std::string *argument, GError **error)
{
  fault->type = FaultType::ERROR;
  fault->error_text = argument != nullptr ? *argument : DEFAULT_ERROR_TEXT;
  return true;
}

bool
prepare_reply(Fault *fault, const std::string *argument, GError **error)
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
  fault->type = FaultType::REPLY;
  fault->reply.reset(g_steal_pointer(&body));
  return true;
}

bool
prepare_delay(Fault *fault, const std::string *argument, GError **error)
{
  gint64 delay_ms = 0;

  if (!parse_number(*argument, "the delay in milliseconds", 1, Fault::MAX_DELAY_MS, &delay_ms, error)) {
    return false;
  }
  fault->type = FaultType::DELAY;
  fault->delay_ms = static_cast<guint>(delay_ms);
  return true;
}

bool
prepare_no_reply(Fault *fault, const std::string *argument, GError **error)
{
  fault->type = FaultType::NO_REPLY;
  return true;
}

/* A fault that every service has; it takes at most one argument. */
struct CommonFault {
  const char *name;
  gsize min_arguments;
  gsize max_arguments;
  const char *usage;
  bool (*prepare)(Fault *fault, const std::string *argument, GError **error);
};

constexpr std::array COMMON_FAULTS = {
    CommonFault{"error", 0, 1, "error [TEXT]", prepare_error},
    CommonFault{"reply", 1, 1, "reply BODY", prepare_reply},
    CommonFault{"slow", 1, 1, "slow MILLISECONDS", prepare_delay},
    CommonFault{"never", 0, 0, "never", prepare_no_reply},
};

bool
prepare(const CommonFault &common, const Arguments &arguments, Fault *fault, GError **error)
{
  const gsize count = arguments.size() - 1;

  if (count < common.min_arguments || count > common.max_arguments) {
    return refuse(error, "wrong number of arguments; usage: %s", common.usage);
  }
  return common.prepare(fault, count > 0 ? &arguments[1] : nullptr, error);
}

bool
prepare(const WrongReply &wrong, const Arguments &arguments, Fault *fault, GError **error)
{
  const std::string body = wrong.body;

  if (arguments.size() > 1) {
    return refuse(error, "wrong number of arguments; usage: %s", wrong.fault);
  }
  fault->reply_has_descriptors = wrong.with_descriptors;
  return prepare_reply(fault, &body, error);
}

} // namespace

void
Fault::Free::operator()(GVariant *variant) const
{
  g_variant_unref(variant);
}

/**
 * fault_parse:
 * @arguments: the name of the fault and its argument
 * @wrong_replies: the service's replies of a wrong form
 * @fault: (out): the fault; complete only on success
 * @error: set if the fault is unknown or its argument is wrong
 *
 * Returns: whether @fault is complete
 */
bool
fault_parse(const Arguments &arguments, std::span<const WrongReply> wrong_replies, Fault *fault,
            GError **error)
{
  const std::string name = arguments.empty() ? "" : arguments[0];

  for (const CommonFault &common : COMMON_FAULTS) {
    if (name == common.name) {
      return prepare(common, arguments, fault, error);
    }
  }
  for (const WrongReply &wrong : wrong_replies) {
    if (name == wrong.fault) {
      return prepare(wrong, arguments, fault, error);
    }
  }
  return refuse(error, "unknown fault '%s'; there are: %s", name.c_str(), fault_list(wrong_replies).c_str());
}

/**
 * fault_list:
 * @wrong_replies: the service's replies of a wrong form
 *
 * Returns: the usage of all faults of the service, for messages
 */
std::string
fault_list(std::span<const WrongReply> wrong_replies)
{
  std::string list;

  for (const CommonFault &common : COMMON_FAULTS) {
    list.append(list.empty() ? "" : ", ").append(common.usage);
  }
  for (const WrongReply &wrong : wrong_replies) {
    list.append(", ").append(wrong.fault);
  }
  return list;
}

} // namespace sim
