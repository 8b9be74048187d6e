/* SPDX-License-Identifier: MIT */
// Arbitrary messages of the metadata receiver, one in each line, to the table of states of onvifeventsrc.
// Every event becomes XML that libxml2 reads, and who has followed all events knows exactly the present
// states.
#include "eventqueue.h"
#include "eventtable.h"
#include "fuzz.h"
#include "metadatalimits.h"

#include <libxml/parser.h>
#include <map>
#include <string>

namespace
{

using plugins::EventTable;
using plugins::ReceiverMessage;
using plugins::SharedEvent;

void
check_xml(const plugins::ReceiverEvent &event)
{
  std::vector<onvif::XmlNamespace> namespaces;
  for (const auto &[prefix, uri] : event.namespaces)
    namespaces.push_back({prefix.c_str(), uri.c_str()});
  g_autoptr(GstBuffer) buffer = onvif::event_messages_to_fragment({event.message}, namespaces);
  GstMapInfo map;
  fuzz::require(gst_buffer_map(buffer, &map, GST_MAP_READ), "a buffer");
  const int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_HUGE;
  xmlDoc *document = xmlReadMemory(reinterpret_cast<const char *>(map.data), static_cast<int>(map.size),
                                   nullptr, "UTF-8", options);
  fuzz::require(document != nullptr, "the event is XML");
  xmlFreeDoc(document);
  gst_buffer_unmap(buffer, &map);
}

void
check_event(const plugins::ReceiverEvent &event)
{
  const std::string &operation = event.message.operation;
  fuzz::require(event.property.empty() == operation.empty(), "an event without operation has no property");
  fuzz::require(operation.empty() || operation == "Initialized" || operation == "Changed" ||
                    operation == "Deleted",
                "the operation is known");
  fuzz::require(event.message.utc >= 0 && event.message.utc <= onvif::LATEST_UTC,
                "the time is within its limits");
  check_xml(event);
}

class View
{
public:
  void on_event(const SharedEvent &event)
  {
    check_event(*event);
    const std::string &operation = event->message.operation;
    if (operation == "Deleted")
      fuzz::require(states_.erase(event->property) == 1, "a deleted property was known");
    else if (operation == "Changed")
      fuzz::require(states_.contains(event->property), "a changed property was known");
    if (operation == "Initialized" || operation == "Changed")
      states_[event->property] = data(*event);
  }

  void check(const EventTable &table) const
  {
    std::map<std::string, std::string> states;
    for (const SharedEvent &state : table.states()) {
      fuzz::require(state->message.operation == "Initialized", "a state is Initialized");
      states[state->property] = data(*state);
    }
    fuzz::require(states == states_, "the events lead to the states");
  }

private:
  static std::string data(const plugins::ReceiverEvent &event)
  {
    std::string text = std::to_string(event.message.utc);
    for (const onvif::EventItem &item : event.message.data)
      text += '\0' + item.name + '\0' + item.value;
    return text;
  }

  std::map<std::string, std::string> states_;
};

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  gst_init(nullptr, nullptr);
  std::string text(fuzz::as_text(data, size));
  text.append(simdjson::SIMDJSON_PADDING, '\0');
  std::string_view rest = std::string_view(text).substr(0, size);
  simdjson::dom::parser parser;
  View view;
  EventTable table([&view](const SharedEvent &event) { view.on_event(event); });
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    const std::optional<ReceiverMessage> message = plugins::receiver_message_parse(&parser, line);
    if (message.has_value())
      table.apply(*message);
    view.check(table);
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
  }
  table.clear();
  view.check(table);
  fuzz::require(table.states().empty(), "no state is left");
  return 0;
}
