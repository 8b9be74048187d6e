/* SPDX-License-Identifier: MIT */
/* A GDP packet has a header of 62 bytes, with the payload's type in two bytes at offset 4 and its length in
 * four at offset 6, big-endian. An MQTT packet has a byte with its type in the upper half, and the length of
 * the rest in groups of seven bits, the lowest first; the highest bit of each but the last is set. */
#include "packetcounter.h"

#include <algorithm>

namespace benchmarks
{

namespace
{

constexpr gsize GDP_TYPE = 4;
constexpr gsize GDP_LENGTH = 6;
constexpr guint GDP_BUFFER = 1;
constexpr guint MQTT_PUBLISH = 3;
constexpr gsize MQTT_MAX_HEADER = 5;

} // namespace

bool
PacketCounter::read_gdp_header()
{
  if (header_size_ < GDP_HEADER_BYTES) {
    return false;
  }
  has_data_ = (header_[GDP_TYPE] << 8 | header_[GDP_TYPE + 1]) == GDP_BUFFER;
  left_ = 0;
  for (gsize i = 0; i < 4; i++) {
    left_ = left_ << 8 | header_[GDP_LENGTH + i];
  }
  return true;
}

bool
PacketCounter::read_mqtt_header()
{
  if (header_size_ < 2 || ((header_[header_size_ - 1] & 0x80U) != 0 && header_size_ < MQTT_MAX_HEADER)) {
    return false;
  }
  has_data_ = header_[0] >> 4 == MQTT_PUBLISH;
  left_ = 0;
  for (gsize i = header_size_ - 1; i > 0; i--) {
    left_ = left_ << 7 | (header_[i] & 0x7fU);
  }
  return true;
}

bool
PacketCounter::read_header()
{
  return form_ == PacketForm::GDP ? read_gdp_header() : read_mqtt_header();
}

/**
 * PacketCounter::feed:
 * @data: the next bytes of the stream
 * @size: their number
 *
 * Counts each packet with data when its last byte has arrived.
 */
void
PacketCounter::feed(const guint8 *data, gsize size)
{
  while (size > 0 || (in_payload_ && left_ == 0)) {
    if (!in_payload_) {
      header_[header_size_++] = *data++;
      size--;
      in_payload_ = read_header();
      continue;
    }
    const gsize piece = std::min(left_, size);
    data += piece;
    size -= piece;
    left_ -= piece;
    if (left_ == 0) {
      count_ += has_data_ ? 1 : 0;
      in_payload_ = false;
      header_size_ = 0;
    }
  }
}

} // namespace benchmarks
