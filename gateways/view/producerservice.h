/* SPDX-License-Identifier: MIT */
#pragma once

#include "producerfollower.h"
#include "sendqueue.h"
#include "switchrequest.h"

#include <functional>
#include <memory>

namespace view
{

/* The producers of the daemon's control service, as the page shows and switches them. All functions and
 * callbacks are for the main thread, which must not go on after the object is deleted: calls that wait have
 * no reply. */
class ProducerService
{
public:
  /* Called when the state of the producers has changed. */
  using ChangedFunction = std::function<void()>;

  /* Gets the status of HTTP, and what is wrong if that is none of success. */
  using DoneFunction = std::function<void(guint status, const std::string &message)>;

  ProducerService(const char *bus_address, ChangedFunction on_changed);
  ProducerService(const ProducerService &) = delete;
  ProducerService &operator=(const ProducerService &) = delete;

  const Text &text() const;
  gateway::ProducerFollower *follower();
  void set_enabled(const SwitchRequest &request, DoneFunction on_done);

private:
  struct Switch;

  void show(const ProducersByPath *producers);
  static void on_switched(GObject *source_object, GAsyncResult *result, gpointer user_data);

  ChangedFunction on_changed_;
  bool is_available_ = false;
  std::map<std::string, std::string> paths_; /* by the producer's name */
  Text text_;
  guint switches_ = 0; /* those that wait for the daemon */
  gateway::ProducerFollower follower_;
};

} // namespace view
