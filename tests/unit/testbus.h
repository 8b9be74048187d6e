/* The camera's message bus as the daemon's components need it: a real one of the test program's own, in place
 * of the system's, with services whose answers a test chooses.
 *
 * Every service answers on a thread of its own, so a test may ask it synchronously, and may let an answer
 * wait.
 */
#pragma once

#include "testhost.h"

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

/* Makes this process look for the system's bus where a Bus will be, and nowhere else. Called before a test
 * sets up, so that what GLib keeps once it has talked to a bus does not look as if the test had left it
 * behind. Once in a process is enough. */
void install();

/* The bus. One at a time; without it there is none. */
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

/* A test with a bus, which it may take away and bring back. */
class Fixture : public testhost::Fixture
{
protected:
  static void SetUpTestSuite();
  void SetUp() override;
  void TearDown() override;

  std::optional<Bus> bus_;
};

/* Makes a reply to a call, without sending it, or none, when the test sends one later. Called on the
 * service's thread. */
using Answer = std::function<GDBusMessage *(GDBusMessage *call)>;

/* A reply with a body in GVariant's text format, which is a tuple: "(<uint32 90>,)". */
Answer reply(const std::string &body);

/* A failure with a D-Bus error of the tests' own. */
Answer refuse();

/* A name on the bus that answers every call in the same way, whatever its object, interface and arguments. */
class Service
{
public:
  Service(const char *name, Answer answer);

  /* A call that still waits for its answer gets none from the service, but the bus' word that it is gone. */
  ~Service();
  Service(const Service &) = delete;
  Service &operator=(const Service &) = delete;

  void set_answer(Answer answer);

  /* Sends a reply or a signal of the service's. The bus may be gone by then. */
  void send(GDBusMessage *message);

  /* Gives the name up and takes it again, without leaving the bus. */
  void take_name_again(const char *name);

  /* The calls since the last call of this, in order, each as "object interface.method arguments". */
  std::vector<std::string> take_calls();
  gsize calls_size();

  /* Lets every call wait for its answer from now on, or no longer. */
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

/* A call of the code under test that waits for its reply. NULL when it is cancelled first. */
using CancellableCall = std::function<GVariant *(GCancellable *cancellable)>;

/* Calls many times, and cancels each call from another thread at another moment between its begin and long
 * after its reply. Some calls must get their reply and some must not; none may leave a descriptor open. */
void expect_no_loss_when_cancelled(const CancellableCall &call);

/* Somebody on the bus who asks the code under test, in the default main context, where that answers. */
class Peer
{
public:
  Peer();
  ~Peer();
  Peer(const Peer &) = delete;
  Peer &operator=(const Peer &) = delete;

  GDBusConnection *connection() const;

  /* Closes the connection, and waits until everybody has been told. */
  void close();

  /* The connection's own name, which the bus chose. */
  std::string name() const;

  void own(const char *name) const;
  void release(const char *name) const;
  bool has_owner(const char *name) const;

  /* What becomes of a call: the reply's body in GVariant's text format, or the name of the D-Bus error, ": "
   * and its text; nothing yet. */
  using Outcome = std::shared_ptr<std::optional<std::string>>;

  /* What is asked of whom. The arguments are a tuple, of which this takes a floating reference. */
  struct Call {
    std::string destination;
    std::string path;
    std::string interface;
    std::string method;
    GVariant *arguments = nullptr;
  };

  Outcome start(const Call &call) const;
  std::string call(const Call &call) const;

  /* Notes the signals of this sender from now on, each as "object interface.signal arguments". */
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
