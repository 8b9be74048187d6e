/* SPDX-License-Identifier: MIT */
#include "registry.h"

#include "error.h"
#include "producerobject.h"
#include "receiverlimits.h"

#include <algorithm>
#include <syslog.h>

/* The states of a producer:
 * - it has an application: `sender` is set;
 * - its application has disconnected: `grace` is set, it is listed, its streams are open, and its user can
 *   register it again;
 * - it finishes: it is not listed, its name is free, and it exists until its streams have ended. */

namespace receiver
{

struct Registry::Grace {
  Registry *registry;
  std::string name;
};

/**
 * Registry:
 * @directory: (transfer none): exports the producers; outlives the registry
 */
Registry::Registry(Directory *directory) : directory_(directory)
{
}

Registry::~Registry()
{
  for (auto &[name, registered] : producers_) {
    g_clear_handle_id(&registered.grace, g_source_remove);
    directory_->remove(name);
  }
}

/**
 * Registry::register_producer:
 * @caller: the application
 * @description: its description of its producer
 * @error: set if the description is invalid, the name is taken, or there are too many producers
 *
 * Registers a producer, or gives one without an application to the caller. If its description is new, it is
 * listed again, because clients read properties only when an object is added.
 *
 * Returns: whether the producer is registered
 */
bool
Registry::register_producer(const Caller &caller, const Description &description, GError **error)
{
  if (!description_check(description, error)) {
    return false;
  }
  const auto found = producers_.find(description.name);
  return found != producers_.end() ? take_over(&found->second, caller, description, error)
                                   : add(caller, description, error);
}

/* The last places are reserved for users without a producer, so that one user cannot take all places. */
bool
Registry::check_place(const Caller &caller, GError **error) const
{
  const bool has_one = std::any_of(producers_.begin(), producers_.end(),
                                   [&caller](const auto &entry) { return entry.second.user == caller.user; });
  const gsize limit = RECEIVER_MAX_PRODUCERS - (has_one ? RECEIVER_PRODUCERS_KEPT : 0);

  return producers_.size() < limit ||
         refuse(error, Error::LIMIT_EXCEEDED, "There are %zu producers", producers_.size());
}

bool
Registry::add(const Caller &caller, const Description &description, GError **error)
{
  if (!check_place(caller, error)) {
    return false;
  }
  auto producer = std::make_shared<Producer>(description, &budget_);
  producers_[description.name] = {producer, caller.sender, caller.user, 0};
  list(producer);
  syslog(LOG_INFO, "Producer %s is registered by %s of user %u", description.name.c_str(),
         caller.sender.c_str(), caller.user);
  return true;
}

bool
Registry::take_over(Registered *registered, const Caller &caller, const Description &description,
                    GError **error)
{
  const char *name = description.name.c_str();

  if (!registered->sender.empty()) {
    return refuse(error, Error::NAME_TAKEN, "%s has registered %s", registered->sender.c_str(), name);
  }
  if (registered->user != caller.user) {
    return refuse(error, Error::NAME_TAKEN, "%s is kept for user %u for up to %d s", name, registered->user,
                  RECEIVER_GRACE_SECONDS);
  }
  g_clear_handle_id(&registered->grace, g_source_remove);
  registered->sender = caller.sender;
  if (registered->producer->description() != description) {
    directory_->remove(description.name);
    registered->producer->describe(description);
    list(registered->producer);
  }
  syslog(LOG_INFO, "Producer %s is registered again, by %s of user %u", name, caller.sender.c_str(),
         caller.user);
  return true;
}

void
Registry::list(const std::shared_ptr<Producer> &producer)
{
  g_autoptr(GDBusInterfaceSkeleton) interface = producer_object_new(producer);

  directory_->add(producer->name(), interface);
}

/**
 * Registry::open_channel:
 * @sender: the application
 * @name: its producer
 * @channel: a video channel
 * @error: set if it has no such producer, or the channel cannot be opened
 *
 * Returns: (transfer full): the descriptor of the write end, or -1
 */
int
Registry::open_channel(const std::string &sender, const std::string &name, guint32 channel, GError **error)
{
  Registered *registered = find_owned(sender, name, error);

  return registered != nullptr ? registered->producer->open_channel(channel, error) : -1;
}

/**
 * Registry::unregister_producer:
 * @sender: the application
 * @name: its producer
 * @error: set if it has no such producer
 *
 * Removes a producer. Its streams end when their queues are written.
 *
 * Returns: whether the producer is removed
 */
bool
Registry::unregister_producer(const std::string &sender, const std::string &name, GError **error)
{
  if (find_owned(sender, name, error) == nullptr) {
    return false;
  }
  syslog(LOG_INFO, "Producer %s is unregistered", name.c_str());
  remove(name);
  return true;
}

Registry::Registered *
Registry::find_owned(const std::string &sender, const std::string &name, GError **error)
{
  const auto found = producers_.find(name);

  if (found == producers_.end()) {
    refuse(error, Error::UNKNOWN_PRODUCER, "There is no such producer");
    return nullptr;
  }
  if (found->second.sender != sender) {
    refuse(error, Error::NOT_OWNER, "Another application has registered %s", name.c_str());
    return nullptr;
  }
  return &found->second;
}

/**
 * Registry::application_disconnected:
 * @sender: an application whose connection has closed
 *
 * Closes the channels of its producers, which stay listed for %RECEIVER_GRACE_SECONDS.
 */
void
Registry::application_disconnected(const std::string &sender)
{
  for (auto &[name, registered] : producers_) {
    if (registered.sender == sender) {
      begin_grace(&registered);
    }
  }
}

void
Registry::begin_grace(Registered *registered)
{
  const std::string &name = registered->producer->name();

  syslog(LOG_INFO, "The application of producer %s has gone", name.c_str());
  registered->sender.clear();
  registered->producer->close_channels();
  registered->grace = g_timeout_add_seconds_full(G_PRIORITY_DEFAULT, RECEIVER_GRACE_SECONDS, on_grace_over,
                                                 new Grace{this, name},
                                                 [](gpointer data) { delete static_cast<Grace *>(data); });
}

gboolean
Registry::on_grace_over(gpointer user_data)
{
  const auto *grace = static_cast<const Grace *>(user_data);

  syslog(LOG_INFO, "Producer %s is removed, because its application has not come back", grace->name.c_str());
  grace->registry->producers_[grace->name].grace = 0;
  grace->registry->remove(grace->name);
  return G_SOURCE_REMOVE;
}

void
Registry::remove(const std::string &name)
{
  const std::shared_ptr<Producer> producer = producers_[name].producer;

  producers_.erase(name);
  directory_->remove(name);
  finishing_.push_back(producer);
  producer->finish([this](Producer *finished) {
    std::erase_if(finishing_, [finished](const auto &entry) { return entry.get() == finished; });
  });
}

/**
 * Registry::has_producer_of:
 * @sender: an application
 *
 * Returns: whether it has a producer
 */
bool
Registry::has_producer_of(const std::string &sender) const
{
  return std::any_of(producers_.begin(), producers_.end(),
                     [&sender](const auto &entry) { return entry.second.sender == sender; });
}

/**
 * Registry::budget:
 *
 * Returns: (transfer none): the resources that all streams share
 */
Budget *
Registry::budget()
{
  return &budget_;
}

} // namespace receiver
