/* SPDX-License-Identifier: MIT */
// Arbitrary bytes from a producer, in the daemon's frame or as a whole frame: the frame is either left out
// with a reason, or written as XML with the producer's own name and within the limits.
#include "fuzz.h"
#include "jsonform.h"
#include "producerfragment.h"
#include "libxml.h"

#include <json-glib/json-glib.h>
#include <libxml/parser.h>
#include <string>

namespace
{

using plugins::ProducerFrame;
using plugins::ProducerItem;
using plugins::ProducerObject;

constexpr const char *SOURCE = "fuzz";
constexpr size_t MAX_PIECES = 5;
constexpr gint64 ARRIVAL = G_GINT64_CONSTANT(1704067200250000);
constexpr gint64 END_OF_2099 = G_GINT64_CONSTANT(4102444799) * G_USEC_PER_SEC;

void
require_in_picture(double x, double y)
{
  fuzz::require(x >= -1 && x <= 1 && y >= -1 && y <= 1, "positions are in the picture");
}

void
check_object(const ProducerObject &object)
{
  if (object.box.has_value()) {
    require_in_picture(object.box->left, object.box->top);
    require_in_picture(object.box->right, object.box->bottom);
    fuzz::require(object.box->left <= object.box->right && object.box->bottom <= object.box->top,
                  "the edges of boxes are in order");
  }
  if (object.centre.has_value())
    require_in_picture(object.centre->x, object.centre->y);
  fuzz::require(object.polygon.empty() ||
                    (object.polygon.size() >= 3 && object.polygon.size() <= plugins::PRODUCER_POINTS_MAX),
                "polygons are polygons");
  for (const onvif::Point &point : object.polygon)
    require_in_picture(point.x, point.y);
  if (object.type.has_value())
    fuzz::require(!object.type->empty() &&
                      g_utf8_strlen(object.type->c_str(), -1) <= plugins::PRODUCER_TYPE_MAX,
                  "types are bounded");
  if (object.likelihood.has_value())
    fuzz::require(*object.likelihood >= 0 && *object.likelihood <= 1, "likelihoods are likelihoods");
}

void
check_frame(const ProducerFrame &frame)
{
  fuzz::require(!frame.items.empty() && frame.items.size() <= plugins::PRODUCER_ITEMS_MAX,
                "the number of items is bounded");
  for (const ProducerItem &item : frame.items) {
    fuzz::require(item.objects.size() <= plugins::PRODUCER_OBJECTS_MAX, "the number of objects is bounded");
    fuzz::require(item.deleted.size() <= plugins::PRODUCER_OBJECTS_MAX, "the number of deletions is bounded");
    fuzz::require(!item.utc.has_value() || (*item.utc >= 0 && *item.utc <= END_OF_2099),
                  "the time is bounded");
    for (const ProducerObject &object : item.objects)
      check_object(object);
  }
}

size_t
count_children(xmlNode *node, const char *name)
{
  size_t count = 0;
  for (xmlNode *child = xmlFirstElementChild(node); child != nullptr; child = xmlNextElementSibling(child))
    count += xmlStrEqual(child->name, reinterpret_cast<const xmlChar *>(name)) ? 1 : 0;
  return count;
}

// The element is one frame; its name is not checked.
void
check_element(xmlNode *element, const ProducerItem &item)
{
  fuzz::require(count_children(element, "Object") == item.objects.size(), "every object is written once");
  fuzz::require(count_children(element, "ObjectTree") == (item.deleted.empty() ? 0 : 1),
                "every deleted object is written");
}

void
check_fragment(const ProducerFrame &frame, const plugins::ProducerView &view)
{
  g_autoptr(GstBuffer) buffer = plugins::producer_frame_to_fragment(frame, view, ARRIVAL);
  GstMapInfo map;
  fuzz::require(gst_buffer_map(buffer, &map, GST_MAP_READ), "a buffer can be read");
  std::string_view text = fuzz::as_text(map.data, map.size);
  g_autoptr(xmlDoc) document =
      xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, XML_PARSE_NONET);
  fuzz::require(document != nullptr, "a fragment is well-formed");
  fuzz::require(text.find('\n') == text.npos, "a fragment has no line breaks");

  xmlNode *root = xmlDocGetRootElement(document);
  if (view.sample) {
    check_element(root, frame.items.front());
  } else {
    fuzz::require(count_children(root, "Frame") == frame.items.size(), "every item is written once");
    xmlNode *element = xmlFirstElementChild(root);
    for (const ProducerItem &item : frame.items) {
      check_element(element, item);
      element = xmlNextElementSibling(element);
    }
  }
  gst_buffer_unmap(buffer, &map);
}

// json-glib accepts what the parser accepts.
void
check_form(std::string text)
{
  if (!plugins::json_form_check(&text).has_value())
    return;
  g_autoptr(JsonParser) parser = json_parser_new();
  fuzz::require(json_parser_load_from_data(parser, text.data(), static_cast<gssize>(text.size()), nullptr) !=
                    FALSE,
                "an accepted frame is JSON");
}

std::optional<ProducerFrame>
read_frame(std::string_view text)
{
  g_autoptr(GstBuffer) buffer = gst_buffer_new();
  for (std::string_view piece : fuzz::cut_into_pieces(text, MAX_PIECES))
    gst_buffer_append_memory(buffer, gst_memory_new_wrapped(GST_MEMORY_FLAG_READONLY,
                                                            const_cast<char *>(piece.data()), piece.size(), 0,
                                                            piece.size(), nullptr, nullptr));
  plugins::ProducerFlaws flaws;
  std::optional<ProducerFrame> frame = plugins::producer_frame_from_buffer(buffer, &flaws);
  fuzz::require(frame.has_value() == (flaws.fatal == nullptr), "either a frame or a reason");
  if (frame.has_value()) {
    check_frame(*frame);
    check_fragment(*frame, {.polygon = true, .sample = false});
    check_fragment(*frame, {.polygon = false, .sample = true});
  }
  return frame;
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  if (!gst_is_initialized())
    gst_init(nullptr, nullptr);

  std::string text(fuzz::as_text(data, size));
  check_form(text);
  read_frame(text);
  std::optional<ProducerFrame> framed =
      read_frame("{\"Source\":\"" + std::string(SOURCE) + "\",\"Data\":{\"Item\":[" + text + "]}}");
  if (framed.has_value())
    fuzz::require(framed->source == SOURCE, "a frame has its producer's name");
  return 0;
}
