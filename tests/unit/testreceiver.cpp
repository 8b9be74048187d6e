/* SPDX-License-Identifier: MIT */
#include "testreceiver.h"

#include "systembus.h"

#include <gtest/gtest.h>
#include <utility>

using testbus::Answer;

namespace testreceiver
{
namespace
{

constexpr const char *NAME = "com.quon.MetadataReceiver1";
constexpr const char *ROOT = "/com/quon/MetadataReceiver1/Producers";
constexpr const char *INTERFACE = "com.quon.MetadataReceiver1.Producer";
constexpr const char *OBJECT_MANAGER = "org.freedesktop.DBus.ObjectManager";

std::string
path_of(const std::string &element)
{
  return std::string(ROOT) + "/" + element;
}

/* The last element of a call's path. */
std::string
element_of(GDBusMessage *call)
{
  const std::string path = g_dbus_message_get_path(call);

  return path.substr(path.rfind('/') + 1);
}

/* Floating. */
GVariant *
parse_interfaces(const std::string &text)
{
  return g_variant_new_parsed(("@a{sa{sv}} " + text).c_str());
}

GDBusMessage *
reply_with(GDBusMessage *call, GVariant *body)
{
  GDBusMessage *message = g_dbus_message_new_method_reply(call);

  g_dbus_message_set_body(message, body);
  return message;
}

} // namespace

std::string
with_properties(const std::string &properties)
{
  return std::string("{'") + INTERFACE + "': " + properties + "}";
}

Object
producer(const std::string &name)
{
  return {with_properties("{'Name': <'" + name + "'>, 'NiceName': <'Nice " + name +
                          "'>, 'SupportedChannels': <[uint32 1, 2]>}"),
          testbus::reply("('{}',)"), testbus::refuse()};
}

Receiver::Receiver()
{
  come_back();
}

void
Receiver::add(const std::string &element, Object object)
{
  GVariant *interfaces = parse_interfaces(object.interfaces);
  {
    std::lock_guard guard(lock_);
    objects_[element] = std::move(object);
  }
  emit("InterfacesAdded", g_variant_new("(o@a{sa{sv}})", path_of(element).c_str(), interfaces));
}

void
Receiver::add(const std::string &name)
{
  add(name, producer(name));
}

void
Receiver::remove(const std::string &element)
{
  {
    std::lock_guard guard(lock_);
    objects_.erase(element);
  }
  remove_interface(element, INTERFACE);
}

void
Receiver::remove_interface(const std::string &element, const std::string &interface)
{
  const char *names[] = {interface.c_str(), nullptr};

  emit("InterfacesRemoved", g_variant_new("(o^as)", path_of(element).c_str(), names));
}

void
Receiver::emit(const std::string &path, const char *interface, const char *signal, const std::string &body,
               const char *destination)
{
  send_signal(path, interface, signal, g_variant_new_parsed(body.c_str()), destination);
}

void
Receiver::set_managed_objects(Answer answer)
{
  std::lock_guard guard(lock_);

  managed_objects_ = std::move(answer);
}

void
Receiver::leave()
{
  service_.reset();
}

void
Receiver::come_back()
{
  service_.emplace(NAME, [this](GDBusMessage *call) { return answer(call); });
}

void
Receiver::come_back_at_once()
{
  service_->take_name_again(NAME);
}

Answer
Receiver::hold()
{
  return held_.hold();
}

gsize
Receiver::held()
{
  return held_.size();
}

void
Receiver::release_held(const Answer &answer)
{
  held_.release(&*service_, answer);
}

std::vector<std::string>
Receiver::take_calls()
{
  std::lock_guard guard(lock_);

  return std::exchange(calls_, {});
}

gsize
Receiver::calls_size()
{
  std::lock_guard guard(lock_);

  return calls_.size();
}

/* On the service's thread. */
GDBusMessage *
Receiver::answer(GDBusMessage *call)
{
  const std::string method = g_dbus_message_get_member(call);

  if (method != "GetManagedObjects") {
    return find_answer(element_of(call), method)(call);
  }
  std::unique_lock guard(lock_);
  const Answer odd_answer = managed_objects_;
  if (odd_answer) {
    guard.unlock();
    return odd_answer(call);
  }
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a{oa{sa{sv}}}"));
  for (const auto &[element, object] : objects_) {
    g_variant_builder_add(&builder, "{o@a{sa{sv}}}", path_of(element).c_str(),
                          parse_interfaces(object.interfaces));
  }
  return reply_with(call, g_variant_new("(a{oa{sa{sv}}})", &builder));
}

Answer
Receiver::find_answer(const std::string &element, const std::string &method)
{
  std::lock_guard guard(lock_);
  const auto found = objects_.find(element);
  if (found == objects_.end()) {
    return testbus::refuse();
  }

  return [this, element,
          make = method == "GetSampleFrame" ? found->second.sample_frame
                                            : found->second.stream_fd](GDBusMessage *call) {
    GVariant *body = g_dbus_message_get_body(call);
    g_autofree gchar *arguments = body != nullptr ? g_variant_print(body, TRUE) : g_strdup("()");
    {
      std::lock_guard calls_guard(lock_);
      calls_.push_back(element + " " + g_dbus_message_get_member(call) + " " + arguments);
    }
    return make(call);
  };
}

void
Receiver::emit(const char *signal, GVariant *arguments)
{
  send_signal(ROOT, OBJECT_MANAGER, signal, arguments, nullptr);
}

void
Receiver::send_signal(const std::string &path, const char *interface, const char *signal, GVariant *arguments,
                      const char *destination)
{
  g_autoptr(GDBusMessage) message = g_dbus_message_new_signal(path.c_str(), interface, signal);

  g_dbus_message_set_destination(message, destination);
  g_dbus_message_set_body(message, arguments);
  if (service_.has_value()) {
    service_->send(message);
  }
}

void
Fixture::SetUpTestSuite()
{
  testbus::install();
}

void
Fixture::SetUp()
{
  testhost::Fixture::SetUp();
  bus_.emplace();
  receiver_.emplace();
  connection_ = system_bus_get(nullptr, nullptr);
}

void
Fixture::TearDown()
{
  const testhost::Observed connection(connection_);

  g_clear_object(&connection_);
  receiver_.reset();
  bus_.reset();
  EXPECT_TRUE(testhost::spin_until([&connection] { return !connection.alive(); }));
  testhost::Fixture::TearDown();
}

void
Fixture::add(const std::string &name, testbus::Answer stream_fd)
{
  Object object = producer(name);

  object.stream_fd = std::move(stream_fd);
  receiver_->add(name, object);
}

} // namespace testreceiver
