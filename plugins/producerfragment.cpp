/* SPDX-License-Identifier: MIT */
#include "producerfragment.h"

#include "metadata.h"
#include "metadatalimits.h"

namespace plugins
{

namespace
{

/* Common to all items of a frame. */
struct FrameContext {
  const ProducerView &view;
  const char *source; /* nullptr for the start of a stream */
  gint64 arrival;
};

onvif::Point
centre_of(const ProducerObject &object)
{
  const onvif::Box &box = *object.box;
  return object.centre.value_or(onvif::Point{(box.left + box.right) / 2, (box.bottom + box.top) / 2});
}

void
write_type(xmlTextWriter *writer, const ProducerObject &object)
{
  g_autofree char *type = onvif::xml_clean_text(object.type->c_str());
  onvif::frame_write_class(writer, type, object.likelihood);
}

/* ONVIF requires a box in a shape. */
void
write_appearance(xmlTextWriter *writer, const ProducerObject &object, const ProducerView &view)
{
  if (!object.box.has_value() && !object.type.has_value()) {
    return;
  }
  onvif::xml_start(writer, onvif::TT, "Appearance");
  if (object.box.has_value()) {
    onvif::frame_write_shape(writer, *object.box, centre_of(object),
                             view.polygon ? object.polygon : std::vector<onvif::Point>());
  }
  if (object.type.has_value()) {
    write_type(writer, object);
  }
  onvif::xml_end(writer);
}

void
write_object(xmlTextWriter *writer, const ProducerObject &object, const ProducerView &view)
{
  onvif::xml_start(writer, onvif::TT, "Object");
  onvif::xml_attribute(writer, "ObjectId", std::to_string(object.id).c_str());
  write_appearance(writer, object, view);
  onvif::xml_end(writer);
}

/* Writes the attributes and content of the open tt:Frame or tt:SampleFrame. */
void
write_item(xmlTextWriter *writer, const ProducerItem &item, const FrameContext &context)
{
  g_autofree char *utc = onvif::xml_date_time(item.utc.value_or(context.arrival));
  onvif::xml_attribute(writer, "UtcTime", utc);
  if (context.source != nullptr) {
    onvif::xml_attribute(writer, "Source", context.source);
  }
  for (const ProducerObject &object : item.objects) {
    write_object(writer, object, context.view);
  }
  onvif::frame_write_deleted(writer, item.deleted);
}

void
write_sample(xmlTextWriter *writer, const ProducerFrame &frame, const FrameContext &context)
{
  onvif::xml_start(writer, onvif::TT, "SampleFrame");
  onvif::xml_declare(writer, onvif::TT);
  write_item(writer, frame.items.front(), context);
  onvif::xml_end(writer);
}

void
write_frames(xmlTextWriter *writer, const ProducerFrame &frame, const FrameContext &context)
{
  onvif::xml_start(writer, onvif::TT, "VideoAnalytics");
  onvif::xml_declare(writer, onvif::TT);
  for (const ProducerItem &item : frame.items) {
    onvif::xml_start(writer, onvif::TT, "Frame");
    write_item(writer, item, context);
    onvif::xml_end(writer);
  }
  onvif::xml_end(writer);
}

} // namespace

/**
 * producer_frame_to_fragment:
 * @frame: the frame, with at least one item
 * @view: the parts to show
 * @arrival: the time of arrival in microseconds since 1970, for items without a time
 *
 * Returns: (transfer full): one tt:VideoAnalytics element with one tt:Frame for each item, with the caps
 *   %FRAGMENT_CAPS; or one tt:SampleFrame, of the first item
 */
GstBuffer *
producer_frame_to_fragment(const ProducerFrame &frame, const ProducerView &view, gint64 arrival)
{
  bool is_start = frame.source == STREAM_START_SOURCE;
  g_autofree char *source = onvif::xml_clean_beginning(frame.source.c_str(), onvif::SOURCE_NAME_MAX);
  FrameContext context = {.view = view, .source = is_start ? nullptr : source, .arrival = arrival};
  g_autoptr(xmlBuffer) text = xmlBufferCreate();
  g_autoptr(xmlTextWriter) writer = xmlNewTextWriterMemory(text, 0);
  if (view.sample) {
    write_sample(writer, frame, context);
  } else {
    write_frames(writer, frame, context);
  }
  xmlTextWriterFlush(writer);
  return onvif::fragment_to_buffer(text);
}

} // namespace plugins
