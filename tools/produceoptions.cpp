/* SPDX-License-Identifier: MIT */
/* The command line of "tessardctl produce".
 *
 * The receiver validates names and channels. A usage error is only what the bus cannot carry.
 */
#include "produceoptions.h"
#include "boundedread.h"
#include "command.h"
#include "produceritem.h"

#include <fcntl.h>

namespace
{

constexpr guint32 DEFAULT_CHANNEL = 1;

constexpr ArgumentRules RULES = {
    "NAME",
    "Makes a program a producer of analytics metadata: reads one JSON item a line from\n"
    "standard input and passes it to the metadata receiver, until the input ends.",
    "Wrong lines are skipped, with a message; with --strict, the first one ends the command\n"
    "with status 1. While the receiver is away, lines are dropped.\n"
    "\n"
    "Example:\n"
    "  my-detector | tessardctl produce Mine --nice-name 'My detector'\n"
    "\n",
};

/* The values of options that need more checks than GLib's parser makes. */
struct Texts {
  Texts() = default;
  Texts(const Texts &) = delete;
  Texts &operator=(const Texts &) = delete;
  ~Texts()
  {
    g_free(nice_name);
    g_strfreev(channels);
    g_free(sample);
  }

  gchar *nice_name = nullptr;
  gchar **channels = nullptr;
  gchar *sample = nullptr;
};

gboolean
parse_command_line(ProduceOptions *options, Texts *texts, int argc, char **argv, GError **error)
{
  const GOptionEntry entries[] = {
      {"nice-name", 0, 0, G_OPTION_ARG_FILENAME, &texts->nice_name, "The name for display (default: NAME)",
       "TEXT"},
      {"channel", 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &texts->channels,
       "A video channel of the items, several times for several (default: 1)", "N"},
      {"sample", 0, 0, G_OPTION_ARG_FILENAME, &texts->sample,
       "A file with an item that has every member in use (default: the first line)", "FILE"},
      {"strict", 0, 0, G_OPTION_ARG_NONE, &options->strict, "End with status 1 at the first wrong line",
       nullptr},
      {},
  };

  return arguments_parse(&options->arguments, &RULES, entries, argc, argv, error) &&
         command_check_not_empty("--sample", texts->sample, error);
}

gboolean
take_text(std::string *text, const gchar *what, const gchar *value, GError **error)
{
  if (!g_utf8_validate(value, -1, nullptr)) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE, "The %s is not UTF-8.", what);
    return FALSE;
  }
  *text = value;
  return TRUE;
}

gboolean
take_channels(ProduceOptions *options, gchar **texts, GError **error)
{
  if (texts == nullptr) {
    options->channels = {DEFAULT_CHANNEL};
    return TRUE;
  }
  for (gchar **text = texts; *text != nullptr; text++) {
    guint64 number = 0;
    if (!g_ascii_string_to_unsigned(*text, 10, 0, G_MAXUINT32, &number, nullptr)) {
      g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_USAGE,
                  "The value of --channel is '%s', not a whole number of 32 bits.", *text);
      return FALSE;
    }
    options->channels.push_back(static_cast<guint32>(number));
  }
  return TRUE;
}

GByteArray *
read_file(const gchar *path, GError **error)
{
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not open '%s': %s.", path,
                g_strerror(errno));
    return nullptr;
  }

  g_autoptr(GError) cause = nullptr;
  GByteArray *bytes = bounded_read(fd, PRODUCE_MAX_SAMPLE_BYTES, &cause);
  if (bytes == nullptr) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not read '%s': %s.", path, cause->message);
  }
  return bytes;
}

/* Returns: (nullable): why a text is no sample frame, as a part of a sentence */
const gchar *
find_flaw(const std::string &text)
{
  ProducerItemChecker checker;
  plugins::ProducerFlaws flaws;

  if (!checker.check(text, &flaws)) {
    return flaws.fatal;
  }
  return flaws.partial;
}

/* Blocks until the end of the file.
 *
 * Returns: whether the file is one item of which the daemon drops nothing */
gboolean
take_sample(ProduceOptions *options, const gchar *path, GError **error)
{
  g_autoptr(GByteArray) bytes = read_file(path, error);
  if (bytes == nullptr) {
    return FALSE;
  }
  if (bytes->len > PRODUCE_MAX_SAMPLE_BYTES) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not use '%s': more than %d bytes.", path,
                PRODUCE_MAX_SAMPLE_BYTES);
    return FALSE;
  }
  options->sample_frame.assign(reinterpret_cast<const gchar *>(bytes->data), bytes->len);
  const gchar *flaw = find_flaw(options->sample_frame);
  if (flaw != nullptr) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not use '%s': %s.", path, flaw);
    return FALSE;
  }
  return TRUE;
}

} // namespace

/**
 * produce_options_parse:
 * @options: (transfer none): as constructed; filled in
 * @argc: number of arguments
 * @argv: (transfer none): the arguments, from the command's name on
 * @error: return location for an error of %TESSARDCTL_ERROR, whose message is for the user
 *
 * Parses the command line, and reads the file with the sample frame. "--help" prints the help and exits.
 *
 * Returns: %FALSE with %EXIT_STATUS_USAGE when the command line is wrong, and with %EXIT_STATUS_LOCAL when
 * the file is
 */
gboolean
produce_options_parse(ProduceOptions *options, int argc, char **argv, GError **error)
{
  Texts texts;

  if (!parse_command_line(options, &texts, argc, argv, error)) {
    return FALSE;
  }
  const gchar *name = options->arguments.words[0];
  return take_text(&options->name, "argument NAME", name, error) &&
         take_text(&options->nice_name, "value of --nice-name",
                   texts.nice_name != nullptr ? texts.nice_name : name, error) &&
         take_channels(options, texts.channels, error) &&
         (texts.sample == nullptr || take_sample(options, texts.sample, error));
}
