/* SPDX-License-Identifier: MIT */
#include "eventstore.h"

#include "error.h"
#include "receiverlimits.h"

#include <algorithm>

/* Owners. A declaration belongs to one application, a property to the application that has emitted it. When
 * the connection of an application closes, both stay for RECEIVER_GRACE_SECONDS. If an application of the
 * same user declares the same topic in this time, it inherits the properties of this topic. Two applications
 * with the same topic can come back: the first one inherits the properties of both, and an inherited property
 * belongs to the application of this user that emits it first.
 *
 * A property has a number, which grows with each new property and is never used again. A stream sends the
 * states in the order of the numbers. */

namespace receiver
{

namespace
{

constexpr const char *INITIALIZED = "Initialized";
constexpr const char *CHANGED = "Changed";
constexpr const char *DELETED = "Deleted";
constexpr gint64 GRACE_US = RECEIVER_GRACE_SECONDS * G_TIME_SPAN_SECOND;
constexpr gint64 LATEST_US = RECEIVER_LATEST_EVENT_S * static_cast<gint64>(G_USEC_PER_SEC);

/* What a property counts in addition to its texts. */
constexpr gsize OVERHEAD = RECEIVER_MESSAGE_OVERHEAD;

/* No text has a NUL. */
std::string
key_of(const EventTopic &topic, const EventTexts &source)
{
  std::string key = topic.name;

  for (const std::string &value : source) {
    key += '\0';
    key += value;
  }
  return key;
}

/* The topic counts for each property, because the event of each has its texts. */
gsize
size_of(const EventTopic &topic, const EventValues &values)
{
  gsize bytes = OVERHEAD + topic.size();

  for (const EventTexts *texts : {&values.source, &values.data}) {
    for (const std::string &text : *texts) {
      bytes += RECEIVER_EVENT_ITEM_OVERHEAD + text.size();
    }
  }
  return bytes;
}

bool
refuse_large(GError **error)
{
  return refuse(error, Error::EVENT_TOO_LARGE, "An event must have at most %d bytes",
                RECEIVER_MAX_EVENT_BYTES);
}

bool
check_operation(const EventTopic &topic, const std::string &operation, GError **error)
{
  if (!topic.is_property) {
    return operation.empty() ||
           refuse(error, Error::INVALID_OPERATION, "The topic is not a property, and has no operation");
  }
  return operation == INITIALIZED || operation == CHANGED || operation == DELETED ||
         refuse(error, Error::INVALID_OPERATION, "The operation of a property is %s, %s or %s", INITIALIZED,
                CHANGED, DELETED);
}

bool
check_time(gint64 time, GError **error)
{
  return (time >= 0 && time <= LATEST_US) ||
         refuse(error, Error::INVALID_TIME, "A time must be from 1970 to 2099");
}

} // namespace

/* An event that is checked and not yet emitted. */
struct EventStore::Emission {
  std::string sender;
  Application *application;
  const EventTopic *topic;
  std::string operation;
  EventValues values;
  std::string key;
  guint64 number = 0; /* of a property that is known */
  Property *property = nullptr;
};

/**
 * event_request_check_size:
 * @request: an event
 * @error: set if @request is longer than the longest event
 *
 * Returns: whether @request is small enough to be kept while a call waits
 */
bool
event_request_check_size(const EventRequest &request, GError **error)
{
  gsize bytes = request.topic.size() + request.operation.size();

  for (const EventMap *items : {&request.source, &request.data}) {
    for (const auto &[name, value] : *items) {
      bytes += name.size() + value.size();
    }
  }
  return bytes <= RECEIVER_MAX_EVENT_BYTES || refuse_large(error);
}

/**
 * EventStore:
 * @emitted: called for each event
 */
EventStore::EventStore(Emitted emitted)
    : emitted_(std::move(emitted)), bucket_(RECEIVER_MAX_EVENTS_PER_SECOND, RECEIVER_MAX_EVENTS_PER_SECOND)
{
}

/**
 * EventStore::declare:
 * @caller: the application
 * @topic: its declaration
 * @error: set if the declaration is invalid, contradicts another one, or there are too many
 *
 * Declares a topic. The application inherits the properties of this topic that an application of the same
 * user has left behind. If only such applications have declared the topic, and with other items, their
 * properties are deleted.
 *
 * Returns: whether the caller has the topic
 */
bool
EventStore::declare(const Caller &caller, EventTopic topic, GError **error)
{
  if (!event_topic_check(&topic, error) || !check_conflicts(caller, topic, error)) {
    return false;
  }
  const auto known = applications_.find(caller.sender);
  if (known != applications_.end() && known->second.topics.contains(topic.name)) {
    return true;
  }
  if (!check_places(caller, topic, error)) {
    return false;
  }
  add(caller, topic);
  return true;
}

/* A topic with other items is replaced if only the caller's user has left it behind. */
bool
EventStore::check_conflicts(const Caller &caller, const EventTopic &topic, GError **error) const
{
  const auto found = topics_.find(topic.name);

  if (found != topics_.end() && found->second.topic != topic) {
    const auto &owners = found->second.owners;
    if (!std::all_of(owners.begin(), owners.end(),
                     [&](const std::string &owner) { return is_left_behind(owner, caller.user); })) {
      return refuse(error, Error::TOPIC_CONFLICT, "%s is declared in another way", topic.name.c_str());
    }
  }
  return check_prefixes(topic, error);
}

bool
EventStore::check_prefixes(const EventTopic &topic, GError **error) const
{
  for (const auto &[prefix, uri] : topic.namespaces) {
    const auto found = prefixes_.find(prefix);
    if (found != prefixes_.end() && found->second.uri != uri) {
      return refuse(error, Error::TOPIC_CONFLICT, "Prefix %s has the namespace %s", prefix.c_str(),
                    found->second.uri.c_str());
    }
  }
  return true;
}

bool
EventStore::check_places(const Caller &caller, const EventTopic &topic, GError **error) const
{
  const auto known = applications_.find(caller.sender);

  if (known != applications_.end() && known->second.topics.size() >= RECEIVER_MAX_APPLICATION_TOPICS) {
    return refuse(error, Error::TOO_MANY_TOPICS, "An application can declare %d topics",
                  RECEIVER_MAX_APPLICATION_TOPICS);
  }
  if (!left_behind(topic, caller.user).empty()) {
    return true;
  }
  const bool has_one = has_topic(caller.user);
  const gsize places = RECEIVER_MAX_DECLARATIONS - (has_one ? RECEIVER_DECLARATIONS_KEPT : 0);
  const gsize bytes = RECEIVER_MAX_DECLARATION_BYTES - (has_one ? RECEIVER_DECLARATION_BYTES_KEPT : 0);
  return (declarations_ < places && declaration_bytes_ + topic.size() <= bytes) ||
         refuse(error, Error::LIMIT_EXCEEDED, "%zu topics with %zu bytes are declared", declarations_,
                declaration_bytes_);
}

bool
EventStore::is_left_behind(const std::string &sender, guint32 user) const
{
  const Application &application = applications_.at(sender);

  return application.remove_at != 0 && application.user == user;
}

/* Returns: the applications of the user that have declared the topic and gone */
std::vector<std::string>
EventStore::left_behind(const EventTopic &topic, guint32 user) const
{
  std::vector<std::string> senders;
  const auto found = topics_.find(topic.name);

  if (found != topics_.end()) {
    std::copy_if(found->second.owners.begin(), found->second.owners.end(), std::back_inserter(senders),
                 [&](const std::string &owner) { return is_left_behind(owner, user); });
  }
  return senders;
}

bool
EventStore::has_topic(guint32 user) const
{
  return std::any_of(applications_.begin(), applications_.end(),
                     [user](const auto &entry) { return entry.second.user == user; });
}

bool
EventStore::has_property(guint32 user) const
{
  return std::any_of(applications_.begin(), applications_.end(), [user](const auto &entry) {
    return entry.second.user == user && entry.second.properties > 0;
  });
}

void
EventStore::add(const Caller &caller, const EventTopic &topic)
{
  std::vector<std::string> gone = left_behind(topic, caller.user);
  const auto before = topics_.find(topic.name);

  if (before != topics_.end() && before->second.topic != topic) {
    for (const std::string &sender : gone) {
      delete_properties(sender, &topics_.at(topic.name).topic);
      remove_declaration(sender, topic.name);
    }
    gone.clear();
  }
  Declared &declared = topics_.try_emplace(topic.name, Declared{topic, {}}).first->second;
  declared.owners.insert(caller.sender);
  applications_
      .try_emplace(caller.sender,
                   Application{caller.user, {RECEIVER_EVENTS_PER_SECOND, RECEIVER_EVENT_BURST}, {}})
      .first->second.topics.insert(topic.name);
  declarations_++;
  declaration_bytes_ += topic.size();
  for (const auto &[prefix, uri] : topic.namespaces) {
    prefixes_.try_emplace(prefix, Prefix{uri, 0}).first->second.declarations++;
  }
  for (const std::string &sender : gone) {
    inherit(caller.sender, sender, &declared.topic);
  }
}

/* Moves the properties that @sender has room for. @from keeps the topic as long as it has others. */
void
EventStore::inherit(const std::string &sender, const std::string &from, const EventTopic *topic)
{
  bool is_empty = true;

  for (auto &[number, property] : properties_) {
    if (property.owner != from || property.topic != topic) {
      continue;
    }
    if (applications_.at(sender).properties < RECEIVER_MAX_APPLICATION_PROPERTIES) {
      give(&property, sender);
      property.is_inherited = true;
    } else {
      is_empty = false;
    }
  }
  if (is_empty) {
    remove_declaration(from, topic->name);
  }
}

void
EventStore::give(Property *property, const std::string &sender)
{
  applications_.at(property->owner).properties--;
  applications_.at(sender).properties++;
  property->owner = sender;
}

/* Removes what no other application has declared, and an application that has gone with its last topic. */
void
EventStore::remove_declaration(const std::string &sender, const std::string &topic)
{
  const auto declared = topics_.find(topic);
  const auto application = applications_.find(sender);

  for (const auto &[prefix, uri] : declared->second.topic.namespaces) {
    const auto found = prefixes_.find(prefix);
    if (--found->second.declarations == 0) {
      prefixes_.erase(found);
    }
  }
  declarations_--;
  declaration_bytes_ -= declared->second.topic.size();
  application->second.topics.erase(topic);
  if (application->second.topics.empty()) {
    applications_.erase(application);
  }
  declared->second.owners.erase(sender);
  if (declared->second.owners.empty()) {
    topics_.erase(declared);
  }
}

/**
 * EventStore::emit:
 * @sender: the application
 * @request: the event
 * @error: set if the event is invalid or the application cannot emit it
 *
 * Returns: whether the event is emitted
 */
bool
EventStore::emit(const std::string &sender, const EventRequest &request, GError **error)
{
  Emission emission;

  if (!event_request_check_size(request, error) || !prepare(&emission, sender, request, error) ||
      (emission.topic->is_property && !check_property(&emission, request, error))) {
    return false;
  }
  const std::string text = event_text(*emission.topic, emission.operation.c_str(), emission.values);
  if (text.size() > RECEIVER_MAX_EVENT_BYTES) {
    return refuse_large(error);
  }
  if (!check_rate(&emission, error)) {
    return false;
  }
  if (emission.topic->is_property) {
    store(&emission);
  }
  emitted_(shared_text_count(text), emission.topic->is_property ? emission.number : 0);
  return true;
}

/* @emission: (out): the event, without its property */
bool
EventStore::prepare(Emission *emission, const std::string &sender, const EventRequest &request,
                    GError **error)
{
  const auto application = applications_.find(sender);

  if (application == applications_.end() || !application->second.topics.contains(request.topic)) {
    return refuse(error, Error::UNKNOWN_TOPIC, "The application has not declared this topic");
  }
  emission->sender = sender;
  emission->application = &application->second;
  emission->topic = &topics_.at(request.topic).topic;
  emission->values.time = request.time != 0 ? request.time : g_get_real_time();
  return check_operation(*emission->topic, request.operation, error) && check_time(request.time, error) &&
         event_items_take(emission->topic->source, request.source, "source", &emission->values.source,
                          error) &&
         event_items_take(emission->topic->data, request.data, "data", &emission->values.data, error);
}

/* Finds the property, and checks that the application can change it. @emission: (inout) */
bool
EventStore::check_property(Emission *emission, const EventRequest &request, GError **error)
{
  emission->key = key_of(*emission->topic, emission->values.source);
  const auto found = numbers_.find(emission->key);

  if (found != numbers_.end()) {
    emission->number = found->second;
    emission->property = &properties_.at(found->second);
    emission->operation = request.operation;
  } else if (request.operation == DELETED) {
    return refuse(error, Error::UNKNOWN_PROPERTY, "There is no such property");
  } else {
    emission->operation = INITIALIZED;
  }
  /* The state is sent with the longest operation. */
  const gsize longest = event_text(*emission->topic, INITIALIZED, emission->values).size();
  if (longest > RECEIVER_MAX_EVENT_BYTES) {
    return refuse_large(error);
  }
  return check_owner(*emission, error) && check_property_places(*emission, error);
}

bool
EventStore::check_owner(const Emission &emission, GError **error) const
{
  const Property *property = emission.property;

  if (property == nullptr || property->owner == emission.sender) {
    return true;
  }
  const Application &owner = applications_.at(property->owner);
  const bool is_free = property->is_inherited || owner.remove_at != 0;
  return (is_free && owner.user == emission.application->user) ||
         refuse(error, Error::NOT_OWNER, "The property belongs to another application");
}

bool
EventStore::check_property_places(const Emission &emission, GError **error) const
{
  const Property *property = emission.property;

  if (emission.operation == DELETED) {
    return true;
  }
  const bool is_new_here = property == nullptr || property->owner != emission.sender;
  if (is_new_here && emission.application->properties >= RECEIVER_MAX_APPLICATION_PROPERTIES) {
    return refuse(error, Error::TOO_MANY_PROPERTIES, "An application can have %d properties",
                  RECEIVER_MAX_APPLICATION_PROPERTIES);
  }
  const bool has_one = has_property(emission.application->user);
  const gsize places = RECEIVER_MAX_PROPERTIES - (has_one ? RECEIVER_PROPERTIES_KEPT : 0);
  const gsize bytes = RECEIVER_MAX_PROPERTY_BYTES - (has_one ? RECEIVER_PROPERTY_BYTES_KEPT : 0);
  const gsize before = property != nullptr ? property->bytes : 0;
  const gsize after = size_of(*emission.topic, emission.values);
  const bool fits = after <= before || property_bytes_ - before + after <= bytes;
  return ((property != nullptr || properties_.size() < places) && fits) ||
         refuse(error, Error::LIMIT_EXCEEDED, "There are %zu properties with %zu bytes", properties_.size(),
                property_bytes_);
}

/* Takes the tokens if both buckets have one. */
bool
EventStore::check_rate(Emission *emission, GError **error)
{
  if (!emission->application->bucket.has_token()) {
    return refuse(error, Error::RATE_EXCEEDED, "An application can emit %d events a second",
                  RECEIVER_EVENTS_PER_SECOND);
  }
  if (!bucket_.has_token()) {
    return refuse(error, Error::LIMIT_EXCEEDED, "All applications can emit %d events a second",
                  RECEIVER_MAX_EVENTS_PER_SECOND);
  }
  emission->application->bucket.take_token();
  bucket_.take_token();
  return true;
}

/* Makes the event the state of its property. */
void
EventStore::store(Emission *emission)
{
  if (emission->operation == DELETED) {
    erase(emission->number);
    return;
  }
  const gsize bytes = size_of(*emission->topic, emission->values);
  if (emission->property == nullptr) {
    emission->number = ++newest_;
    numbers_.emplace(emission->key, emission->number);
    emission->property = &properties_[emission->number];
    *emission->property = {emission->topic, {}, emission->sender, 0, false};
    emission->application->properties++;
  } else if (emission->property->owner != emission->sender) {
    give(emission->property, emission->sender);
  }
  property_bytes_ += bytes - emission->property->bytes;
  emission->property->bytes = bytes;
  emission->property->values = emission->values;
  emission->property->is_inherited = false;
}

void
EventStore::erase(guint64 number)
{
  const Property &property = properties_.at(number);

  applications_.at(property.owner).properties--;
  property_bytes_ -= property.bytes;
  numbers_.erase(key_of(*property.topic, property.values.source));
  properties_.erase(number);
}

/**
 * EventStore::topics:
 *
 * Returns: (transfer none): the declared topics, in the order of their names
 */
std::vector<const EventTopic *>
EventStore::topics() const
{
  std::vector<const EventTopic *> topics;

  for (const auto &[name, declared] : topics_) {
    topics.push_back(&declared.topic);
  }
  return topics;
}

/**
 * EventStore::has_topic_of:
 * @sender: an application
 *
 * Returns: whether it has a topic and its connection
 */
bool
EventStore::has_topic_of(const std::string &sender) const
{
  const auto found = applications_.find(sender);

  return found != applications_.end() && found->second.remove_at == 0;
}

/**
 * EventStore::disconnect:
 * @sender: an application whose connection has closed
 *
 * Keeps its topics and properties for %RECEIVER_GRACE_SECONDS.
 */
void
EventStore::disconnect(const std::string &sender)
{
  const auto found = applications_.find(sender);

  if (found != applications_.end()) {
    found->second.remove_at = g_get_monotonic_time() + GRACE_US;
  }
}

/**
 * EventStore::next_removal:
 *
 * Returns: the time of the next remove_overdue(), on the clock of g_get_monotonic_time(); unset if no
 * application has gone
 */
std::optional<gint64>
EventStore::next_removal() const
{
  std::optional<gint64> next;

  for (const auto &[sender, application] : applications_) {
    if (application.remove_at != 0 && (!next.has_value() || application.remove_at < *next)) {
      next = application.remove_at;
    }
  }
  return next;
}

/**
 * EventStore::remove_overdue:
 *
 * Removes the applications that have gone %RECEIVER_GRACE_SECONDS ago, and deletes their properties.
 */
void
EventStore::remove_overdue()
{
  const gint64 now = g_get_monotonic_time();
  std::vector<std::string> overdue;

  for (const auto &[sender, application] : applications_) {
    if (application.remove_at != 0 && application.remove_at <= now) {
      overdue.push_back(sender);
    }
  }
  for (const std::string &sender : overdue) {
    remove(sender);
  }
}

void
EventStore::remove(const std::string &sender)
{
  const std::set<std::string> topics = applications_.at(sender).topics;

  for (const std::string &topic : topics) {
    delete_properties(sender, &topics_.at(topic).topic);
    remove_declaration(sender, topic);
  }
}

/* Deletes the properties of the topic, with the event Deleted and the last data. */
void
EventStore::delete_properties(const std::string &owner, const EventTopic *topic)
{
  std::vector<guint64> numbers;

  for (const auto &[number, property] : properties_) {
    if (property.owner == owner && property.topic == topic) {
      numbers.push_back(number);
    }
  }
  for (const guint64 number : numbers) {
    EventValues values = properties_.at(number).values;
    values.time = g_get_real_time();
    erase(number);
    emitted_(shared_text_count(event_text(*topic, DELETED, values)), number);
  }
}

/**
 * EventStore::newest_property:
 *
 * Returns: the number of the property that was added last; 0 before the first
 */
guint64
EventStore::newest_property() const
{
  return newest_;
}

/**
 * EventStore::state_after:
 * @property: the number of a property, or 0
 * @last: the last number
 *
 * Returns: the state of the next property, up to @last; unset if there is none
 */
std::optional<EventStore::State>
EventStore::state_after(guint64 property, guint64 last) const
{
  const auto found = properties_.upper_bound(property);

  if (found == properties_.end() || found->first > last) {
    return std::nullopt;
  }
  return State{found->first, event_text(*found->second.topic, INITIALIZED, found->second.values)};
}

} // namespace receiver
