/* SPDX-License-Identifier: MIT */
#include "switchrequest.h"

#include "command.h"
#include "configurationname.h"
#include "jsonreader.h"

#include <set>

namespace view
{

namespace
{

/* @place: that of the name */
bool
read_member(JsonReader *reader, const gchar *place, const std::string &name, SwitchRequest *request,
            GError **error)
{
  gboolean enabled = FALSE;
  if (name == "producer") {
    return reader->read_string(&request->producer, error) != FALSE;
  }
  if (name == "channel") {
    return reader->read_int32(&request->channel, error) != FALSE;
  }
  if (name == "configuration") {
    return reader->read_string(&request->configuration, error) != FALSE;
  }
  if (name == "enabled") {
    const bool is_read = reader->read_boolean(&enabled, error) != FALSE;
    request->enabled = enabled != FALSE;
    return is_read;
  }
  reader->refuse(place, error, "there is no member '%s'", name.c_str());
  return false;
}

bool
read_members(JsonReader *reader, SwitchRequest *request, std::set<std::string> *names, GError **error)
{
  if (reader->take('}')) {
    return true;
  }
  do {
    std::string name;
    const gchar *place = reader->find_next();
    if (!reader->read_string(&name, error) || !reader->expect(':', error) ||
        !read_member(reader, place, name, request, error)) {
      return false;
    }
    if (!names->insert(name).second) {
      reader->refuse(place, error, "the member '%s' comes again", name.c_str());
      return false;
    }
  } while (reader->take(','));
  return reader->expect('}', error) != FALSE;
}

bool
refuse(GError **error, const char *text)
{
  g_set_error_literal(error, TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED, text);
  return false;
}

bool
check(const SwitchRequest &request, const std::set<std::string> &names, GError **error)
{
  for (const char *name : {"producer", "channel", "enabled"}) {
    if (!names.contains(name)) {
      g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED, "The request has no member '%s'.", name);
      return false;
    }
  }
  if (request.producer.empty()) {
    return refuse(error, "The name of the producer is empty.");
  }
  g_autofree gchar *fault = configuration_name_describe_fault(request.configuration.c_str());
  if (fault != nullptr) {
    g_set_error(error, TESSARDCTL_ERROR, EXIT_STATUS_MALFORMED, "The configuration %s.", fault);
    return false;
  }
  return true;
}

} // namespace

/**
 * parse_switch_request:
 * @body: a JSON text
 * @error: return location for an error of %TESSARDCTL_ERROR, whose message is for the user
 *
 * Returns: the request; nothing if the text is no such request
 */
std::optional<SwitchRequest>
parse_switch_request(std::string_view body, GError **error)
{
  JsonReader reader(body.data(), body.size());
  SwitchRequest request;
  std::set<std::string> names;
  if (!reader.check_encoding(error) || !reader.expect('{', error) ||
      !read_members(&reader, &request, &names, error) || !reader.expect_end(error) ||
      !check(request, names, error)) {
    return std::nullopt;
  }
  return request;
}

} // namespace view
