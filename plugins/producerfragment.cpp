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
  std::optional<std::string_view> source; /* unset for the start of a stream */
  gint64 arrival;
};

onvif::Point
centre_of(const ProducerObject &object)
{
  const onvif::Box &box = *object.box;
  return object.centre.value_or(onvif::Point{(box.left + box.right) / 2, (box.bottom + box.top) / 2});
}

/* ONVIF requires a box in a shape. */
void
write_appearance(onvif::XmlWriter *writer, const ProducerObject &object, const ProducerView &view)
{
  if (!object.box.has_value() && !object.type.has_value()) {
    return;
  }
  writer->start(onvif::TT, "Appearance");
  if (object.box.has_value()) {
    onvif::frame_write_shape(writer, *object.box, centre_of(object),
                             view.polygon ? object.polygon : std::span<const onvif::Point>());
  }
  if (object.type.has_value()) {
    onvif::frame_write_class(writer, *object.type, object.likelihood);
  }
  writer->end();
}

void
write_object(onvif::XmlWriter *writer, const ProducerObject &object, const ProducerView &view)
{
  writer->start(onvif::TT, "Object");
  writer->attribute_integer("ObjectId", object.id);
  write_appearance(writer, object, view);
  writer->end();
}

/* Writes the attributes and content of the open tt:Frame or tt:SampleFrame. */
void
write_item(onvif::XmlWriter *writer, const ProducerItem &item, const FrameContext &context)
{
  writer->attribute("UtcTime", onvif::xml_date_time(item.utc.value_or(context.arrival)));
  if (context.source.has_value()) {
    writer->attribute("Source", *context.source);
  }
  for (const ProducerObject &object : item.objects) {
    write_object(writer, object, context.view);
  }
  onvif::frame_write_deleted(writer, item.deleted);
}

void
write_sample(onvif::XmlWriter *writer, const ProducerFrame &frame, const FrameContext &context)
{
  writer->start(onvif::TT, "SampleFrame");
  writer->declare(onvif::TT);
  write_item(writer, frame.items.front(), context);
  writer->end();
}

void
write_frames(onvif::XmlWriter *writer, const ProducerFrame &frame, const FrameContext &context)
{
  writer->start(onvif::TT, "VideoAnalytics");
  writer->declare(onvif::TT);
  for (const ProducerItem &item : frame.items) {
    writer->start(onvif::TT, "Frame");
    write_item(writer, item, context);
    writer->end();
  }
  writer->end();
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
  FrameContext context = {.view = view, .source = std::nullopt, .arrival = arrival};
  if (frame.source != STREAM_START_SOURCE) {
    context.source = onvif::xml_beginning(frame.source, onvif::SOURCE_NAME_MAX);
  }
  onvif::XmlWriter writer;
  if (view.sample) {
    write_sample(&writer, frame, context);
  } else {
    write_frames(&writer, frame, context);
  }
  return onvif::fragment_to_buffer(&writer);
}

} // namespace plugins
