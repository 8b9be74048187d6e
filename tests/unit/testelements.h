/* The camera platform's elements as the daemon's components need them: registered in this process, driven and
 * watched by the tests. The elements that GStreamer brings are GStreamer's own.
 */
#pragma once

#include <gst/gst.h>
#include <ostream>
#include <string>
#include <vector>

namespace testelements
{

/* Makes the doubles known: "onvifxmlmetadatastreamdoc", "onvifeventsrc", and those that just remember what is
 * set on them, "statuscacheptzsrc", "scenesrc", "scene2xml", "radarscenesrc", "radarscene2xml" and
 * "json2xml". Once in a process is enough. */
void install();

/* What a source does when its pipeline plays. All but the failures to start are told by the streaming thread.
 */
enum class Behaviour {
  ONE_BUFFER,        /* one document, then nothing */
  SILENT,            /* nothing, ever */
  FLOOD,             /* documents of BIG_BUFFER_BYTES as fast as they are taken */
  END,               /* the end of the stream at once */
  ERROR,             /* a failure with ERROR_TEXT at once */
  WRITE_ERROR,       /* the error of a failed write at once */
  START_STATE_FAILS, /* the change of state to PAUSED fails */
  START_REFUSED,     /* the same, with a failure with ERROR_TEXT and another one posted before */
};

constexpr gsize BIG_BUFFER_BYTES = 1024 * 1024;
constexpr const char *ERROR_TEXT = "Broken test source";
constexpr const char *DOCUMENT_TEXT = "<test document/>";

/* A floating source. Not live, so that its pipeline pre-rolls. */
GstElement *make_source(Behaviour behaviour);

/* The same, but live. */
GstElement *make_live_source(Behaviour behaviour);

/* How an element fails in one of its state changes. */
struct StateFailure {
  GstStateChange change;
  bool works;     /* the element does what belongs to the change all the same */
  unsigned times; /* how often each element fails, before the change succeeds */
};

constexpr unsigned FOR_EVER = G_MAXUINT;

/* A floating source that fails so. */
GstElement *make_failing_source(Behaviour behaviour, const StateFailure &failure, bool live = false);

/* All living elements that fail in a state change. Borrowed. */
std::vector<GstElement *> failing_elements();

/* Ends all failures, stops the elements and drops the reference that whoever could not stop them has left on
 * each. How many there were. */
gsize release_failing_elements();

enum class Unusable {
  CANNOT_BE_LINKED,
  HAS_NO_SOURCE_PAD,
  HAS_PARENT,  /* so it cannot be added */
  HAS_ENDED,   /* an "appsrc" that takes no buffer */
  NEVER_WAITS, /* a sink that does not wait for data before it plays */
};

/* A floating element. */
GstElement *make_unusable(Unusable kind);

/* What the "onvifeventsrc" elements do that are made from now on; ONE_BUFFER at first. */
void set_event_source_behaviour(Behaviour behaviour);

/* How many sources have reported their ERROR. */
unsigned errors_reported();

/* Every property set on an "onvifeventsrc" since the last call, as "name=value". */
std::vector<std::string> take_filters();

/* Every call since the last call of this that set properties of elements that remember, of all of them in
 * order, each as "element property=value property=value". */
std::vector<std::string> take_settings();

/* No "scene2xml" takes "ptz" as long as this object lives. */
class WithoutPtz
{
public:
  WithoutPtz();
  ~WithoutPtz();
  WithoutPtz(const WithoutPtz &) = delete;
  WithoutPtz &operator=(const WithoutPtz &) = delete;
};

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

/* A document element keeps the events sent to it, unless one of these lives: then it handles them as elements
 * do that have no handler of their own, and sends them down its stream. */
class DefaultEventHandling
{
public:
  DefaultEventHandling();
  ~DefaultEventHandling();
  DefaultEventHandling(const DefaultEventHandling &) = delete;
  DefaultEventHandling &operator=(const DefaultEventHandling &) = delete;
};

/* Takes an element factory out of the registry as long as this object lives. */
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

/* Makes an element factory make elements that cannot be used, or that fail in a state change, as long as this
 * object lives. Nothing else about them differs from those that it made before. */
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
