#include "verbs.h"

/* What can be asked of the camera, one line of the table each. A verb that fails has changed nothing; one
 * that succeeds is in force when it returns. The command line's settings are verbs too, so that both have the
 * same limits and errors. */

namespace sim
{

namespace
{

/* What a verb may answer beside that it is done. */
using Answer = std::string;

bool
run_absent(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  Service *service = platform->find_service(arguments[0], error);

  return service != nullptr && service->vanish(error);
}

bool
run_present(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  Service *service = platform->find_service(arguments[0], error);

  return service != nullptr && service->appear(error);
}

bool
run_misbehave(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  Service *service = platform->find_service(arguments[0], error);

  return service != nullptr && service->misbehave(Words(arguments.begin() + 1, arguments.end()), error);
}

bool
run_behave(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  Service *service = platform->find_service(arguments[0], error);

  if (service == nullptr) {
    return false;
  }
  service->behave();
  return true;
}

bool
run_calls(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  const Service *service = platform->find_service(arguments[0], error);

  if (service == nullptr) {
    return false;
  }
  *answer = std::to_string(service->calls());
  return true;
}

bool
run_channels(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  gint64 channels = 0;

  if (!parse_number(arguments[0], "the number of channels", 0, Camera::MAX_CHANNELS, &channels, error)) {
    return false;
  }
  platform->camera.channels = static_cast<guint>(channels);
  return true;
}

bool
run_rotation(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  Camera *camera = &platform->camera;
  gint64 channel = 0;
  gint64 degrees = 0;

  if (camera->channels == 0) {
    return refuse(error, "the camera has no channel to rotate");
  }
  if (!parse_number(arguments[0], "the channel", 1, camera->channels, &channel, error)) {
    return false;
  }
  std::optional<guint32> *rotation = &camera->rotations[static_cast<gsize>(channel - 1)];
  if (arguments[1] == "none") {
    rotation->reset();
    return true;
  }
  if (!parse_number(arguments[1], "the rotation", 0, G_MAXUINT32, &degrees, error)) {
    return false;
  }
  *rotation = static_cast<guint32>(degrees);
  return true;
}

bool
run_move_capabilities(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  gint64 capabilities = 0;

  if (!parse_number(arguments[0], "the move capabilities", G_MININT32, G_MAXINT32, &capabilities, error)) {
    return false;
  }
  platform->camera.move_capabilities = static_cast<gint32>(capabilities);
  return true;
}

bool
run_add_producer(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  return platform->receiver->add_producer(arguments[0], arguments.size() > 1 ? &arguments[1] : nullptr,
                                          error);
}

bool
run_remove_producer(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  return platform->receiver->remove_producer(arguments[0], error);
}

bool
run_property(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  return platform->receiver->set_property(arguments[0], arguments[1], arguments[2], error);
}

bool
run_interface(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  return platform->receiver->set_interface(arguments[0], arguments[1], error);
}

bool
run_sample_frame(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  Producer *producer = platform->receiver->find_producer(arguments[0], error);

  if (producer == nullptr) {
    return false;
  }
  producer->set_sample_frame(arguments[1]);
  return true;
}

bool
run_misbehave_producer(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  Producer *producer = platform->receiver->find_producer(arguments[0], error);

  return producer != nullptr &&
         producer->misbehave(arguments[1], Words(arguments.begin() + 2, arguments.end()), error);
}

bool
run_behave_producer(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  Producer *producer = platform->receiver->find_producer(arguments[0], error);

  if (producer == nullptr) {
    return false;
  }
  producer->behave();
  return true;
}

bool
run_streams(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  const Producer *producer = platform->receiver->find_producer(arguments[0], error);

  if (producer == nullptr) {
    return false;
  }
  *answer = std::to_string(producer->stream_count());
  return true;
}

bool
run_hang_up(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  Producer *producer = platform->receiver->find_producer(arguments[0], error);

  if (producer == nullptr) {
    return false;
  }
  producer->hang_up();
  return true;
}

/* One of two words. */
bool
parse_choice(const std::string &word, const char *what, const char *yes, const char *no, bool *chosen,
             GError **error)
{
  if (word != yes && word != no) {
    return refuse(error, "%s must be %s or %s, not '%s'", what, yes, no, word.c_str());
  }
  *chosen = word == yes;
  return true;
}

bool
run_descriptors(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  Producer *producer = platform->receiver->find_producer(arguments[0], error);
  Descriptors descriptors;
  const std::string mode = arguments.size() > 2 ? arguments[2] : "blocking";

  if (producer == nullptr ||
      !parse_choice(arguments[1], "the descriptor", "socket", "pipe", &descriptors.socket, error) ||
      !parse_choice(mode, "its mode", "blocking", "nonblocking", &descriptors.blocking, error)) {
    return false;
  }
  producer->descriptors = descriptors;
  return true;
}

bool
run_pieces(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  Producer *producer = platform->receiver->find_producer(arguments[0], error);
  gint64 bytes = 0;
  gint64 pause_ms = 0;

  if (producer == nullptr ||
      !parse_number(arguments[1], "the number of bytes", 0, Pieces::MAX_BYTES, &bytes, error) ||
      !parse_number(arguments[2], "the pause in milliseconds", 0, Pieces::MAX_PAUSE_MS, &pause_ms, error)) {
    return false;
  }
  producer->pieces = {.bytes = static_cast<gsize>(bytes), .pause_ms = static_cast<guint>(pause_ms)};
  return true;
}

bool
run_rate(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  std::optional<guint> *rate = &platform->receiver->pace.rate;
  gint64 number = 0;

  if (arguments[0] == "recorded") {
    rate->reset();
    return true;
  }
  if (!parse_number(arguments[0], "the rate", 0, Pace::MAX_RATE, &number, error)) {
    return false;
  }
  *rate = static_cast<guint>(number);
  return true;
}

bool
run_once(Platform *platform, const Words &arguments, Answer *answer, GError **error)
{
  return parse_choice(arguments[0], "once", "yes", "no", &platform->receiver->pace.once, error);
}

struct Verb {
  const char *name;
  gsize min_arguments;
  gsize max_arguments;
  const char *usage;
  const char *summary;
  bool (*run)(Platform *platform, const Words &arguments, Answer *answer, GError **error);
};

constexpr std::array VERBS = {
    Verb{"absent", 1, 1, "absent SERVICE", "the service gives its name up", run_absent},
    Verb{"present", 1, 1, "present SERVICE", "the service takes its name", run_present},
    Verb{"misbehave", 2, 3, "misbehave SERVICE HOW [ARGUMENT]", "the service answers so from now on",
         run_misbehave},
    Verb{"behave", 1, 1, "behave SERVICE", "the service answers rightly from now on", run_behave},
    Verb{"calls", 1, 1, "calls SERVICE", "prints how often the service has been asked", run_calls},
    Verb{"channels", 1, 1, "channels N", "the camera has so many channels", run_channels},
    Verb{"rotation", 2, 2, "rotation CHANNEL DEGREES", "the channel is rotated so; none: it does not tell",
         run_rotation},
    Verb{"move-capabilities", 1, 1, "move-capabilities N", "the PTZ driver has these capabilities",
         run_move_capabilities},
    Verb{"add-producer", 1, 2, "add-producer NAME [FILE]",
         "a producer comes: a built-in one, or one that replays the file", run_add_producer},
    Verb{"remove-producer", 1, 1, "remove-producer NAME", "the producer goes, and its streams end",
         run_remove_producer},
    Verb{"property", 3, 3, "property NAME PROPERTY VALUE",
         "the producer is announced anew with this; none: without it", run_property},
    Verb{"interface", 2, 2, "interface NAME INTERFACE",
         "the producer is announced anew with this interface only", run_interface},
    Verb{"sample-frame", 2, 2, "sample-frame NAME TEXT", "this is the producer's sample frame",
         run_sample_frame},
    Verb{"misbehave-producer", 3, 4, "misbehave-producer NAME METHOD HOW [ARGUMENT]",
         "the producer's method answers so from now on", run_misbehave_producer},
    Verb{"behave-producer", 1, 1, "behave-producer NAME", "the producer's methods answer rightly from now on",
         run_behave_producer},
    Verb{"streams", 1, 1, "streams NAME", "prints how many of the producer's streams are open", run_streams},
    Verb{"hang-up", 1, 1, "hang-up NAME", "all streams of the producer end", run_hang_up},
    Verb{"descriptors", 2, 3, "descriptors NAME pipe|socket [nonblocking]",
         "what the producer's later streams are", run_descriptors},
    Verb{"pieces", 3, 3, "pieces NAME BYTES MILLISECONDS",
         "messages come in such pieces with such pauses; 0: whole", run_pieces},
    Verb{"rate", 1, 1, "rate N|recorded", "later replays tell so many messages a second; 0: all at once",
         run_rate},
    Verb{"once", 1, 1, "once yes|no", "whether replays end with their recording", run_once},
};

const Verb *
find_verb(const std::string &name, GError **error)
{
  std::string list;

  for (const Verb &verb : VERBS) {
    if (name == verb.name) {
      return &verb;
    }
    list.append(list.empty() ? "" : ", ").append(verb.name);
  }
  refuse(error, "unknown verb '%s'; there are: %s", name.c_str(), list.c_str());
  return nullptr;
}

} /* namespace */

/**
 * verbs_run:
 * @platform: the camera
 * @words: a verb and its arguments
 * @error: set if it cannot be done; nothing has changed then
 *
 * Does what somebody asks for. When it returns, the change is in force.
 *
 * Returns: the answer, often an empty one, or nothing with @error set
 */
std::optional<std::string>
verbs_run(Platform *platform, const Words &words, GError **error)
{
  const Verb *verb = find_verb(words.empty() ? "" : words[0], error);
  if (verb == nullptr) {
    return std::nullopt;
  }

  const Words arguments(words.begin() + 1, words.end());
  for (const std::string &argument : arguments) {
    if (!check_text(argument.c_str(), error)) {
      return std::nullopt;
    }
  }
  if (arguments.size() < verb->min_arguments || arguments.size() > verb->max_arguments) {
    refuse(error, "wrong number of arguments; usage: %s", verb->usage);
    return std::nullopt;
  }

  Answer answer;
  if (!verb->run(platform, arguments, &answer, error)) {
    return std::nullopt;
  }
  return answer;
}

/**
 * verbs_describe:
 *
 * Returns: every verb, a line each, for a person to read
 */
std::string
verbs_describe()
{
  std::string text = "Verbs:";

  for (const Verb &verb : VERBS) {
    g_autofree gchar *line = g_strdup_printf("\n  %-34s %s", verb.usage, verb.summary);
    text.append(line);
  }
  return text;
}

} /* namespace sim */
