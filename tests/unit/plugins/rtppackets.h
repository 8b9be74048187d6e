/* SPDX-License-Identifier: MIT */
/* RTP packets in tests, field by field. */
#pragma once

#include <gst/gst.h>
#include <ostream>
#include <string>

struct Packet {
  guint8 payload_type;
  bool marker;
  guint16 number;
  guint32 time;
  guint32 source;
  std::string payload;

  bool operator==(const Packet &) const = default;
};

constexpr gsize RTP_HEADER_BYTES = 12;
constexpr guint8 RTP_VERSION = 0x80;
constexpr guint8 RTP_MARKER = 0x80;

inline std::ostream &
operator<<(std::ostream &stream, const Packet &packet)
{
  return stream << "type " << int(packet.payload_type) << (packet.marker ? ", marker" : "") << ", number "
                << packet.number << ", time " << packet.time << ", source " << packet.source << ": "
                << packet.payload;
}

/* A number in the order of the network. */
inline std::string
network_bytes(guint64 number, int count)
{
  std::string bytes;
  for (int shift = 8 * (count - 1); shift >= 0; shift -= 8)
    bytes += static_cast<char>(number >> shift);
  return bytes;
}

inline guint32
read_network_bytes(const std::string &bytes, gsize offset, gsize count)
{
  guint32 number = 0;
  for (gsize i = offset; i < offset + count; i++)
    number = number << 8 | static_cast<guint8>(bytes.at(i));
  return number;
}

inline std::string
packet_bytes(const Packet &packet)
{
  const auto type = static_cast<guint8>(packet.payload_type | (packet.marker ? RTP_MARKER : 0));
  return network_bytes(RTP_VERSION, 1) + network_bytes(type, 1) + network_bytes(packet.number, 2) +
         network_bytes(packet.time, 4) + network_bytes(packet.source, 4) + packet.payload;
}

/* A packet without padding, extension and further sources. */
inline Packet
read_packet(const std::string &bytes)
{
  const auto type = static_cast<guint8>(bytes.at(1));
  return {static_cast<guint8>(type & ~RTP_MARKER),
          (type & RTP_MARKER) != 0,
          static_cast<guint16>(read_network_bytes(bytes, 2, 2)),
          read_network_bytes(bytes, 4, 4),
          read_network_bytes(bytes, 8, 4),
          bytes.substr(RTP_HEADER_BYTES)};
}

inline GstBuffer *
new_buffer(const std::string &bytes)
{
  GstBuffer *buffer = gst_buffer_new_allocate(nullptr, bytes.size(), nullptr);
  gst_buffer_fill(buffer, 0, bytes.data(), bytes.size());
  return buffer;
}

inline std::string
bytes_of(GstBuffer *buffer)
{
  std::string bytes(gst_buffer_get_size(buffer), '\0');
  gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
  return bytes;
}
