/* SPDX-License-Identifier: MIT */
// Arbitrary bytes from a producer, in the daemon's frame or as a whole frame: the frame is either left out
// with a reason, or written as XML with the producer's own name and within the limits. A second
// implementation, with json-glib and libxml2, reads the same values and writes the same XML.
#include "fuzz.h"
#include "libxml.h"
#include "oraclefragment.h"
#include "oracleframe.h"

#include <cstring>
#include <libxml/c14n.h>
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
                      g_utf8_strlen(object.type->c_str(), -1) <= glong(plugins::PRODUCER_TYPE_MAX),
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

std::string
text_of(GstBuffer *buffer)
{
  std::string text(gst_buffer_get_size(buffer), '\0');
  gst_buffer_extract(buffer, 0, text.data(), text.size());
  return text;
}

xmlDoc *
parse(const std::string &text)
{
  return xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, XML_PARSE_NONET);
}

// The document in the one form that all documents with the same content have.
std::string
canonical(xmlDoc *document)
{
  xmlChar *text = nullptr;
  int size = xmlC14NDocDumpMemory(document, nullptr, XML_C14N_1_0, nullptr, 0, &text);
  fuzz::require(size >= 0, "a document has a canonical form");
  std::string copy(reinterpret_cast<const char *>(text), static_cast<size_t>(size));
  xmlFree(text);
  return copy;
}

void
check_fragment(const ProducerFrame &frame, const plugins::ProducerView &view)
{
  g_autoptr(GstBuffer) buffer = plugins::producer_frame_to_fragment(frame, view, ARRIVAL);
  std::string text = text_of(buffer);
  g_autoptr(xmlDoc) document = parse(text);
  fuzz::require(document != nullptr, "a fragment is well-formed");
  fuzz::require(text.find('\n') == text.npos, "a fragment has no line breaks");

  g_autoptr(GstBuffer) expected = oracle::frame_to_fragment(frame, view, ARRIVAL);
  g_autoptr(xmlDoc) expected_document = parse(text_of(expected));
  fuzz::require(canonical(document) == canonical(expected_document), "both write the same");

  xmlNode *root = xmlDocGetRootElement(document);
  if (view.sample) {
    check_element(root, frame.items.front());
    return;
  }
  fuzz::require(count_children(root, "Frame") == frame.items.size(), "every item is written once");
  xmlNode *element = xmlFirstElementChild(root);
  for (const ProducerItem &item : frame.items) {
    check_element(element, item);
    element = xmlNextElementSibling(element);
  }
}

// A text with a huge number is refused as a whole; the second implementation drops only the part with it.
void
check_against_oracle(std::string_view text, const std::optional<ProducerFrame> &frame,
                     const plugins::ProducerFlaws &flaws)
{
  oracle::Reading reading;
  std::optional<ProducerFrame> expected = oracle::read_frame_text(std::string(text), &reading);
  if (reading.has_huge_number) {
    fuzz::require(!frame.has_value(), "a text with a huge number is refused");
    return;
  }
  fuzz::require(frame == expected, "both read the same");
  fuzz::require(g_strcmp0(flaws.partial, reading.flaws.partial) == 0 || !frame.has_value(),
                "both tell the same flaw");
}

std::optional<ProducerFrame>
read_frame(std::string_view text)
{
  static plugins::ProducerReader reader;
  g_autoptr(GstBuffer) buffer = gst_buffer_new();
  for (std::string_view piece : fuzz::cut_into_pieces(text, MAX_PIECES))
    gst_buffer_append_memory(buffer, gst_memory_new_wrapped(GST_MEMORY_FLAG_READONLY,
                                                            const_cast<char *>(piece.data()), piece.size(), 0,
                                                            piece.size(), nullptr, nullptr));
  plugins::ProducerFlaws flaws;
  std::optional<ProducerFrame> frame = reader.read(buffer, &flaws);
  fuzz::require(frame.has_value() == (flaws.fatal == nullptr), "either a frame or a reason");
  check_against_oracle(text, frame, flaws);
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
  read_frame(text);
  std::optional<ProducerFrame> framed =
      read_frame("{\"Source\":\"" + std::string(SOURCE) + "\",\"Data\":{\"Item\":[" + text + "]}}");
  if (framed.has_value())
    fuzz::require(framed->source == SOURCE, "a frame has its producer's name");
  return 0;
}
