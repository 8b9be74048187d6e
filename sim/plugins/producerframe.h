#pragma once

#include "frame.h"

#include <gst/gst.h>
#include <string>

/* What external producers of metadata say; docs/producers.md has the format in words. */

namespace sim
{

struct ProducerObject {
  gint64 id;
  std::optional<onvif::Box> box;
  std::optional<onvif::Point> centre;
  std::vector<onvif::Point> polygon; /* no points, or three and more */
  std::optional<std::string> type;
  std::optional<double> likelihood;
};

struct ProducerItem {
  std::optional<gint64> utc; /* microseconds since 1970 */
  std::vector<ProducerObject> objects;
  std::vector<gint64> deleted; /* who has left */
};

struct ProducerFrame {
  std::string source;
  std::vector<ProducerItem> items;
};

/* What is wrong with a frame, each as the part of a sentence; unset if nothing is. */
struct ProducerFlaws {
  const char *fatal = nullptr;   /* why there is no frame at all */
  const char *partial = nullptr; /* why something in it was left out, the first if there are several */
};

/* What a producer may send. Too many points or characters cost the object that has them, all else costs the
 * frame. */
constexpr gsize PRODUCER_FRAME_BYTES_MAX = 1048576;
constexpr guint PRODUCER_ITEMS_MAX = 64;
constexpr guint PRODUCER_OBJECTS_MAX = 1024; /* of an item; as many may have left */
constexpr guint PRODUCER_POINTS_MAX = 128;
constexpr glong PRODUCER_TYPE_MAX = 64; /* characters */

/* Who speaks when a stream starts, before any producer does. */
constexpr const char *STREAM_START_SOURCE = "StreamStart";

std::optional<ProducerFrame> producer_frame_from_buffer(GstBuffer *buffer, ProducerFlaws *flaws);

} /* namespace sim */
