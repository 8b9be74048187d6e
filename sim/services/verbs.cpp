/* SPDX-License-Identifier: MIT */
#include "verbs.h"

/* A table of the verbs that control the camera. A verb that fails changes nothing; one that succeeds has
 * taken effect when it returns. The command line options run verbs too, so both have the same limits and
 * errors. */

namespace sim
{

namespace
{

/* What a verb returns; often empty. */
using Result = std::string;

bool
run_absent(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  Service *service = platform->find_service(arguments[0], error);

  return service != nullptr && service->make_absent(error);
}

bool
run_present(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  Service *service = platform->find_service(arguments[0], error);

  return service != nullptr && service->make_present(error);
}

bool
run_inject_fault(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  Service *service = platform->find_service(arguments[0], error);

  return service != nullptr &&
         service->inject_fault(Arguments(arguments.begin() + 1, arguments.end()), error);
}

bool
run_clear_fault(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  Service *service = platform->find_service(arguments[0], error);

  if (service == nullptr) {
    return false;
  }
  service->clear_fault();
  return true;
}

bool
run_calls(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  const Service *service = platform->find_service(arguments[0], error);

  if (service == nullptr) {
    return false;
  }
  *result = std::to_string(service->calls());
  return true;
}

bool
run_channels(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  gint64 channels = 0;

  if (!parse_number(arguments[0], "the number of channels", 0, Camera::MAX_CHANNELS, &channels, error)) {
    return false;
  }
  platform->camera.channels = static_cast<guint>(channels);
  return true;
}

bool
run_rotation(Platform *platform, const Arguments &arguments, Result *result, GError **error)
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
run_move_capabilities(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  gint64 capabilities = 0;

  if (!parse_number(arguments[0], "the move capabilities", G_MININT32, G_MAXINT32, &capabilities, error)) {
    return false;
  }
  platform->camera.move_capabilities = static_cast<gint32>(capabilities);
  return true;
}

bool
run_add_producer(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  return platform->receiver->add_producer(arguments[0], arguments.size() > 1 ? &arguments[1] : nullptr,
                                          error);
}

bool
run_remove_producer(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  return platform->receiver->remove_producer(arguments[0], error);
}

bool
run_property(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  return platform->receiver->set_property(arguments[0], arguments[1], arguments[2], error);
}

bool
run_interface(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  return platform->receiver->set_interface(arguments[0], arguments[1], error);
}

bool
run_sample_frame(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  Producer *producer = platform->receiver->find_producer(arguments[0], error);

  if (producer == nullptr) {
    return false;
  }
  producer->set_sample_frame(arguments[1]);
  return true;
}

bool
run_inject_producer_fault(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  Producer *producer = platform->receiver->find_producer(arguments[0], error);

  return producer != nullptr &&
         producer->inject_fault(arguments[1], Arguments(arguments.begin() + 2, arguments.end()), error);
}

bool
run_clear_producer_faults(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  Producer *producer = platform->receiver->find_producer(arguments[0], error);

  if (producer == nullptr) {
    return false;
  }
  producer->clear_faults();
  return true;
}

bool
run_streams(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  const Producer *producer = platform->receiver->find_producer(arguments[0], error);

  if (producer == nullptr) {
    return false;
  }
  *result = std::to_string(producer->stream_count());
  return true;
}

bool
run_hang_up(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  Producer *producer = platform->receiver->find_producer(arguments[0], error);

  if (producer == nullptr) {
    return false;
  }
  producer->hang_up();
  return true;
}

/* Parses one of two keywords. */
bool
parse_choice(const std::string &argument, const char *what, const char *yes, const char *no, bool *chosen,
             GError **error)
{
  if (argument != yes && argument != no) {
    return refuse(error, "%s must be %s or %s, not '%s'", what, yes, no, argument.c_str());
  }
  *chosen = argument == yes;
  return true;
}

bool
run_descriptors(Platform *platform, const Arguments &arguments, Result *result, GError **error)
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
run_pieces(Platform *platform, const Arguments &arguments, Result *result, GError **error)
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
run_rate(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  std::optional<guint> *rate = &platform->receiver->replay_options.rate;
  gint64 number = 0;

  if (arguments[0] == "recorded") {
    rate->reset();
    return true;
  }
  if (!parse_number(arguments[0], "the rate", 0, ReplayOptions::MAX_RATE, &number, error)) {
    return false;
  }
  *rate = static_cast<guint>(number);
  return true;
}

bool
run_once(Platform *platform, const Arguments &arguments, Result *result, GError **error)
{
  return parse_choice(arguments[0], "once", "yes", "no", &platform->receiver->replay_options.once, error);
}

struct Verb {
  const char *name;
  gsize min_arguments;
  gsize max_arguments;
  const char *usage;
  const char *summary;
  bool (*run)(Platform *platform, const Arguments &arguments, Result *result, GError **error);
};

constexpr std::array VERBS = {
    Verb{"absent", 1, 1, "absent SERVICE", "the service releases its name", run_absent},
    Verb{"present", 1, 1, "present SERVICE", "the service acquires its name", run_present},
    Verb{"inject-fault", 2, 3, "inject-fault SERVICE FAULT [ARGUMENT]", "the service replies with this fault",
         run_inject_fault},
    Verb{"clear-fault", 1, 1, "clear-fault SERVICE", "the service replies correctly again", run_clear_fault},
    Verb{"calls", 1, 1, "calls SERVICE", "prints the number of calls to the service", run_calls},
    Verb{"channels", 1, 1, "channels N", "sets the number of channels", run_channels},
    Verb{"rotation", 2, 2, "rotation CHANNEL DEGREES",
         "sets the channel's rotation; none: not in its settings", run_rotation},
    Verb{"move-capabilities", 1, 1, "move-capabilities N", "sets the move capabilities of the PTZ driver",
         run_move_capabilities},
    Verb{"add-producer", 1, 2, "add-producer NAME [FILE]",
         "adds a producer: a built-in one, or one that replays the file", run_add_producer},
    Verb{"remove-producer", 1, 1, "remove-producer NAME", "removes the producer and closes its streams",
         run_remove_producer},
    Verb{"property", 3, 3, "property NAME PROPERTY VALUE",
         "exports the producer again with this value; none: without the property", run_property},
    Verb{"interface", 2, 2, "interface NAME INTERFACE", "exports the producer again with this interface only",
         run_interface},
    Verb{"sample-frame", 2, 2, "sample-frame NAME TEXT", "sets the producer's sample frame",
         run_sample_frame},
    Verb{"inject-producer-fault", 3, 4, "inject-producer-fault NAME METHOD FAULT [ARGUMENT]",
         "the producer's method replies with this fault", run_inject_producer_fault},
    Verb{"clear-producer-faults", 1, 1, "clear-producer-faults NAME",
         "the producer's methods reply correctly again", run_clear_producer_faults},
    Verb{"streams", 1, 1, "streams NAME", "prints the number of the producer's open streams", run_streams},
    Verb{"hang-up", 1, 1, "hang-up NAME", "closes all streams of the producer", run_hang_up},
    Verb{"descriptors", 2, 3, "descriptors NAME pipe|socket [nonblocking]",
         "sets the kind of the producer's later streams", run_descriptors},
    Verb{"pieces", 3, 3, "pieces NAME BYTES MILLISECONDS",
         "writes messages in pieces with pauses between them; 0 bytes: whole", run_pieces},
    Verb{"rate", 1, 1, "rate N|recorded", "sets the messages per second of later replays; 0: no pauses",
         run_rate},
    Verb{"once", 1, 1, "once yes|no", "whether replays end after their recording", run_once},
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

} // namespace

/**
 * verbs_run:
 * @platform: the camera
 * @command: a verb and its arguments
 * @error: set if the command fails; it has changed nothing then
 *
 * Runs a verb. It has taken effect when this returns.
 *
 * Returns: the result of the verb, often empty; unset with @error set
 */
std::optional<std::string>
verbs_run(Platform *platform, const Arguments &command, GError **error)
{
  const Verb *verb = find_verb(command.empty() ? "" : command[0], error);
  if (verb == nullptr) {
    return std::nullopt;
  }

  const Arguments arguments(command.begin() + 1, command.end());
  for (const std::string &argument : arguments) {
    if (!check_text(argument.c_str(), error)) {
      return std::nullopt;
    }
  }
  if (arguments.size() < verb->min_arguments || arguments.size() > verb->max_arguments) {
    refuse(error, "wrong number of arguments; usage: %s", verb->usage);
    return std::nullopt;
  }

  Result result;
  if (!verb->run(platform, arguments, &result, error)) {
    return std::nullopt;
  }
  return result;
}

/**
 * verbs_describe:
 *
 * Returns: the usage of all verbs, one per line
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

} // namespace sim
