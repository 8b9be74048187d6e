/* SPDX-License-Identifier: MIT */
#include "mqttconfig.h"

#include "boundedread.h"
#include "mqttlimits.h"
#include "mqtttopic.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <gio/gio.h>

namespace mqtt
{

namespace
{

constexpr guint16 PORT = 1883;
constexpr guint16 TLS_PORT = 8883;

/* What the keys say before they are checked together. */
struct Draft {
  Config *config;
  std::vector<std::string> profiles;
  std::vector<std::string> ptz_configurations;
};

/* One key of the file. */
struct Value {
  GKeyFile *file;
  const char *group;
  const char *key;

  bool text(std::string *text, GError **error) const;
  bool texts(std::vector<std::string> *texts, GError **error) const;
  bool flag(bool *flag, GError **error) const;
  bool number(int first, int last, int *number, GError **error) const;
  bool option(int last, gchar **option, GError **error) const;
};

G_GNUC_PRINTF(2, 3)
bool
refuse(GError **error, const char *format, ...)
{
  va_list arguments;
  va_start(arguments, format);
  g_autofree char *message = g_strdup_vprintf(format, arguments);
  va_end(arguments);
  g_set_error_literal(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_INVALID_VALUE, message);
  return false;
}

bool
Value::text(std::string *text, GError **error) const
{
  g_autofree char *value = g_key_file_get_string(file, group, key, error);
  if (value != nullptr) {
    *text = value;
  }
  return value != nullptr;
}

bool
Value::texts(std::vector<std::string> *texts, GError **error) const
{
  gsize length = 0;
  g_auto(GStrv) values = g_key_file_get_string_list(file, group, key, &length, error);
  if (values != nullptr) {
    texts->assign(values, values + length);
  }
  return values != nullptr;
}

bool
Value::flag(bool *flag, GError **error) const
{
  g_autoptr(GError) found = nullptr;
  *flag = g_key_file_get_boolean(file, group, key, &found) != FALSE;
  return found == nullptr || refuse(error, "The value is neither true nor false.");
}

bool
Value::number(int first, int last, int *number, GError **error) const
{
  g_autoptr(GError) found = nullptr;
  *number = g_key_file_get_integer(file, group, key, &found);
  bool is_valid = found == nullptr && *number >= first && *number <= last;
  return is_valid || refuse(error, "The value is not a number from %d to %d.", first, last);
}

bool
Value::option(int last, gchar **option, GError **error) const
{
  int value;
  if (!number(0, last, &value, error)) {
    return false;
  }
  g_free(*option);
  *option = g_strdup_printf("%d", value);
  return true;
}

bool
set_address(const std::string &address, BrokerConfig *broker, GError **error)
{
  bool is_printable = std::all_of(address.begin(), address.end(),
                                  [](char character) { return g_ascii_isgraph(character) != FALSE; });
  g_autoptr(GUri) uri = is_printable ? g_uri_parse(address.c_str(), G_URI_FLAGS_ENCODED, nullptr) : nullptr;
  bool is_plain = uri != nullptr && g_strcmp0(g_uri_get_scheme(uri), "mqtt") == 0;
  bool is_tls = uri != nullptr && g_strcmp0(g_uri_get_scheme(uri), "mqtts") == 0;
  const char *host = uri != nullptr ? g_uri_get_host(uri) : nullptr;
  bool is_valid = (is_plain || is_tls) && host != nullptr && *host != '\0' && g_uri_get_port(uri) != 0 &&
                  g_uri_get_userinfo(uri) == nullptr && *g_uri_get_path(uri) == '\0' &&
                  g_uri_get_query(uri) == nullptr && g_uri_get_fragment(uri) == nullptr;
  if (!is_valid) {
    return refuse(error, "The value is neither mqtt://HOST[:PORT] nor mqtts://HOST[:PORT].");
  }
  broker->address = address;
  broker->host = host;
  broker->is_tls = is_tls;
  broker->port = is_tls ? TLS_PORT : PORT;
  if (g_uri_get_port(uri) != -1) {
    broker->port = static_cast<guint16>(g_uri_get_port(uri));
  }
  return true;
}

bool
read_address(const Value &value, Draft *draft, GError **error)
{
  std::string address;
  return value.text(&address, error) && set_address(address, &draft->config->broker, error);
}

template <std::string BrokerConfig::*TEXT>
bool
read_broker_text(const Value &value, Draft *draft, GError **error)
{
  return value.text(&(draft->config->broker.*TEXT), error);
}

bool
read_keepalive(const Value &value, Draft *draft, GError **error)
{
  return value.number(5, 3600, &draft->config->broker.keepalive, error);
}

bool
read_qos(const Value &value, Draft *draft, GError **error)
{
  return value.number(0, 2, &draft->config->broker.qos, error);
}

bool
read_prefix(const Value &value, Draft *draft, GError **error)
{
  if (!value.text(&draft->config->prefix, error)) {
    return false;
  }
  const char *fault = prefix_fault(draft->config->prefix);
  return fault == nullptr || refuse(error, "The prefix %s.", fault);
}

/* Each text is one level of a topic. */
template <std::vector<std::string> Draft::*LEVELS>
bool
read_levels(const Value &value, Draft *draft, GError **error)
{
  std::vector<std::string> &levels = draft->*LEVELS;
  if (!value.texts(&levels, error)) {
    return false;
  }
  bool is_valid = std::all_of(levels.begin(), levels.end(), [](const std::string &level) {
    return !level.empty() && level.size() <= MQTT_PREFIX_BYTES_MAX && topic_level(level) == level;
  });
  return is_valid || refuse(error, "A name is empty, too long or has a character that is not allowed.");
}

template <bool Config::*FLAG>
bool
read_flag(const Value &value, Draft *draft, GError **error)
{
  return value.flag(&(draft->config->*FLAG), error);
}

template <gchar *RequestOptions::*FILTER>
bool
read_event_filter(const Value &value, Draft *draft, GError **error)
{
  std::string filter;
  if (!value.text(&filter, error)) {
    return false;
  }
  gchar **option = &(draft->config->events.*FILTER);
  g_free(*option);
  *option = filter.empty() ? nullptr : g_strdup(filter.c_str());
  return true;
}

template <gchar *RequestOptions::*OPTION, int LAST>
bool
read_option(const Value &value, Draft *draft, GError **error)
{
  return value.option(LAST, &(draft->config->metadata.*OPTION), error);
}

bool
read_channels(const Value &value, Draft *draft, GError **error)
{
  std::vector<std::string> numbers;
  if (!value.texts(&numbers, error)) {
    return false;
  }
  draft->config->channels.clear();
  for (const std::string &text : numbers) {
    guint64 number = 0;
    if (!g_ascii_string_to_unsigned(text.c_str(), 10, 1, G_MAXINT, &number, nullptr)) {
      return refuse(error, "The value is not a list of channels with ; between them.");
    }
    draft->config->channels.push_back({static_cast<guint>(number), {}, {}});
  }
  if (numbers.empty() || numbers.size() > MQTT_CHANNELS_MAX) {
    return refuse(error, "The number of channels is not from 1 to %d.", MQTT_CHANNELS_MAX);
  }
  return true;
}

bool
read_metadata_filter(const Value &value, Draft *draft, GError **error)
{
  std::vector<std::string> patterns;
  if (!value.texts(&patterns, error)) {
    return false;
  }
  MetadataFilter *filter = &draft->config->filter;
  return std::all_of(patterns.begin(), patterns.end(),
                     [filter, error](const std::string &pattern) { return filter->add(pattern, error); });
}

bool
read_max_frame_rate(const Value &value, Draft *draft, GError **error)
{
  g_autoptr(GError) found = nullptr;
  double rate = g_key_file_get_double(value.file, value.group, value.key, &found);
  if (found != nullptr || !(rate > 0 && rate <= MQTT_FRAME_RATE_MAX)) {
    return refuse(error, "The value is not a number above 0 and up to %d.", MQTT_FRAME_RATE_MAX);
  }
  draft->config->max_frame_rate = rate;
  return true;
}

struct Key {
  const char *group;
  const char *name;
  bool (*read)(const Value &value, Draft *draft, GError **error);
};

constexpr std::array KEYS = {
    Key{"Broker", "address", read_address},
    Key{"Broker", "client-id", read_broker_text<&BrokerConfig::client_id>},
    Key{"Broker", "user", read_broker_text<&BrokerConfig::user>},
    Key{"Broker", "password", read_broker_text<&BrokerConfig::password>},
    Key{"Broker", "password-file", read_broker_text<&BrokerConfig::password_file>},
    Key{"Broker", "ca-file", read_broker_text<&BrokerConfig::ca_file>},
    Key{"Broker", "certificate", read_broker_text<&BrokerConfig::certificate>},
    Key{"Broker", "key", read_broker_text<&BrokerConfig::key>},
    Key{"Broker", "keepalive", read_keepalive},
    Key{"Broker", "qos", read_qos},
    Key{"Topics", "prefix", read_prefix},
    Key{"Topics", "profiles", read_levels<&Draft::profiles>},
    Key{"Topics", "ptz-configurations", read_levels<&Draft::ptz_configurations>},
    Key{"Events", "publish", read_flag<&Config::publishes_events>},
    Key{"Events", "filter", read_event_filter<&RequestOptions::event_topic>},
    Key{"Events", "content-filter", read_event_filter<&RequestOptions::event_content>},
    Key{"Metadata", "publish", read_flag<&Config::publishes_metadata>},
    Key{"Metadata", "channels", read_channels},
    Key{"Metadata", "analytics", read_option<&RequestOptions::analytics, 2>},
    Key{"Metadata", "ptz", read_option<&RequestOptions::ptz, 3>},
    Key{"Metadata", "pantilt-space", read_option<&RequestOptions::pantilt_space, 2>},
    Key{"Metadata", "zoom-space", read_option<&RequestOptions::zoom_space, 2>},
    Key{"Metadata", "filter", read_metadata_filter},
    Key{"Metadata", "max-frame-rate", read_max_frame_rate},
};

bool
read_key(GKeyFile *file, const char *group, const char *name, Draft *draft, GError **error)
{
  const auto *key = std::find_if(KEYS.begin(), KEYS.end(), [group, name](const Key &known) {
    return strcmp(known.group, group) == 0 && strcmp(known.name, name) == 0;
  });
  if (key == KEYS.end()) {
    return refuse(error, "There is no key %s in the group %s.", name, group);
  }
  if (key->read({file, group, name}, draft, error)) {
    return true;
  }
  g_prefix_error(error, "%s in the group %s: ", name, group);
  return false;
}

bool
read_group(GKeyFile *file, const char *group, Draft *draft, GError **error)
{
  bool is_known = std::any_of(KEYS.begin(), KEYS.end(),
                              [group](const Key &known) { return strcmp(known.group, group) == 0; });
  if (!is_known) {
    return refuse(error, "There is no group %s.", group);
  }
  g_auto(GStrv) names = g_key_file_get_keys(file, group, nullptr, nullptr);
  return std::all_of(names, names + g_strv_length(names), [file, group, draft, error](const char *name) {
    return read_key(file, group, name, draft, error);
  });
}

/* Gives each channel its names, which default to its number. */
bool
name_channels(const Draft &draft, GError **error)
{
  std::vector<Channel> &channels = draft.config->channels;
  for (gsize i = 0; i < channels.size(); i++) {
    std::string number = std::to_string(channels[i].number);
    channels[i].profile = i < draft.profiles.size() ? draft.profiles[i] : number;
    channels[i].ptz_configuration =
        i < draft.ptz_configurations.size() ? draft.ptz_configurations[i] : number;
  }
  bool is_valid = (draft.profiles.empty() || draft.profiles.size() == channels.size()) &&
                  (draft.ptz_configurations.empty() || draft.ptz_configurations.size() == channels.size());
  return is_valid || refuse(error, "The group Topics does not have one name for each channel.");
}

bool
check_channels_differ(const std::vector<Channel> &channels, GError **error)
{
  for (auto channel = channels.begin(); channel != channels.end(); channel++) {
    bool is_repeated = std::any_of(channels.begin(), channel, [channel](const Channel &earlier) {
      return earlier.number == channel->number || earlier.profile == channel->profile;
    });
    if (is_repeated) {
      return refuse(error, "A channel or a profile is given twice.");
    }
  }
  return true;
}

bool
check_broker(const BrokerConfig &broker, GError **error)
{
  bool has_password = !broker.password.empty() || !broker.password_file.empty();
  if (has_password && broker.user.empty()) {
    return refuse(error, "password in the group Broker: It needs a user.");
  }
  if (!broker.password.empty() && !broker.password_file.empty()) {
    return refuse(error, "password and password-file in the group Broker exclude each other.");
  }
  if (broker.certificate.empty() != broker.key.empty()) {
    return refuse(error, "certificate and key in the group Broker need each other.");
  }
  if (!broker.is_tls && !(broker.ca_file.empty() && broker.certificate.empty())) {
    return refuse(error, "ca-file and certificate in the group Broker need an address with mqtts://.");
  }
  return true;
}

bool
check_publishes(Config *config, GError **error)
{
  const RequestOptions &metadata = config->metadata;
  config->publishes_metadata =
      config->publishes_metadata && (strcmp(metadata.analytics, "0") != 0 || strcmp(metadata.ptz, "0") != 0);
  return config->publishes_events || config->publishes_metadata ||
         refuse(error, "There is nothing to publish.");
}

void
set_defaults(Config *config)
{
  config->events.event = TRUE;
  config->metadata.analytics = g_strdup("2");
  config->metadata.ptz = g_strdup("1");
  config->channels = {{}};
  config->prefix = "tessard-" + topic_level(g_get_host_name());
}

/* Returns: (transfer full): the file's bytes; NULL if it cannot be read, or has more than @max_bytes */
GByteArray *
read_file(const char *path, guint max_bytes, GError **error)
{
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd == -1) {
    g_set_error_literal(error, G_IO_ERROR, g_io_error_from_errno(errno), g_strerror(errno));
    return nullptr;
  }
  g_autoptr(GByteArray) bytes = bounded_read(fd, max_bytes, error);
  if (bytes != nullptr && bytes->len > max_bytes) {
    refuse(error, "The file has more than %u bytes.", max_bytes);
    return nullptr;
  }
  return static_cast<GByteArray *>(g_steal_pointer(&bytes));
}

bool
read_password(BrokerConfig *broker, GError **error)
{
  if (broker->password_file.empty()) {
    return true;
  }
  g_autoptr(GByteArray) bytes = read_file(broker->password_file.c_str(), MQTT_PASSWORD_BYTES_MAX, error);
  if (bytes == nullptr) {
    g_prefix_error(error, "%s: ", broker->password_file.c_str());
    return false;
  }
  broker->password.assign(reinterpret_cast<const char *>(bytes->data), bytes->len);
  broker->password.resize(
      std::min(broker->password.find_first_of(std::string_view("\r\n\0", 3)), broker->password.size()));
  return true;
}

} // namespace

/**
 * parse_config:
 * @text: the text of a key file; can be empty
 * @config: as constructed; filled in
 * @error: return location for an error of %G_KEY_FILE_ERROR, whose message is for the user
 *
 * Returns: false if the text is malformed, or has an unknown key or a wrong value
 */
bool
parse_config(std::string_view text, Config *config, GError **error)
{
  g_autoptr(GKeyFile) file = g_key_file_new();
  Draft draft = {config, {}, {}};
  set_defaults(config);
  if (!text.empty() &&
      !g_key_file_load_from_data(file, text.data(), text.size(), G_KEY_FILE_KEEP_TRANSLATIONS, error)) {
    return false;
  }
  g_auto(GStrv) groups = g_key_file_get_groups(file, nullptr);
  bool is_valid =
      std::all_of(groups, groups + g_strv_length(groups), [&file, &draft, error](const char *group) {
        return read_group(file, group, &draft, error);
      });
  if (!is_valid || !name_channels(draft, error) || !check_channels_differ(config->channels, error) ||
      !check_broker(config->broker, error) || !check_publishes(config, error)) {
    return false;
  }
  if (config->broker.client_id.empty()) {
    config->broker.client_id = config->prefix;
  }
  return true;
}

/**
 * load_config:
 * @path: (nullable): the key file; %NULL for the defaults
 * @config: as constructed; filled in
 * @error: return location for an error of %G_KEY_FILE_ERROR or %G_IO_ERROR, whose message is for the user
 *
 * Reads the key file, and that of the password.
 *
 * Returns: false if a file cannot be read, or the key file is wrong
 */
bool
load_config(const char *path, Config *config, GError **error)
{
  if (path == nullptr) {
    return parse_config({}, config, error);
  }
  g_autoptr(GByteArray) bytes = read_file(path, MQTT_CONFIG_BYTES_MAX, error);
  std::string_view text;
  if (bytes != nullptr) {
    text = {reinterpret_cast<const char *>(bytes->data), bytes->len};
  }
  if (bytes == nullptr || !parse_config(text, config, error)) {
    g_prefix_error(error, "%s: ", path);
    return false;
  }
  return read_password(&config->broker, error);
}

} // namespace mqtt
