/* SPDX-License-Identifier: MIT */
/* A private message bus in place of the system bus, with services whose replies a test selects.
 *
 * Each service has a thread, so that a test can make synchronous calls and can delay a reply.
 */
#pragma once

#include "testhost.h"
#include "testlist.h"

#include <condition_variable>
#include <functional>
#include <gio/gio.h>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace testbus
{

/* Sets the address of the system bus to that of Bus. Called before the first test, so that the objects that
 * GLib keeps after its first use of a bus do not count as left behind. Once in a process is enough. */
void install();

/* The bus. One at a time; without it the process has no bus. */
class Bus
{
public:
  Bus();
  ~Bus();
  Bus(const Bus &) = delete;
  Bus &operator=(const Bus &) = delete;

private:
  GPid pid_ = 0;
};

/* A test with a bus, which it can stop and start. */
class Fixture : public testhost::Fixture
{
protected:
  static void SetUpTestSuite();
  void SetUp() override;
  void TearDown() override;

  std::optional<Bus> bus_;
};

/* Makes a reply to a call without sending it, or NULL when the test sends one later. Called on the service's
 * thread. */
using Answer = std::function<GDBusMessage *(GDBusMessage *call)>;

/* A reply with a body in GVariant's text format, which is a tuple: "(<uint32 90>,)". */
Answer reply(const std::string &body);

/* A failure with a D-Bus error, or with one of the tests. */
Answer refuse(const std::string &name, const std::string &text);
Answer refuse();

/* A reply with these descriptors, which the caller keeps, and a body that is a tuple. */
Answer reply_with_fds(const std::string &body, const std::vector<int> &fds);

/* A name on the bus with the same reply to every call of any object, interface and arguments. */
class Service
{
public:
  Service(const char *name, Answer answer);

  /* The bus replies to pending calls that the service is gone. */
  ~Service();
  Service(const Service &) = delete;
  Service &operator=(const Service &) = delete;

  void set_answer(Answer answer);

  /* Sends a reply or a signal. The bus can be gone already. */
  void send(GDBusMessage *message);

  /* Releases the name and requests it again, without leaving the bus. */
  void take_name_again(const char *name);

  /* The calls since the last call of this, in order, each as "object interface.method arguments". */
  std::vector<std::string> take_calls();
  gsize calls_size();

  /* Whether calls get no reply. */
  void set_slow(bool slow);

private:
  static GDBusMessage *on_message(GDBusConnection *connection, GDBusMessage *message, gboolean incoming,
                                  gpointer user_data);
  static gboolean on_call(gpointer user_data);

  void run(const char *name);
  void answer(GDBusMessage *call);

  std::mutex lock_;
  std::condition_variable changed_;
  Answer answer_;
  GDBusConnection *connection_ = nullptr;
  std::vector<std::string> calls_;
  bool slow_ = false;
  bool ready_ = false;
  bool gone_ = false;

  GMainContext *context_;
  GMainLoop *loop_;
  std::thread thread_;
};

/* Calls that get their reply later. Any thread. */
class HeldCalls
{
public:
  HeldCalls() = default;
  ~HeldCalls();
  HeldCalls(const HeldCalls &) = delete;
  HeldCalls &operator=(const HeldCalls &) = delete;

  /* An answer that holds calls until their release. */
  Answer hold();
  gsize size();

  /* Sends this answer to all held calls; the callers can have left the bus. */
  void release(Service *service, const Answer &answer);

private:
  testhost::List<GDBusMessage *> calls_;
};

/* A call of the code under test that waits for its reply. NULL when it is cancelled first. */
using CancellableCall = std::function<GVariant *(GCancellable *cancellable)>;

/* Makes many calls and cancels each from another thread, at moments from its start to long after its reply.
 * Some calls must get their reply, some must not, and none may leave a descriptor open. */
void expect_no_loss_when_cancelled(const CancellableCall &call);

/* A connection that calls the code under test, which replies in the default main context. */
class Peer
{
public:
  Peer();
  ~Peer();
  Peer(const Peer &) = delete;
  Peer &operator=(const Peer &) = delete;

  GDBusConnection *connection() const;

  /* Closes the connection and waits until its "closed" signal is emitted. */
  void close();

  /* The unique name of the connection. */
  std::string name() const;

  void own(const char *name) const;
  void release(const char *name) const;
  bool has_owner(const char *name) const;

  /* The number of names on the bus, each connection's own one included. */
  gsize count_names() const;

  /* The result of a call, if it has ended: the reply's body in GVariant's text format, or the name of the
   * D-Bus error, ": " and its text. */
  using Outcome = std::shared_ptr<std::optional<std::string>>;

  /* A call. The arguments are a tuple, of which this takes a floating reference. */
  struct Call {
    std::string destination;
    std::string path;
    std::string interface;
    std::string method;
    GVariant *arguments = nullptr;
  };

  Outcome start(const Call &call) const;
  std::string call(const Call &call) const;

  /* Records the signals of this sender from now on, each as "object interface.signal arguments". */
  void listen(const std::string &sender);
  std::vector<std::string> take_signals();

private:
  static void on_signal(GDBusConnection *connection, const gchar *sender, const gchar *path,
                        const gchar *interface, const gchar *signal, GVariant *arguments, gpointer user_data);

  GDBusConnection *connection_;
  bool closed_ = false;
  guint subscription_id_ = 0;
  std::vector<std::string> signals_;
};

} // namespace testbus
