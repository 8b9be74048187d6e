/* SPDX-License-Identifier: MIT */
/* Parses the parameters that several kinds of metadata share. The functions keep no state. A bad value sets
 * the error and writes one line to the log.
 *
 * Texts: docs/compatibility.md, "blanks in texts".
 */
#include "optionvalidation.h"

#include "sourcefactory.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <string_view>

namespace
{

/* The text of each OptionValidationAnalytics, in its order. */
constexpr std::array<std::string_view, OPTION_VALIDATION_ANALYTICS_INVALID> ANALYTICS_VALUES = {"0", "1",
                                                                                                "2"};

gboolean
is_all_digits(std::string_view text)
{
  return text.find_first_not_of("0123456789") == std::string_view::npos;
}

/* Works like strtol() on a platform whose long has 32 bits. */
gint32
strtol_32(const gchar *text)
{
  const glong value = strtol(text, nullptr, 10);

  if (value > G_MAXINT32 || value < G_MININT32) {
    errno = ERANGE;
  }
  return static_cast<gint32>(std::clamp<glong>(value, G_MININT32, G_MAXINT32));
}

OptionValidationAnalytics
parse_analytics(const gchar *value, GQuark domain, GError **error)
{
  if (value == nullptr) {
    return OPTION_VALIDATION_ANALYTICS_OFF;
  }

  const auto *found = std::find(ANALYTICS_VALUES.begin(), ANALYTICS_VALUES.end(), value);
  if (found == ANALYTICS_VALUES.end()) {
    source_factory_refuse_value(error, domain, "Invalid value of 'analytics' parameter", value);
  }
  return static_cast<OptionValidationAnalytics>(found - ANALYTICS_VALUES.begin());
}

} // namespace

/**
 * option_validation_error_quark:
 *
 * The domain of the errors about channels and analytics. All have code 0.
 *
 * Returns: the quark of "option_validation_error"
 */
GQuark
option_validation_error_quark(void)
{
  return g_quark_from_static_string("option_validation_error");
}

/**
 * option_validation_parse_channel:
 * @value: (transfer none): the text of "video_channel"
 * @error: (out) (optional): where to put the failure, unset
 *
 * Parses a channel's number: decimal digits only. An empty text means channel 0. A bad text is also logged at
 * warning priority.
 *
 * Returns: the channel, or -1 with @error set in the domain of option_validation_error_quark()
 */
gint32
option_validation_parse_channel(const gchar *value, GError **error)
{
  if (!is_all_digits(value)) {
    source_factory_refuse_value(error, option_validation_error_quark(),
                                "Invalid value of 'channel'           parameter", value);
    return -1;
  }

  /* errno is not cleared before the conversion; docs/compatibility.md, "errno of a channel". */
  const gint32 channel = strtol_32(value);
  if ((channel == G_MAXINT32 || channel == G_MININT32) && errno == ERANGE) {
    source_factory_refuse_value(error, option_validation_error_quark(),
                                "Value out of bounds for 'channel'         parameter", value);
    return -1;
  }
  return channel;
}

/**
 * option_validation_lookup_named_channel:
 * @params: (transfer none) (element-type utf8 utf8): the request's parameters
 * @channel: (out): where to put the channel; -1 when the request has no "video_channel"
 * @error: (out) (optional): where to put the failure, unset
 *
 * Parses the request's "video_channel" as option_validation_parse_channel() does.
 *
 * Returns: whether it is absent or valid; %FALSE with @error set
 */
gboolean
option_validation_lookup_named_channel(GHashTable *params, gint32 *channel, GError **error)
{
  const gchar *text = source_factory_lookup_param(params, "video_channel");

  *channel = text != nullptr ? option_validation_parse_channel(text, error) : -1;
  return text == nullptr || *channel >= 0;
}

/**
 * option_validation_lookup_channel:
 * @params: (transfer none) (element-type utf8 utf8): the request's parameters
 * @error: (out) (optional): where to put the failure, unset
 *
 * Finds the channel of a request for analytics: its "video_channel", or %OPTION_VALIDATION_DEFAULT_CHANNEL.
 *
 * Returns: the channel; -1 with the error of option_validation_parse_channel(), which has logged it
 */
gint32
option_validation_lookup_channel(GHashTable *params, GError **error)
{
  gint32 channel = -1;

  if (!option_validation_lookup_named_channel(params, &channel, error)) {
    return -1;
  }
  return channel >= 0 ? channel : OPTION_VALIDATION_DEFAULT_CHANNEL;
}

/**
 * option_validation_parse_analytics:
 * @value: (transfer none) (nullable): the text of "analytics", %NULL if the request has none
 * @error: (out) (optional): where to put the failure, unset
 *
 * Parses the text; an absent one means %OPTION_VALIDATION_ANALYTICS_OFF. A bad text is also logged at warning
 * priority.
 *
 * Returns: an #OptionValidationAnalytics; %OPTION_VALIDATION_ANALYTICS_INVALID with @error set in the domain
 *   of option_validation_error_quark()
 */
gint32
option_validation_parse_analytics(const gchar *value, GError **error)
{
  return parse_analytics(value, option_validation_error_quark(), error);
}

/**
 * option_validation_lookup_analytics:
 * @params: (transfer none) (element-type utf8 utf8): the request's parameters
 * @domain: the domain of the error
 * @error: (out) (optional): where to put the failure, unset
 *
 * Parses the request's "analytics" as option_validation_parse_analytics() does, with an error in the caller's
 * domain.
 *
 * Returns: the value; %OPTION_VALIDATION_ANALYTICS_INVALID with @error set
 */
OptionValidationAnalytics
option_validation_lookup_analytics(GHashTable *params, GQuark domain, GError **error)
{
  return parse_analytics(source_factory_lookup_param(params, "analytics"), domain, error);
}
