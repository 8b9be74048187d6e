/* SPDX-License-Identifier: MIT */
#pragma once

#include "frame.h"

#include <gst/gst.h>
#include <memory>
#include <string>

/* The frames of external producers; docs/producers.md documents the format. */

namespace plugins
{

struct ProducerObject {
  gint64 id;
  std::optional<onvif::Box> box;
  std::optional<onvif::Point> centre;
  std::vector<onvif::Point> polygon; /* empty, or at least three points */
  std::optional<std::string> type;
  std::optional<double> likelihood;

  bool operator==(const ProducerObject &) const = default;
};

struct ProducerItem {
  std::optional<gint64> utc; /* microseconds since 1970 */
  std::vector<ProducerObject> objects;
  std::vector<gint64> deleted; /* ids of objects that have left */

  bool operator==(const ProducerItem &) const = default;
};

struct ProducerFrame {
  std::string source;
  std::vector<ProducerItem> items;

  bool operator==(const ProducerFrame &) const = default;
};

/* The errors in a frame, as parts of a sentence; nullptr without an error. */
struct ProducerFlaws {
  const char *fatal = nullptr;   /* the reason to drop the frame */
  const char *partial = nullptr; /* the reason to drop the first dropped part */
};

/* The limits of a frame. Too many points or characters cause the object to be dropped, everything else the
 * frame. */
constexpr gsize PRODUCER_FRAME_BYTES_MAX = 1048576;
constexpr guint PRODUCER_ITEMS_MAX = 64;
constexpr guint PRODUCER_OBJECTS_MAX = 1024; /* of an item; also the maximum of its deleted objects */
constexpr guint PRODUCER_POINTS_MAX = 128;
constexpr gsize PRODUCER_TYPE_MAX = 64; /* characters */

/* A reader keeps its memory for the next frame, up to that of a frame of this length. It takes about 16 bytes
 * for each byte of a frame. */
constexpr gsize PRODUCER_FRAME_BYTES_KEPT = 16384;

/* The source of the frame at the start of a stream. */
constexpr const char *STREAM_START_SOURCE = "StreamStart";

/* Reads one frame after the other, on one thread at a time. */
class ProducerReader
{
public:
  ProducerReader();
  ~ProducerReader();
  ProducerReader(const ProducerReader &) = delete;
  ProducerReader &operator=(const ProducerReader &) = delete;

  std::optional<ProducerFrame> read(GstBuffer *buffer, ProducerFlaws *flaws);
  std::optional<ProducerFrame> read(std::string_view bytes, ProducerFlaws *flaws);

private:
  struct Memory;
  char *prepare(gsize size, ProducerFlaws *flaws);
  std::optional<ProducerFrame> parse(gsize size, ProducerFlaws *flaws);
  std::unique_ptr<Memory> memory_; /* nullptr until a frame is read */
};

} // namespace plugins
