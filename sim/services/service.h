#pragma once

#include "misbehaviour.h"

#include <functional>
#include <gio/gunixfdlist.h>
#include <optional>

namespace sim
{

/* What answers a question. */
struct Reply {
  GVariant *body;             /* floating, or somebody else's */
  GUnixFDList *fds = nullptr; /* owned by whoever gets the reply; unset if no descriptors come with it */
};

/* Makes the right answer, or sets the error that is the right answer. */
using RightAnswer = std::function<std::optional<Reply>(GError **error)>;

/* One service of the platform: a name on the bus, objects behind it, and how it behaves. Main thread only.
 *
 * A service's own file says what its objects are and what the right answer to a question is; answer() then
 * gives that answer or whatever somebody asked for in its place. Only the questions that go through answer()
 * are counted and misbehaved upon. */
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
  bool appear(GError **error);
  bool vanish(GError **error);
  bool misbehave(const Words &words, GError **error);
  void behave();

protected:
  virtual bool export_objects(GDBusConnection *connection, GError **error) = 0;

  void answer(GDBusMethodInvocation *invocation, GVariant *body);
  void answer(GDBusMethodInvocation *invocation, const Misbehaviour &particular, RightAnswer right);
  void answer_property(GDBusMethodInvocation *invocation, const char *name, GVariant *value);

private:
  const std::string nick_;
  const char *bus_name_;
  std::span<const WrongReply> wrong_replies_;
  GDBusConnection *connection_ = nullptr; /* owned; unset until the service is published */
  bool present_ = true;
  Misbehaviour misbehaviour_;
  guint64 calls_ = 0;
};

} /* namespace sim */
