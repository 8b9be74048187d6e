/* SPDX-License-Identifier: MIT */
#pragma once

#include "applications.h"
#include "eventtext.h"
#include "message.h"
#include "ratebucket.h"

#include <optional>
#include <set>

namespace receiver
{

/* An event to emit, as its application gives it. */
struct EventRequest {
  std::string topic;
  std::string operation;
  EventMap source;
  EventMap data;
  gint64 time; /* microseconds since 1970, or 0 for now */
};

bool event_request_check_size(const EventRequest &request, GError **error);

/* The declared topics and the present states of properties, with the applications that own them. Main thread
 * only. */
class EventStore
{
public:
  /* @property: the number of the event's property, or 0 */
  using Emitted = std::function<void(const SharedText &text, guint64 property)>;

  struct State {
    guint64 property;
    std::string text; /* the event Initialized */
  };

  explicit EventStore(Emitted emitted);
  EventStore(const EventStore &) = delete;
  EventStore &operator=(const EventStore &) = delete;

  bool declare(const Caller &caller, EventTopic topic, GError **error);
  bool emit(const std::string &sender, const EventRequest &request, GError **error);
  std::vector<const EventTopic *> topics() const;
  bool has_topic_of(const std::string &sender) const;

  void disconnect(const std::string &sender);
  std::optional<gint64> next_removal() const;
  void remove_overdue();

  guint64 newest_property() const;
  std::optional<State> state_after(guint64 property, guint64 last) const;

private:
  struct Declared {
    EventTopic topic;
    std::set<std::string> owners; /* senders */
  };

  struct Application {
    guint32 user;
    RateBucket bucket;
    std::set<std::string> topics;
    gsize properties = 0;
    gint64 remove_at = 0; /* set when its connection has closed */
  };

  struct Property {
    const EventTopic *topic;
    EventValues values;
    std::string owner;
    gsize bytes;
    bool is_inherited; /* from an application that has gone, and not emitted since */
  };

  struct Prefix {
    std::string uri;
    gsize declarations;
  };

  struct Emission;

  bool check_conflicts(const Caller &caller, const EventTopic &topic, GError **error) const;
  bool check_prefixes(const EventTopic &topic, GError **error) const;
  bool check_places(const Caller &caller, const EventTopic &topic, GError **error) const;
  bool is_left_behind(const std::string &sender, guint32 user) const;
  std::vector<std::string> left_behind(const EventTopic &topic, guint32 user) const;
  bool has_topic(guint32 user) const;
  bool has_property(guint32 user) const;
  void add(const Caller &caller, const EventTopic &topic);
  void inherit(const std::string &sender, const std::string &from, const EventTopic *topic);
  void remove_declaration(const std::string &sender, const std::string &topic);
  void delete_properties(const std::string &owner, const EventTopic *topic);
  void remove(const std::string &sender);

  bool prepare(Emission *emission, const std::string &sender, const EventRequest &request, GError **error);
  bool check_property(Emission *emission, const EventRequest &request, GError **error);
  bool check_owner(const Emission &emission, GError **error) const;
  bool check_property_places(const Emission &emission, GError **error) const;
  bool check_rate(Emission *emission, GError **error);
  void store(Emission *emission);
  void give(Property *property, const std::string &sender);
  void erase(guint64 number);

  const Emitted emitted_;
  std::map<std::string, Declared> topics_;
  std::map<std::string, Application> applications_;
  std::map<guint64, Property> properties_;
  std::map<std::string, guint64> numbers_; /* of properties, by topic and values of the source */
  std::map<std::string, Prefix> prefixes_;
  RateBucket bucket_; /* of all applications */
  gsize declarations_ = 0;
  gsize declaration_bytes_ = 0;
  gsize property_bytes_ = 0;
  guint64 newest_ = 0;
};

} // namespace receiver
