/* The file that "tessardctl apply" takes, in the form that "tessardctl producers --json" prints: an array of
 * producers, each of them with an array of channels.
 *
 * The daemon judges names and channels. What is wrong in the form is an error here, for a switch that was
 * misspelt and passed over would be worse: members that mean nothing are refused, and so is a producer that
 * stands there twice. Nothing is sent unless the whole file is right.
 */
#include "applyfile.h"
#include "command.h"

#include <array>
#include <cstring>
#include <fcntl.h>
#include <gio/gunixinputstream.h>
#include <json-glib/json-glib.h>
#include <unistd.h>

namespace
{

constexpr gchar STANDARD_INPUT[] = "-";

/* Between strings JSON has these, digits and nothing else. json-glib takes more: comments, assignments,
 * strings in other quotes. */
constexpr gchar OUTSIDE_STRINGS[] = "[]{}:,+-.eEtrufalsn \t\r\n";

/* Of an escape like \u00e9. */
constexpr gint UNIT_LENGTH = 6;

constexpr gchar ESCAPES[] = "\"\\/bfnrtu";

/* Of a number of 64 bits whatever the digits are. */
constexpr gint MAX_DIGITS = 18;

constexpr gchar NO_ARRAY[] = "not an array of producers";

struct Member {
  const gchar *name;
  GType type; /* of a value; G_TYPE_INVALID for an array */
  gboolean required;
};

constexpr std::array PRODUCER_MEMBERS = {
    Member{"Name", G_TYPE_STRING, TRUE},
    Member{"NiceName", G_TYPE_STRING, FALSE},
    Member{"Channels", G_TYPE_INVALID, TRUE},
};

constexpr std::array CHANNEL_MEMBERS = {
    Member{"Channel", G_TYPE_INT64, TRUE},
    Member{"Enabled", G_TYPE_BOOLEAN, TRUE},
    Member{"Configuration", G_TYPE_STRING, FALSE},
};

gboolean
is_first_of_pair(guint unit)
{
  return unit >= 0xd800 && unit <= 0xdbff;
}

gboolean
is_second_of_pair(guint unit)
{
  return unit >= 0xdc00 && unit <= 0xdfff;
}

gboolean refuse(GError **error, const gchar *format, ...) G_GNUC_PRINTF(2, 3);

gboolean
refuse(GError **error, const gchar *format, ...)
{
  va_list args;

  va_start(args, format);
  g_autoptr(GError) refusal = g_error_new_valist(TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, format, args);
  va_end(args);
  g_propagate_error(error, g_steal_pointer(&refusal));
  return FALSE;
}

/* The 16 bits that the escape at @p stands for; 0, which no text can hold, when there is no such escape. */
guint
read_unit(const gchar *p, const gchar *end)
{
  guint unit = 0;

  if (end - p < UNIT_LENGTH || p[0] != '\\' || p[1] != 'u') {
    return 0;
  }
  for (gint index = 2; index < UNIT_LENGTH; index++) {
    if (!g_ascii_isxdigit(p[index])) {
      return 0;
    }
    unit = unit * 16 + static_cast<guint>(g_ascii_xdigit_value(p[index]));
  }
  return unit;
}

/* The length of the escape at @p; 0 when it is none of JSON's, or of nothing that a text can hold. The parser
 * takes letters of its own, and half of a pair. */
gint
measure_escape(const gchar *p, const gchar *end)
{
  if (end - p < 2 || p[1] == '\0' || strchr(ESCAPES, p[1]) == nullptr) {
    return 0;
  }
  if (p[1] != 'u') {
    return 2;
  }
  const guint unit = read_unit(p, end);
  if (unit == 0 || is_second_of_pair(unit)) {
    return 0;
  }
  if (!is_first_of_pair(unit)) {
    return UNIT_LENGTH;
  }
  return is_second_of_pair(read_unit(p + UNIT_LENGTH, end)) ? 2 * UNIT_LENGTH : 0;
}

/* Moves behind a string from behind its opening quote, as far as there is one. */
gboolean
skip_string(const gchar **p, const gchar *end, GError **error)
{
  while (*p < end && **p != '"') {
    const gint length = **p == '\\' ? measure_escape(*p, end) : 1;
    if (length == 0) {
      return refuse(error, "a string with an escape that is not JSON");
    }
    *p += length;
  }
  *p += *p < end ? 1 : 0;
  return TRUE;
}

/* The parser would take a zero in front for octal, and has no error for a number that is too large. */
gboolean
skip_digits(const gchar **p, const gchar *end, GError **error)
{
  const gchar *first = *p;

  while (*p < end && g_ascii_isdigit(**p)) {
    (*p)++;
  }
  const auto length = *p - first;
  return (length <= MAX_DIGITS && (length == 1 || *first != '0')) ||
         refuse(error, "a number with too many digits");
}

/* Moves behind one string, one run of digits, or one other byte, with @depth as it is there. */
gboolean
skip_token(const gchar **p, const gchar *end, gint *depth, GError **error)
{
  const gchar c = **p;

  if (g_ascii_isdigit(c)) {
    return skip_digits(p, end, error);
  }
  (*p)++;
  if (c == '"') {
    return skip_string(p, end, error);
  }
  if (c == '\0' || strchr(OUTSIDE_STRINGS, c) == nullptr) {
    return refuse(error, "a byte between strings that is not JSON");
  }
  if (c == '[' || c == '{') {
    (*depth)++;
  } else if (c == ']' || c == '}') {
    (*depth)--;
  }
  return *depth <= APPLY_FILE_MAX_DEPTH ||
         refuse(error, "more than %d arrays and objects in each other", APPLY_FILE_MAX_DEPTH);
}

/* Whether the parser can be let loose on the text, which has to be one array. Anything that passes and is not
 * JSON the parser finds itself. */
gboolean
check_form(const gchar *text, gsize size, GError **error)
{
  const gchar *end = text + size;
  gboolean begun = FALSE;
  gint depth = 0;

  for (const gchar *p = text; p < end;) {
    if (depth == 0 && !g_ascii_isspace(*p)) {
      if (begun || *p != '[') {
        return refuse(error, "%s", begun ? "something behind the array" : NO_ARRAY);
      }
      begun = TRUE;
    }
    if (!skip_token(&p, end, &depth, error)) {
      return FALSE;
    }
  }
  return begun || refuse(error, "%s", NO_ARRAY);
}

gboolean
is_of_type(JsonNode *node, GType type)
{
  return type == G_TYPE_INVALID ? JSON_NODE_HOLDS_ARRAY(node)
                                : JSON_NODE_HOLDS_VALUE(node) && json_node_get_value_type(node) == type;
}

gsize
count_known(JsonObject *object, const Member *members, gsize count)
{
  gsize known = 0;

  for (gsize index = 0; index < count; index++) {
    known += json_object_has_member(object, members[index].name) ? 1 : 0;
  }
  return known;
}

/* Borrows from @node. */
JsonObject *
get_object(JsonNode *node, const gchar *what, const Member *members, gsize count, GError **error)
{
  if (!JSON_NODE_HOLDS_OBJECT(node)) {
    refuse(error, "a %s is not an object", what);
    return nullptr;
  }

  JsonObject *object = json_node_get_object(node);
  for (gsize index = 0; index < count; index++) {
    JsonNode *value = json_object_get_member(object, members[index].name);
    if (value == nullptr ? members[index].required : !is_of_type(value, members[index].type)) {
      refuse(error, "the member \"%s\" of a %s is missing or of a wrong type", members[index].name, what);
      return nullptr;
    }
  }
  if (count_known(object, members, count) != json_object_get_size(object)) {
    refuse(error, "a %s has a member that means nothing", what);
    return nullptr;
  }
  return object;
}

gboolean
add_channel(GVariantBuilder *builder, JsonNode *node, GError **error)
{
  JsonObject *channel = get_object(node, "channel", CHANNEL_MEMBERS.data(), CHANNEL_MEMBERS.size(), error);
  if (channel == nullptr) {
    return FALSE;
  }

  const gint64 number = json_object_get_int_member(channel, "Channel");
  const gboolean enabled = json_object_get_boolean_member(channel, "Enabled");
  if (number < G_MININT32 || number > G_MAXINT32) {
    return refuse(error, "a \"Channel\" is not a whole number of 32 bits");
  }
  if (enabled && !json_object_has_member(channel, "Configuration")) {
    return refuse(error, "an enabled channel has no \"Configuration\"");
  }
  g_variant_builder_add(builder, "(ibs)", static_cast<gint32>(number), enabled,
                        json_object_get_string_member_with_default(channel, "Configuration", ""));
  return TRUE;
}

gboolean
add_channels(GVariantBuilder *builder, JsonArray *channels, GError **error)
{
  for (guint index = 0; index < json_array_get_length(channels); index++) {
    if (!add_channel(builder, json_array_get_element(channels, index), error)) {
      return FALSE;
    }
  }
  return TRUE;
}

/* @names has the producers so far, borrowed from the document. */
gboolean
add_producer(GVariantBuilder *builder, JsonNode *node, GHashTable *names, gsize *change_count, GError **error)
{
  JsonObject *producer =
      get_object(node, "producer", PRODUCER_MEMBERS.data(), PRODUCER_MEMBERS.size(), error);
  if (producer == nullptr) {
    return FALSE;
  }

  const gchar *name = json_object_get_string_member(producer, "Name");
  JsonArray *channels = json_object_get_array_member(producer, "Channels");
  if (!g_hash_table_add(names, const_cast<gchar *>(name))) {
    return refuse(error, "the producer \"%s\" is there twice", name);
  }
  *change_count += json_array_get_length(channels);
  g_variant_builder_open(builder, G_VARIANT_TYPE("{sa(ibs)}"));
  g_variant_builder_add(builder, "s", name);
  g_variant_builder_open(builder, G_VARIANT_TYPE("a(ibs)"));
  if (!add_channels(builder, channels, error)) {
    return FALSE;
  }
  g_variant_builder_close(builder);
  g_variant_builder_close(builder);
  return TRUE;
}

/* @root is an array, as check_form() has seen. */
GVariant *
build_request(JsonNode *root, gsize *change_count, GError **error)
{
  g_auto(GVariantBuilder) builder = G_VARIANT_BUILDER_INIT(G_VARIANT_TYPE("a{sa(ibs)}"));
  g_autoptr(GHashTable) names = g_hash_table_new(g_str_hash, g_str_equal);
  JsonArray *producers = json_node_get_array(root);
  for (guint index = 0; index < json_array_get_length(producers); index++) {
    if (!add_producer(&builder, json_array_get_element(producers, index), names, change_count, error)) {
      return nullptr;
    }
  }
  return g_variant_ref_sink(g_variant_builder_end(&builder));
}

int
open_file(const gchar *path)
{
  return g_str_equal(path, STANDARD_INPUT) ? STDIN_FILENO : open(path, O_RDONLY | O_CLOEXEC);
}

/* Reads to the end, or one byte too much. */
GByteArray *
read_bounded(int fd, GError **error)
{
  g_autoptr(GInputStream) input = g_unix_input_stream_new(fd, fd != STDIN_FILENO);
  g_autoptr(GByteArray) bytes = g_byte_array_sized_new(APPLY_FILE_MAX_BYTES + 1);
  gsize size = 0;

  g_byte_array_set_size(bytes, APPLY_FILE_MAX_BYTES + 1);
  if (!g_input_stream_read_all(input, bytes->data, bytes->len, &size, nullptr, error)) {
    return nullptr;
  }
  g_byte_array_set_size(bytes, static_cast<guint>(size));
  return g_steal_pointer(&bytes);
}

} // namespace

/**
 * apply_file_parse:
 * @text: (transfer none) (array length=size): what is in the file, any bytes
 * @size: its length in bytes
 * @file_name: (transfer none): what to call the file in the error
 * @change_count: (out): how many channels are to be enabled or disabled
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Any thread.
 *
 * Returns: (transfer full) (nullable): the argument of SetProducersEnabled, "a{sa(ibs)}"; %NULL when the file
 * is wrong
 */
GVariant *
apply_file_parse(const gchar *text, gsize size, const gchar *file_name, gsize *change_count, GError **error)
{
  g_autoptr(JsonParser) parser = json_parser_new_immutable();
  g_autoptr(GError) cause = nullptr;
  GVariant *request = nullptr;

  *change_count = 0;
  if (check_form(text, size, &cause) &&
      json_parser_load_from_data(parser, text, static_cast<gssize>(size), &cause)) {
    request = build_request(json_parser_get_root(parser), change_count, &cause);
  }
  if (request == nullptr) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not take '%s': %s.", file_name,
                cause->message);
  }
  return request;
}

/**
 * apply_file_read:
 * @path: (transfer none): the file, "-" for standard input
 * @change_count: (out): how many channels are to be enabled or disabled
 * @error: return location for an error of %TESSARDCTL_ERROR
 *
 * Waits for standard input's end. Any thread.
 *
 * Returns: (transfer full) (nullable): the argument of SetProducersEnabled, "a{sa(ibs)}"; %NULL when there is
 * no right file
 */
GVariant *
apply_file_read(const gchar *path, gsize *change_count, GError **error)
{
  const gboolean is_standard_input = g_str_equal(path, STANDARD_INPUT);
  const gchar *file_name = is_standard_input ? "standard input" : path;
  const int fd = open_file(path);
  if (fd < 0) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not open '%s': %s.", path,
                g_strerror(errno));
    return nullptr;
  }

  g_autoptr(GError) cause = nullptr;
  g_autoptr(GByteArray) bytes = read_bounded(fd, &cause);
  if (bytes == nullptr) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not read '%s': %s.", file_name,
                cause->message);
    return nullptr;
  }
  if (bytes->len > APPLY_FILE_MAX_BYTES) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_LOCAL, "Could not take '%s': more than %d bytes.",
                file_name, APPLY_FILE_MAX_BYTES);
    return nullptr;
  }
  return apply_file_parse(reinterpret_cast<const gchar *>(bytes->data), bytes->len, file_name, change_count,
                          error);
}
