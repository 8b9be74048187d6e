/* SPDX-License-Identifier: MIT */
#pragma once

#include "contentfilter.h"
#include "topicexpression.h"

#include <gst/gst.h>

namespace onvif
{

/* What a client selects of a source's events, by a topic expression and a content filter. */
class EventFilter
{
public:
  bool compile(const char *topic, const char *content, std::span<const EventMessage> examples,
               GError **error);

  std::optional<bool> selects(const EventMessage &message, GError **error) const;

private:
  std::optional<TopicExpression> topics_;
  std::optional<ContentFilter> contents_;
};

/* The properties of an element that has such a filter. The element's object lock protects them. */
class EventFilterProperties
{
public:
  EventFilterProperties() = default;
  ~EventFilterProperties();
  EventFilterProperties(const EventFilterProperties &) = delete;
  EventFilterProperties &operator=(const EventFilterProperties &) = delete;

  static void install(GObjectClass *klass);

  void set(GObject *element, guint id, const GValue *value, GParamSpec *pspec);
  void get(GObject *element, guint id, GValue *value, GParamSpec *pspec) const;
  bool compile(GstElement *element, EventFilter *filter, std::span<const EventMessage> examples) const;

private:
  char *topic_ = nullptr;
  char *content_ = nullptr;
};

} // namespace onvif
