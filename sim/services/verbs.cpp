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
