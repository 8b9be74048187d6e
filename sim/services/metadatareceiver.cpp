/* SPDX-License-Identifier: MIT */
#include "metadatareceiver.h"

#include "inputfeed.h"
#include "producerinterface.h"
#include "receiver/receiverlimits.h"
#include "worldfeed.h"

#include <algorithm>
#include <cstring>
#include <gio/gunixfdlist.h>
#include <unistd.h>

namespace sim
{

namespace
{

constexpr const char *STANDARD_INPUT = "-";

/* GDBus implements these interfaces for every object. */
constexpr const char *STANDARD_INTERFACES = "org.freedesktop.DBus.";

/* Replies that are wrong for both methods. */
constexpr std::array WRONG_REPLIES = {
    WrongReply{"wrong-type", "(1,)"},
    WrongReply{"empty", "()"},
};

/* A producer that exists from the start and reports one type of objects. */
struct BuiltIn {
  const char *name;
  const char *nice_name;
  ObjectType only;
  bool polygons;
};

constexpr std::array BUILT_INS = {
    BuiltIn{"PersonDetector", "Simulated person detector", ObjectType::HUMAN, true},
    BuiltIn{"VehicleDetector", "Simulated vehicle detector", ObjectType::VEHICLE, false},
};

const BuiltIn *
find_built_in(const std::string &name)
{
  const auto *found = std::find_if(BUILT_INS.begin(), BUILT_INS.end(),
                                   [&name](const BuiltIn &entry) { return name == entry.name; });

  return found != BUILT_INS.end() ? found : nullptr;
}

bool
check_name(const std::string &name, GError **error)
{
  return receiver::name_check(name, nullptr) ||
         refuse(error, "a producer's name must be 1 to %d letters, digits and underscores, not '%s'",
                RECEIVER_MAX_NAME_BYTES, name.c_str());
}

std::optional<Reply>
sample_frame_reply(const Producer &producer)
{
  return Reply{.body = g_variant_new("(s)", producer.sample_frame().c_str())};
}

std::optional<Reply>
stream_reply(Producer *producer, gint32 channel, GError **error)
{
  const int fd = producer->open_stream(channel, error);

  if (fd < 0) {
    return std::nullopt;
  }
  return Reply{.body = g_variant_new("(h)", 0), .fds = g_unix_fd_list_new_from_array(&fd, 1)};
}

} // namespace

MetadataReceiver::MetadataReceiver(const Camera &camera)
    : Service("receiver", receiver::BUS_NAME, WRONG_REPLIES), camera_(camera)
{
  for (const BuiltIn &built_in : BUILT_INS) {
    add_producer(built_in.name, nullptr, nullptr);
  }
}

bool
MetadataReceiver::export_objects(GDBusConnection *connection, GError **error)
{
  directory_.set_connection(connection);
  return true;
}

/**
 * MetadataReceiver::find_producer:
 * @name: its name
 * @error: set if the producer is unknown
 *
 * Returns: (transfer none) (nullable): the producer
 */
Producer *
MetadataReceiver::find_producer(const std::string &name, GError **error) const
{
  const auto found = producers_.find(name);
  std::string list;

  if (found != producers_.end()) {
    return found->second.producer.get();
  }
  for (const auto &[other, announced] : producers_) {
    list.append(list.empty() ? "" : ", ").append(other);
  }
  refuse(error, "unknown producer '%s'; there are: %s", name.c_str(), list.c_str());
  return nullptr;
}

/**
 * MetadataReceiver::choose_producers:
 * @list: a comma-separated list of the built-in producers to keep; may be empty
 * @error: set if a producer is unknown
 *
 * Removes all other built-in producers. Call it before any producer is added.
 *
 * Returns: whether @list is valid
 */
bool
MetadataReceiver::choose_producers(const std::string &list, GError **error)
{
  const Arguments chosen = arguments_split(list);

  for (const std::string &name : chosen) {
    if (find_producer(name, error) == nullptr) {
      return false;
    }
  }
  for (const BuiltIn &built_in : BUILT_INS) {
    if (std::find(chosen.begin(), chosen.end(), built_in.name) == chosen.end()) {
      remove_producer(built_in.name, nullptr);
    }
  }
  return true;
}

/**
 * MetadataReceiver::add_producer:
 * @name: its name
 * @file: (nullable): the file to replay, "-" for standard input
 * @error: set if the name is in use or invalid in an object's path, @file is not a recording, another
 * producer reads standard input, or there are %RECEIVER_MAX_PRODUCERS producers
 *
 * Exports a producer. Without a file it reports objects of the world: a built-in producer its type, any other
 * all types.
 *
 * Returns: whether the producer is added
 */
bool
MetadataReceiver::add_producer(const std::string &name, const std::string *file, GError **error)
{
  if (!check_name(name, error)) {
    return false;
  }
  if (producers_.contains(name)) {
    return refuse(error, "there is a producer '%s' already", name.c_str());
  }
  if (producers_.size() == RECEIVER_MAX_PRODUCERS) {
    return refuse(error, "there are %d producers already", RECEIVER_MAX_PRODUCERS);
  }
  std::unique_ptr<Feed> feed = make_feed(name, file, error);
  if (feed == nullptr) {
    return false;
  }
  const BuiltIn *built_in = file == nullptr ? find_built_in(name) : nullptr;
  announce(std::make_shared<Producer>(name, built_in != nullptr ? built_in->nice_name : name, camera_,
                                      std::move(feed), &budget_),
           file != nullptr && *file == STANDARD_INPUT);
  return true;
}

std::unique_ptr<Feed>
MetadataReceiver::make_feed(const std::string &name, const std::string *file, GError **error)
{
  if (file == nullptr) {
    const BuiltIn *built_in = find_built_in(name);
    return built_in != nullptr ? std::make_unique<WorldFeed>(built_in->only, built_in->polygons)
                               : std::make_unique<WorldFeed>(std::nullopt, true);
  }
  if (*file == STANDARD_INPUT) {
    for (const auto &[other, announced] : producers_) {
      if (announced.reads_input) {
        refuse(error, "'%s' reads the standard input already", other.c_str());
        return nullptr;
      }
    }
    return std::make_unique<InputFeed>(STDIN_FILENO, replay_options);
  }
  std::shared_ptr<const Recording> recording = recording_load(*file, error);
  return recording != nullptr ? std::make_unique<ReplayFeed>(std::move(recording), replay_options) : nullptr;
}

void
MetadataReceiver::announce(std::shared_ptr<Producer> producer, bool reads_input)
{
  std::shared_ptr<GDBusInterfaceSkeleton> interface = make_interface(producer, receiver::PRODUCER_INTERFACE);
  const std::string name = producer->name();

  directory_.add(name, interface.get());
  producers_[name] = {std::move(producer), std::move(interface), reads_input};
}

/* The producer exists longer than its object on the bus. */
std::shared_ptr<GDBusInterfaceSkeleton>
MetadataReceiver::make_interface(const std::shared_ptr<Producer> &producer, const std::string &interface_name)
{
  const std::weak_ptr<Producer> weak = producer;

  return {producer_interface_new(
              interface_name, [announced = producer.get()] { return announced->properties(); },
              [this, weak](const char *method, GVariant *arguments, GDBusMethodInvocation *invocation) {
                on_call(weak, method, arguments, invocation);
              }),
          g_object_unref};
}

/* Clients read properties only when an object is added. */
void
MetadataReceiver::list_again(const std::string &name)
{
  directory_.remove(name);
  directory_.add(name, producers_[name].interface.get());
}

/**
 * MetadataReceiver::remove_producer:
 * @name: its name
 * @error: set if the producer is unknown
 *
 * Removes the producer from the bus and closes its streams.
 *
 * Returns: whether the producer is removed
 */
bool
MetadataReceiver::remove_producer(const std::string &name, GError **error)
{
  if (find_producer(name, error) == nullptr) {
    return false;
  }
  directory_.remove(name);
  producers_.erase(name);
  return true;
}

/**
 * MetadataReceiver::set_property:
 * @name: a producer's name
 * @property: one of its properties
 * @value: its value, see Producer::set_property()
 * @error: set if the producer or the property is unknown or the bus carries no such value
 *
 * Removes the producer from the bus and exports it again with the new value, because clients read properties
 * only when an object is added. Its streams continue.
 *
 * Returns: whether the property is set
 */
bool
MetadataReceiver::set_property(const std::string &name, const std::string &property, const std::string &value,
                               GError **error)
{
  Producer *producer = find_producer(name, error);

  if (producer == nullptr || !producer->set_property(property, value, error)) {
    return false;
  }
  list_again(name);
  return true;
}

/**
 * MetadataReceiver::set_interface:
 * @name: a producer's name
 * @interface: the new name of the producer's interface
 * @error: set if the producer is unknown or @interface is not a valid name
 *
 * Removes the producer from the bus and exports it again with this interface only. Its streams continue.
 *
 * Returns: whether the interface is set
 */
bool
MetadataReceiver::set_interface(const std::string &name, const std::string &interface, GError **error)
{
  if (find_producer(name, error) == nullptr) {
    return false;
  }
  if (!g_dbus_is_interface_name(interface.c_str()) || interface.starts_with(STANDARD_INTERFACES)) {
    return refuse(error, "not a name for a producer's interface: '%s'", interface.c_str());
  }
  Announced &announced = producers_[name];
  directory_.remove(name);
  announced.interface = make_interface(announced.producer, interface);
  directory_.add(name, announced.interface.get());
  return true;
}

/* A fault of the producer's method overrides a fault of the service. */
void
MetadataReceiver::on_call(const std::weak_ptr<Producer> &called, const char *method, GVariant *arguments,
                          GDBusMethodInvocation *invocation)
{
  const std::shared_ptr<Producer> producer = called.lock();
  const bool stream = g_str_equal(method, "GetStreamFd");
  gint32 channel = 0;

  if (stream) {
    g_variant_get(arguments, "(i)", &channel);
  }
  reply(invocation, producer->fault_of(stream ? Method::GET_STREAM_FD : Method::GET_SAMPLE_FRAME),
        [called, stream, channel](GError **error) -> std::optional<Reply> {
          const std::shared_ptr<Producer> still = called.lock();
          if (still == nullptr) {
            g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_OBJECT, "the producer has gone");
            return std::nullopt;
          }
          return stream ? stream_reply(still.get(), channel, error) : sample_frame_reply(*still);
        });
}

} // namespace sim
