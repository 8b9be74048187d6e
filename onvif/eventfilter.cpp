/* SPDX-License-Identifier: MIT */
#include "eventfilter.h"

namespace onvif
{

namespace
{

enum {
  PROP_EVENT_TOPIC = 1,
  PROP_EVENT_CONTENT,
};

} // namespace

/**
 * EventFilter::compile:
 * @topic: (nullable): a topic expression, any bytes
 * @content: (nullable): an XPath expression over tt:Message, any bytes
 * @examples: one event of each kind that the source sends
 * @error: set if one of them is malformed; a complete sentence for the client
 *
 * Without an expression every event passes.
 *
 * Returns: whether the filter can be used
 */
bool
EventFilter::compile(const char *topic, const char *content, std::span<const EventMessage> examples,
                     GError **error)
{
  g_autoptr(GError) found = nullptr;
  topics_.reset();
  contents_.reset();
  if (topic != nullptr) {
    topics_ = TopicExpression::parse(topic, &found);
    if (!topics_.has_value()) {
      g_set_error(error, found->domain, found->code, "The topic filter of the events is malformed: %s.",
                  found->message);
      return false;
    }
  }
  if (content != nullptr) {
    contents_ = ContentFilter::compile(content, examples, &found);
    if (!contents_.has_value()) {
      g_set_error(error, found->domain, found->code, "The content filter of the events is malformed: %s.",
                  found->message);
      return false;
    }
  }
  return true;
}

/**
 * EventFilter::selects:
 * @message: an event
 * @error: set if the content filter cannot be evaluated; a complete sentence
 *
 * Returns: whether @message passes; unset with @error set
 */
std::optional<bool>
EventFilter::selects(const EventMessage &message, GError **error) const
{
  if (topics_.has_value() && !topics_->matches(message.topic)) {
    return false;
  }
  if (!contents_.has_value()) {
    return true;
  }
  g_autoptr(GError) found = nullptr;
  const std::optional<bool> matches = contents_->matches(message, &found);
  if (!matches.has_value()) {
    g_set_error(error, found->domain, found->code,
                "The content filter of the events cannot be evaluated: %s.", found->message);
  }
  return matches;
}

EventFilterProperties::~EventFilterProperties()
{
  g_free(topic_);
  g_free(content_);
}

/**
 * EventFilterProperties::install:
 * @klass: the class of an element without other properties
 *
 * Installs the properties event-topic and event-content.
 */
void
EventFilterProperties::install(GObjectClass *klass)
{
  auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
  g_object_class_install_property(
      klass, PROP_EVENT_TOPIC,
      g_param_spec_string("event-topic", "Event topic",
                          "ONVIF ConcreteSet topic expression that selects the topics to send; all if unset",
                          nullptr, flags));
  g_object_class_install_property(
      klass, PROP_EVENT_CONTENT,
      g_param_spec_string("event-content", "Event content",
                          "XPath expression over tt:Message that selects the events to send; all if unset",
                          nullptr, flags));
}

/**
 * EventFilterProperties::set:
 * @element: the element
 * @id: a property's id
 * @value: its value
 * @pspec: its description
 *
 * The class's set_property function. Any thread.
 */
void
EventFilterProperties::set(GObject *element, guint id, const GValue *value, GParamSpec *pspec)
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(element));
  if (id != PROP_EVENT_TOPIC && id != PROP_EVENT_CONTENT) {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(element, id, pspec);
    return;
  }
  char **text = id == PROP_EVENT_TOPIC ? &topic_ : &content_;
  g_free(*text);
  *text = g_value_dup_string(value);
}

/**
 * EventFilterProperties::get:
 * @element: the element
 * @id: a property's id
 * @value: (out): its value
 * @pspec: its description
 *
 * The class's get_property function. Any thread.
 */
void
EventFilterProperties::get(GObject *element, guint id, GValue *value, GParamSpec *pspec) const
{
  g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(element));
  if (id != PROP_EVENT_TOPIC && id != PROP_EVENT_CONTENT) {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(element, id, pspec);
    return;
  }
  g_value_set_string(value, id == PROP_EVENT_TOPIC ? topic_ : content_);
}

/**
 * EventFilterProperties::compile:
 * @element: the element, which posts an error if a property is malformed
 * @filter: (out): the filter of the properties
 * @examples: one event of each kind that the source sends
 *
 * Returns: whether @filter can be used
 */
bool
EventFilterProperties::compile(GstElement *element, EventFilter *filter,
                               std::span<const EventMessage> examples) const
{
  g_autofree char *topic = nullptr;
  g_autofree char *content = nullptr;
  {
    g_autoptr(GMutexLocker) locker = g_mutex_locker_new(GST_OBJECT_GET_LOCK(element));
    topic = g_strdup(topic_);
    content = g_strdup(content_);
  }
  g_autoptr(GError) error = nullptr;
  if (!filter->compile(topic, content, examples, &error)) {
    GST_ELEMENT_ERROR(element, RESOURCE, SETTINGS, ("%s", error->message), (nullptr));
    return false;
  }
  return true;
}

} // namespace onvif
