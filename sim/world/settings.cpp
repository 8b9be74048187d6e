/* SPDX-License-Identifier: MIT */
#include "settings.h"

#include "metadatalimits.h"

#include <algorithm>

/* Each user reads the settings once and passes them on by value. A file with any error is ignored completely:
 * applying a part of it would select a simulation that is not configured anywhere. */

namespace sim
{

namespace
{

constexpr const char *WORLD_GROUP = "World";
constexpr const char *PTZ_GROUP = "PTZ";

/* A missing key keeps the default; any other error makes the file invalid. */
bool
accept_missing(GError *found, GError **error)
{
  if (found == nullptr) {
    return true;
  }
  g_autoptr(GError) owned = found;
  if (g_error_matches(owned, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_KEY_NOT_FOUND) ||
      g_error_matches(owned, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_GROUP_NOT_FOUND)) {
    return true;
  }
  g_propagate_error(error, g_steal_pointer(&owned));
  return false;
}

bool
read_seed(GKeyFile *file, guint64 *seed, GError **error)
{
  GError *found = nullptr;
  guint64 value = g_key_file_get_uint64(file, WORLD_GROUP, "seed", &found);
  if (found != nullptr) {
    return accept_missing(found, error);
  }
  *seed = value;
  return true;
}

bool
read_epoch(GKeyFile *file, gint64 *epoch, GError **error)
{
  GError *found = nullptr;
  g_autofree char *text = g_key_file_get_string(file, WORLD_GROUP, "epoch", &found);
  if (found != nullptr) {
    return accept_missing(found, error);
  }

  g_autoptr(GTimeZone) utc = g_time_zone_new_utc();
  g_autoptr(GDateTime) time = g_date_time_new_from_iso8601(text, utc);
  gint64 value = time != nullptr ? g_date_time_to_unix(time) : -1;
  if (value < 0 || value > onvif::LATEST_UTC / G_USEC_PER_SEC) {
    g_set_error(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_INVALID_VALUE,
                "the epoch must be an ISO 8601 time from 1970 to 2099");
    return false;
  }
  *epoch = value;
  return true;
}

bool
read_speed(GKeyFile *file, gint64 *speed, GError **error)
{
  GError *found = nullptr;
  gint64 value = g_key_file_get_int64(file, WORLD_GROUP, "speed", &found);
  if (found != nullptr) {
    return accept_missing(found, error);
  }

  if (value < 1 || value > FASTEST_SPEED) {
    g_set_error(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_INVALID_VALUE,
                "the speed must be from 1 to %" G_GINT64_FORMAT, FASTEST_SPEED);
    return false;
  }
  *speed = value;
  return true;
}

bool
read_ptz_channels(GKeyFile *file, std::vector<int> *channels, GError **error)
{
  GError *found = nullptr;
  gsize count = 0;
  g_autofree int *values = g_key_file_get_integer_list(file, PTZ_GROUP, "channels", &count, &found);
  if (found != nullptr) {
    return accept_missing(found, error);
  }

  if (std::any_of(values, values + count, [](int channel) { return channel < 0; })) {
    g_set_error(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_INVALID_VALUE, "no channel is below 0");
    return false;
  }
  channels->assign(values, values + count);
  return true;
}

bool
read_settings(const char *path, Settings *settings, GError **error)
{
  g_autoptr(GKeyFile) file = g_key_file_new();
  return g_key_file_load_from_file(file, path, G_KEY_FILE_NONE, error) &&
         read_seed(file, &settings->seed, error) && read_epoch(file, &settings->epoch, error) &&
         read_speed(file, &settings->speed, error) && read_ptz_channels(file, &settings->ptz_channels, error);
}

gint64
divide_rounding_up(gint64 value, gint64 divisor)
{
  gint64 quotient = value / divisor;
  return value % divisor > 0 ? quotient + 1 : quotient;
}

} // namespace

/**
 * settings_load:
 *
 * Reads the file that the environment variable %SETTINGS_VARIABLE names. Without the variable, the defaults
 * apply. If the file cannot be read or contains a wrong value, one warning is logged and the defaults apply.
 * Unknown groups and keys are ignored.
 *
 * Returns: the settings
 */
Settings
settings_load()
{
  const char *path = g_getenv(SETTINGS_VARIABLE);
  if (path == nullptr) {
    return {};
  }

  Settings settings;
  g_autoptr(GError) error = nullptr;
  if (!read_settings(path, &settings, &error)) {
    g_warning("Simulated camera: using default settings, cannot use '%s': %s", path, error->message);
    return {};
  }
  return settings;
}

/**
 * settings_has_ptz:
 * @settings: the settings
 * @channel: a video channel
 *
 * Returns: whether @channel has the PTZ head
 */
bool
settings_has_ptz(const Settings &settings, int channel)
{
  const std::vector<int> &channels = settings.ptz_channels;
  return std::find(channels.begin(), channels.end(), channel) != channels.end();
}

/**
 * settings_world_time:
 * @settings: the settings
 * @utc: wall clock time in microseconds since 1970, as g_get_real_time() gives it
 *
 * Returns: the time of the world's clock at @utc
 */
WorldTime
settings_world_time(const Settings &settings, gint64 utc)
{
  return (utc - settings.epoch * G_USEC_PER_SEC) * settings.speed;
}

/**
 * settings_utc:
 * @settings: the settings
 * @time: a time of the world
 *
 * Returns: the earliest wall clock time, in microseconds since 1970, at which the world's clock reaches @time
 */
gint64
settings_utc(const Settings &settings, WorldTime time)
{
  return divide_rounding_up(time, settings.speed) + settings.epoch * G_USEC_PER_SEC;
}

} // namespace sim
