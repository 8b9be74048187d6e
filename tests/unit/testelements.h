/* SPDX-License-Identifier: MIT */
/* Stand-ins for the platform's elements, registered in this process and controlled by the tests. Elements of
 * GStreamer itself are real.
 */
#pragma once

#include "testfailingelements.h"
#include "testrecordingelements.h"

#include <gst/gst.h>
#include <ostream>
#include <string>
#include <vector>

namespace testelements
{

/* Registers "onvifxmlmetadatastreamdoc", "onvifeventsrc" and the elements of testrecordingelements.h. Once in
 * a process is enough. */
void install();

/* What a source does when its pipeline plays. The streaming thread reports all but the failures to start. */
enum class Behaviour {
  ONE_BUFFER,        /* one document, then nothing */
  SILENT,            /* nothing, ever */
  FLOOD,             /* documents of BIG_BUFFER_BYTES, as many as fit */
  END,               /* ends the stream immediately */
  ERROR,             /* fails immediately with ERROR_TEXT */
  WRITE_ERROR,       /* fails immediately like a failed write */
  START_STATE_FAILS, /* the change of state to PAUSED fails */
  START_REFUSED,     /* the same, after two posted errors, the first with ERROR_TEXT */
};

constexpr gsize BIG_BUFFER_BYTES = 1024 * 1024;
constexpr const char *ERROR_TEXT = "Broken test source";
constexpr const char *DOCUMENT_TEXT = "<test document/>";

/* A floating source. Not live, so that its pipeline pre-rolls. */
GstElement *make_source(Behaviour behaviour);

/* The same, but live. */
GstElement *make_live_source(Behaviour behaviour);

/* A floating source that fails a state change. */
GstElement *make_failing_source(Behaviour behaviour, const StateFailure &failure, bool live = false);

/* The type of the sources, and a floating source of a type derived from it. */
GType source_type();
GstElement *make_source_of_type(GType type, Behaviour behaviour, bool live);

/* The behaviour of new "onvifeventsrc" elements; initially ONE_BUFFER. */
void set_event_source_behaviour(Behaviour behaviour);

/* How many sources have reported their ERROR. */
unsigned errors_reported();

/* All properties set on an "onvifeventsrc" since the last call, each as "name=value". */
std::vector<std::string> take_filters();

struct SentEvent {
  GstEventType type;
  bool serialized;
  std::string structure;
  int fields;

  bool operator==(const SentEvent &) const = default;
};

std::ostream &operator<<(std::ostream &stream, const SentEvent &event);

/* The events sent to document elements since the last call, in order. */
std::vector<SentEvent> take_sent_events();
gsize sent_events_size();

/* While this object lives, document elements send events downstream, like elements without a handler.
 * Otherwise they drop them. */
class DefaultEventHandling
{
public:
  DefaultEventHandling();
  ~DefaultEventHandling();
  DefaultEventHandling(const DefaultEventHandling &) = delete;
  DefaultEventHandling &operator=(const DefaultEventHandling &) = delete;
};

} // namespace testelements
