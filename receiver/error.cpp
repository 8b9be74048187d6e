/* SPDX-License-Identifier: MIT */
#include "error.h"

#include <array>
#include <cstdarg>

namespace receiver
{

namespace
{

#define ERROR_PREFIX "com.quon.MetadataReceiver1.Error."

constexpr GDBusErrorEntry
entry(Error code, const char *name)
{
  return {static_cast<gint>(code), name};
}

constexpr std::array ENTRIES = {
    entry(Error::INVALID_NAME, ERROR_PREFIX "InvalidName"),
    entry(Error::INVALID_NICE_NAME, ERROR_PREFIX "InvalidNiceName"),
    entry(Error::INVALID_CHANNELS, ERROR_PREFIX "InvalidChannels"),
    entry(Error::INVALID_SAMPLE_FRAME, ERROR_PREFIX "InvalidSampleFrame"),
    entry(Error::INVALID_OPTION, ERROR_PREFIX "InvalidOption"),
    entry(Error::NAME_TAKEN, ERROR_PREFIX "NameTaken"),
    entry(Error::UNKNOWN_PRODUCER, ERROR_PREFIX "UnknownProducer"),
    entry(Error::NOT_OWNER, ERROR_PREFIX "NotOwner"),
    entry(Error::UNSUPPORTED_CHANNEL, ERROR_PREFIX "UnsupportedChannel"),
    entry(Error::CHANNEL_OPEN, ERROR_PREFIX "ChannelOpen"),
    entry(Error::LIMIT_EXCEEDED, ERROR_PREFIX "LimitExceeded"),
    entry(Error::NO_DESCRIPTOR, ERROR_PREFIX "NoDescriptor"),
    entry(Error::INVALID_TOPIC, ERROR_PREFIX "InvalidTopic"),
    entry(Error::INVALID_ITEMS, ERROR_PREFIX "InvalidItems"),
    entry(Error::INVALID_OPERATION, ERROR_PREFIX "InvalidOperation"),
    entry(Error::INVALID_TIME, ERROR_PREFIX "InvalidTime"),
    entry(Error::UNKNOWN_TOPIC, ERROR_PREFIX "UnknownTopic"),
    entry(Error::UNKNOWN_PROPERTY, ERROR_PREFIX "UnknownProperty"),
    entry(Error::TOPIC_CONFLICT, ERROR_PREFIX "TopicConflict"),
    entry(Error::TOO_MANY_TOPICS, ERROR_PREFIX "TooManyTopics"),
    entry(Error::TOO_MANY_PROPERTIES, ERROR_PREFIX "TooManyProperties"),
    entry(Error::EVENT_TOO_LARGE, ERROR_PREFIX "EventTooLarge"),
    entry(Error::RATE_EXCEEDED, ERROR_PREFIX "RateExceeded"),
};

} // namespace

/**
 * error_quark:
 *
 * Returns: the domain of the receiver's errors, which GDBus sends under their names
 */
GQuark
error_quark()
{
  static gsize quark = 0;

  g_dbus_error_register_error_domain("metadata-receiver-error", &quark, ENTRIES.data(), ENTRIES.size());
  return static_cast<GQuark>(quark);
}

/**
 * refuse:
 * @error: (nullable): set to the error
 * @code: its code
 * @format: its message
 *
 * Returns: false
 */
bool
refuse(GError **error, Error code, const char *format, ...)
{
  va_list arguments;

  va_start(arguments, format);
  g_autofree gchar *message = g_strdup_vprintf(format, arguments);
  va_end(arguments);
  g_set_error_literal(error, error_quark(), static_cast<gint>(code), message);
  return false;
}

} // namespace receiver
