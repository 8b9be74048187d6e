/* SPDX-License-Identifier: MIT */
/* What an element tells its application. */
#pragma once

#include <gst/gst.h>
#include <ostream>
#include <string>

struct Complaint {
  GstMessageType type;
  GQuark domain;
  int code;
  std::string text;

  bool operator==(const Complaint &) const = default;
};

inline std::ostream &
operator<<(std::ostream &stream, const Complaint &complaint)
{
  return stream << gst_message_type_get_name(complaint.type) << " " << g_quark_to_string(complaint.domain)
                << " " << complaint.code << ": " << complaint.text;
}

inline void
parse_complaint(GstMessage *message, GError **error)
{
  switch (GST_MESSAGE_TYPE(message)) {
  case GST_MESSAGE_ERROR:
    gst_message_parse_error(message, error, nullptr);
    break;
  case GST_MESSAGE_WARNING:
    gst_message_parse_warning(message, error, nullptr);
    break;
  default:
    gst_message_parse_info(message, error, nullptr);
  }
}

/* An error, a warning or an information. */
inline Complaint
read_complaint(GstMessage *message)
{
  g_autoptr(GError) error = nullptr;
  parse_complaint(message, &error);
  return {GST_MESSAGE_TYPE(message), error->domain, error->code, error->message};
}
