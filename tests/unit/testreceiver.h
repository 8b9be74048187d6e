/* SPDX-License-Identifier: MIT */
/* The platform's metadata receiver on the private bus, with selectable objects, properties and replies. */
#pragma once

#include "testbus.h"
#include "testhost.h"

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace testreceiver
{

/* An object of the receiver and its replies. */
struct Object {
  std::string interfaces; /* a{sa{sv}} in GVariant's text format */
  testbus::Answer sample_frame;
  testbus::Answer stream_fd;
};

/* The interface of a producer with these properties, a{sv} in GVariant's text format. */
std::string with_properties(const std::string &properties);

/* A producer of the channels 1 and 2 with correct replies. */
Object producer(const std::string &name);

class Receiver
{
public:
  /* Puts the receiver on the bus. */
  Receiver();
  Receiver(const Receiver &) = delete;
  Receiver &operator=(const Receiver &) = delete;

  /* Adds an object of this name below the root. On the bus, it sends the signal. */
  void add(const std::string &element, Object object);
  void add(const std::string &name);
  void remove(const std::string &element);

  /* Removes an interface of an object, but not the object. */
  void remove_interface(const std::string &element, const std::string &interface);

  /* Sends a signal whose body is a tuple in GVariant's text format, to all subscribers or to one connection.
   */
  void emit(const std::string &path, const char *interface, const char *signal, const std::string &body,
            const char *destination = nullptr);

  /* Replies to GetManagedObjects in place of the objects, unless it is empty. */
  void set_managed_objects(testbus::Answer answer);

  /* Leaves the bus and removes all objects. */
  void leave();
  void come_back();

  /* The same without leaving the bus, so that pending calls can still get a reply. */
  void come_back_at_once();

  /* An answer that holds calls until their release. */
  testbus::Answer hold();

  /* The number of held calls. */
  gsize held();

  /* Sends this answer to all held calls; the callers can have left the bus. */
  void release_held(const testbus::Answer &answer);

  /* The calls of producers' methods since the last call of this, in order, each as "element method
   * arguments". */
  std::vector<std::string> take_calls();
  gsize calls_size();

private:
  GDBusMessage *answer(GDBusMessage *call);
  testbus::Answer find_answer(const std::string &element, const std::string &method);
  void emit(const char *signal, GVariant *arguments);
  void send_signal(const std::string &path, const char *interface, const char *signal, GVariant *arguments,
                   const char *destination);

  std::mutex lock_;
  std::map<std::string, Object> objects_;
  testbus::Answer managed_objects_;
  testbus::HeldCalls held_;
  std::vector<std::string> calls_;
  std::optional<testbus::Service> service_;
};

/* A receiver on a private bus, and the daemon's connection to that bus. */
class Fixture : public testhost::Fixture
{
protected:
  static void SetUpTestSuite();

  void SetUp() override;

  /* The end of the bus closes the connection and ends all pending calls. */
  void TearDown() override;

  /* Adds a producer with this answer to requests for its stream. */
  void add(const std::string &name, testbus::Answer stream_fd);

  GDBusConnection *connection_ = nullptr;
  std::optional<testbus::Bus> bus_;
  std::optional<Receiver> receiver_;
};

} // namespace testreceiver
