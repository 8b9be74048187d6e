/* SPDX-License-Identifier: MIT */
/* The metadata receiver as applications see it, on the private bus, with selectable replies. By default it
 * accepts every call.
 */
#pragma once

#include "testbus.h"
#include "testpipes.h"

#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace testlibrary
{

class FakeReceiver
{
public:
  /* Puts the receiver on the bus. */
  FakeReceiver();
  FakeReceiver(const FakeReceiver &) = delete;
  FakeReceiver &operator=(const FakeReceiver &) = delete;

  void leave();
  void come_back();

  /* Releases its name and takes it again, without leaving the bus. */
  void come_back_at_once();

  /* Selects the reply to a method. */
  void set_answer(const std::string &method, testbus::Answer answer);

  /* Selects the default reply again. */
  void accept(const std::string &method);

  /* Makes calls of a method wait until their release. */
  void hold(const std::string &method);

  /* Waits until so many calls are held, and sends them this reply. */
  void release(gsize count, const testbus::Answer &answer);
  void wait_for_held(gsize count);

  /* Sends a message of its own. */
  void send(GDBusMessage *message);

  /* Waits for as many calls as these texts, and compares; each is "Interface.Method arguments". */
  void expect_calls(const std::vector<std::string> &calls);
  gsize calls_size();
  void forget_calls();

  /* The read end of the channel that was opened first, of those that are not taken. */
  testpipes::Descriptor take_channel();

private:
  GDBusMessage *answer(GDBusMessage *call);
  GDBusMessage *open_channel(GDBusMessage *call);

  testhost::List<std::string> calls_;
  testbus::HeldCalls held_;
  std::mutex lock_;
  const std::map<std::string, testbus::Answer> accepting_;
  std::map<std::string, testbus::Answer> answers_;
  std::deque<testpipes::Descriptor> channels_;
  std::optional<testbus::Service> service_;
};

} // namespace testlibrary
