/* SPDX-License-Identifier: MIT */
#pragma once

#include "fault.h"

#include <functional>
#include <gio/gunixfdlist.h>
#include <optional>

namespace sim
{

/* The reply to a call. */
struct Reply {
  GVariant *body;             /* floating, or owned by the maker of the reply */
  GUnixFDList *fds = nullptr; /* (transfer full) (nullable): its descriptors */
};

/* Makes the correct reply; unset with @error set if the correct reply is an error. */
using ReplyMaker = std::function<std::optional<Reply>(GError **error)>;

/* One service of the platform: a name on the bus, its objects, and the fault that is injected into it. Main
 * thread only.
 *
 * A derived class exports its objects and passes the correct reply to each call to reply(), which counts the
 * call and applies the fault. Calls that do not go through reply() are not counted and have no fault. */
class Service
{
public:
  Service(const char *nick, const char *bus_name, std::span<const WrongReply> wrong_replies);
  virtual ~Service();
  Service(const Service &) = delete;
  Service &operator=(const Service &) = delete;

  const std::string &nick() const;
  guint64 calls() const;

  bool publish(GDBusConnection *connection, GError **error);
  bool make_present(GError **error);
  bool make_absent(GError **error);
  bool inject_fault(const Arguments &arguments, GError **error);
  void clear_fault();

protected:
  virtual bool export_objects(GDBusConnection *connection, GError **error) = 0;

  void reply(GDBusMethodInvocation *invocation, GVariant *body);
  void reply(GDBusMethodInvocation *invocation, const Fault &own_fault, ReplyMaker make_reply);
  void reply_property(GDBusMethodInvocation *invocation, const char *name, GVariant *value);

private:
  const std::string nick_;
  const char *bus_name_;
  std::span<const WrongReply> wrong_replies_;
  GDBusConnection *connection_ = nullptr; /* owned; nullptr until publish() */
  bool present_ = true;
  Fault fault_;
  guint64 calls_ = 0;
};

} // namespace sim
