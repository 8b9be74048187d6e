/* SPDX-License-Identifier: MIT */
/* Elements that fail a state change or cannot be used, and factories that are missing or make such elements.
 */
#pragma once

#include <gst/gst.h>
#include <vector>

namespace testelements
{

/* The failure of a state change. */
struct StateFailure {
  GstStateChange change;
  bool works;     /* the element does the work of the change */
  unsigned times; /* how often each element fails before the change succeeds */
};

constexpr unsigned FOR_EVER = G_MAXUINT;

/* All living elements that fail in a state change. Borrowed. */
std::vector<GstElement *> failing_elements();

/* Ends all failures, stops the elements and drops the reference that was left behind on each. Returns their
 * number. */
gsize release_failing_elements();

enum class Unusable {
  CANNOT_BE_LINKED,
  HAS_NO_SOURCE_PAD,
  HAS_PARENT,  /* cannot be added to a bin */
  HAS_ENDED,   /* an "appsrc" that takes no buffer */
  NEVER_WAITS, /* a sink that does not wait for data before it plays */
};

/* A floating element. */
GstElement *make_unusable(Unusable kind);

/* Removes an element factory from the registry while this object lives. */
class WithoutFactory
{
public:
  explicit WithoutFactory(const char *name);
  ~WithoutFactory();
  WithoutFactory(const WithoutFactory &) = delete;
  WithoutFactory &operator=(const WithoutFactory &) = delete;

private:
  GstPluginFeature *feature_;
};

/* Makes an element factory make elements that cannot be used or that fail a state change, while this object
 * lives. Apart from that, they are like those of the original factory. */
class ReplacedFactory
{
public:
  ReplacedFactory(const char *name, Unusable kind);
  ReplacedFactory(const char *name, const StateFailure &failure);
  ~ReplacedFactory();
  ReplacedFactory(const ReplacedFactory &) = delete;
  ReplacedFactory &operator=(const ReplacedFactory &) = delete;

private:
  ReplacedFactory(const char *name, GType type);

  WithoutFactory without_;
  const char *name_;
};

} // namespace testelements
