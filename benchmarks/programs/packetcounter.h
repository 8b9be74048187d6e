/* SPDX-License-Identifier: MIT */
#pragma once

#include <array>
#include <glib.h>

namespace benchmarks
{

/* The form of a stream: packets of the GStreamer data protocol, or of MQTT. */
enum class PacketForm { GDP, MQTT };

constexpr gsize GDP_HEADER_BYTES = 62;

/* Counts the packets with data in a stream that arrives in pieces of any length. Not thread-safe. */
class PacketCounter
{
public:
  explicit PacketCounter(PacketForm form) : form_(form)
  {
  }

  void feed(const guint8 *data, gsize size);

  [[nodiscard]] guint64 count() const
  {
    return count_;
  }

private:
  bool read_header();
  bool read_gdp_header();
  bool read_mqtt_header();

  PacketForm form_;
  std::array<guint8, GDP_HEADER_BYTES> header_ = {};
  gsize header_size_ = 0;
  gsize left_ = 0; /* of the current packet's payload */
  bool in_payload_ = false;
  bool has_data_ = false;
  guint64 count_ = 0;
};

} // namespace benchmarks
