/* SPDX-License-Identifier: MIT */
/* Reads a stream of the GStreamer data protocol, version 1.0, that arrives in pieces of any length.
 *
 * A packet is a header of 62 bytes and a payload. All numbers are big-endian:
 *
 *   offset 0   version, major and minor, one byte each
 *   offset 2   flags, one byte: FLAG_HEADER_CHECKSUM, FLAG_PAYLOAD_CHECKSUM
 *   offset 4   type of the payload, two bytes
 *   offset 6   length of the payload, four bytes
 *   offset 58  checksum of the header up to here, two bytes
 *   offset 60  checksum of the payload, two bytes
 *
 * The other fields of the header describe a buffer in the daemon's pipeline, whose clock the client does not
 * know. Of the events only the end of the stream has a meaning for a client.
 *
 * Memory: a payload grows as it arrives; its header's length reserves nothing.
 */
#include "gdpreader.h"

#include "clienterror.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace
{

constexpr gsize HEADER_BYTES = 62;
constexpr gsize OFFSET_FLAGS = 2;
constexpr gsize OFFSET_TYPE = 4;
constexpr gsize OFFSET_LENGTH = 6;
constexpr gsize OFFSET_HEADER_CHECKSUM = 58;
constexpr gsize OFFSET_PAYLOAD_CHECKSUM = 60;

constexpr guint8 FLAG_HEADER_CHECKSUM = 1 << 0;
constexpr guint8 FLAG_PAYLOAD_CHECKSUM = 1 << 1;

constexpr guint8 MAJOR_VERSION = 1;
constexpr guint8 MINOR_VERSION = 0;

constexpr guint16 TYPE_BUFFER = 1;
constexpr guint16 TYPE_CAPS = 2;
constexpr guint16 TYPE_FIRST_EVENT = 64;
constexpr guint16 TYPE_END_OF_STREAM = TYPE_FIRST_EVENT + 0x6e0e;

constexpr guint16 CHECKSUM_POLYNOMIAL = 0x1021;
constexpr guint16 CHECKSUM_START = 0xffff;

/* The characters that end the media type in caps: fields, features, another structure. */
constexpr gchar MEDIA_TYPE_ENDS[] = ",;( ";

/* Lists, arrays and structures in caps can nest. No field of metadata has one. */
constexpr gchar NESTING_CHARACTERS[] = "{<[";

constexpr std::array<guint16, 256>
make_checksum_table()
{
  std::array<guint16, 256> table = {};

  for (guint byte = 0; byte < table.size(); byte++) {
    guint value = byte << 8;
    for (int bit = 0; bit < 8; bit++) {
      value = (value & 0x8000U) != 0 ? value << 1 ^ CHECKSUM_POLYNOMIAL : value << 1;
    }
    table[byte] = static_cast<guint16>(value);
  }
  return table;
}

constexpr std::array<guint16, 256> CHECKSUM_TABLE = make_checksum_table();

guint16
continue_checksum(guint16 checksum, const guint8 *data, gsize size)
{
  for (gsize i = 0; i < size; i++) {
    checksum = static_cast<guint16>(checksum << 8 ^ CHECKSUM_TABLE[(checksum >> 8 ^ data[i]) & 0xffU]);
  }
  return checksum;
}

guint16
end_checksum(guint16 checksum)
{
  return checksum ^ 0xffffU;
}

} // namespace

struct GdpReader {
  std::array<guint8, HEADER_BYTES> header = {};
  gsize header_filled = 0;

  /* Of the current packet, once its header is complete. */
  guint16 type = 0;
  guint32 payload_left = 0;
  guint16 checksum = CHECKSUM_START;

  GByteArray *payload = g_byte_array_new();
  gchar *caps = nullptr; /* NULL before they arrive */
  gsize bytes_since_document = 0;
};

namespace
{

guint
read_number(const GdpReader *self, gsize offset, gsize size)
{
  guint number = 0;

  for (gsize i = 0; i < size; i++) {
    number = number << 8 | self->header[offset + i];
  }
  return number;
}

gboolean
has_flag(const GdpReader *self, guint8 flag)
{
  return (self->header[OFFSET_FLAGS] & flag) != 0;
}

/* Events can carry anything; their payload is not kept. */
gboolean
keeps_payload(const GdpReader *self)
{
  return self->type == TYPE_BUFFER || self->type == TYPE_CAPS;
}

gboolean
set_malformed(GError **error, const gchar *cause)
{
  g_set_error(error, METADATA_CLIENT_ERROR, METADATA_CLIENT_ERROR_MALFORMED,
              "The daemon's stream is malformed: %s", cause);
  return FALSE;
}

gboolean
check_header_checksum(const GdpReader *self)
{
  const guint16 checksum =
      end_checksum(continue_checksum(CHECKSUM_START, self->header.data(), OFFSET_HEADER_CHECKSUM));

  return !has_flag(self, FLAG_HEADER_CHECKSUM) || checksum == read_number(self, OFFSET_HEADER_CHECKSUM, 2);
}

gboolean
check_type(const GdpReader *self, GError **error)
{
  if (self->type == TYPE_CAPS) {
    return self->payload_left <= GDP_READER_MAX_CAPS_BYTES ||
           set_malformed(error, "the caps are longer than " G_STRINGIFY(GDP_READER_MAX_CAPS_BYTES) " bytes.");
  }
  if (self->type == TYPE_BUFFER) {
    return self->caps != nullptr || set_malformed(error, "a document precedes the caps.");
  }
  return self->type >= TYPE_FIRST_EVENT || set_malformed(error, "a packet has an unknown type.");
}

gboolean
begin_payload(GdpReader *self, GError **error)
{
  if (self->header[0] != MAJOR_VERSION || self->header[1] != MINOR_VERSION) {
    return set_malformed(error, "a packet has an unknown version.");
  }
  if (!check_header_checksum(self)) {
    return set_malformed(error, "the checksum of a packet's header is wrong.");
  }
  self->type = static_cast<guint16>(read_number(self, OFFSET_TYPE, 2));
  self->payload_left = read_number(self, OFFSET_LENGTH, 4);
  self->checksum = CHECKSUM_START;
  return check_type(self, error);
}

/* Returns: the number of bytes that are part of the header */
gsize
take_header(GdpReader *self, const guint8 *data, gsize size)
{
  const gsize count = std::min(size, HEADER_BYTES - self->header_filled);

  memcpy(self->header.data() + self->header_filled, data, count);
  self->header_filled += count;
  return count;
}

/* Returns: the number of bytes that are part of the payload */
gsize
take_payload(GdpReader *self, const guint8 *data, gsize size)
{
  const auto count = static_cast<guint>(std::min<gsize>(size, self->payload_left));

  if (has_flag(self, FLAG_PAYLOAD_CHECKSUM)) {
    self->checksum = continue_checksum(self->checksum, data, count);
  }
  if (keeps_payload(self)) {
    g_byte_array_append(self->payload, data, count);
  }
  self->payload_left -= count;
  return count;
}

/* Takes the payload, which the next one replaces. */
GBytes *
steal_payload(GdpReader *self)
{
  GBytes *bytes = g_byte_array_free_to_bytes(self->payload);

  self->payload = g_byte_array_new();
  return bytes;
}

gboolean
is_metadata(const gchar *caps)
{
  const gsize type_length = strlen(GDP_READER_MEDIA_TYPE);

  return g_str_has_prefix(caps, GDP_READER_MEDIA_TYPE) && strpbrk(caps, NESTING_CHARACTERS) == nullptr &&
         (caps[type_length] == '\0' || strchr(MEDIA_TYPE_ENDS, caps[type_length]) != nullptr);
}

gboolean
take_caps(GdpReader *self, GError **error)
{
  g_autoptr(GBytes) bytes = steal_payload(self);
  gsize size = 0;
  const auto *text = static_cast<const gchar *>(g_bytes_get_data(bytes, &size));
  g_autofree gchar *caps = g_strndup(text, size); /* NULL without a byte */

  if (caps == nullptr || !g_utf8_validate(caps, -1, nullptr) || !is_metadata(caps)) {
    return set_malformed(error, "the caps are not those of metadata.");
  }
  g_free(self->caps);
  self->caps = g_steal_pointer(&caps);
  return TRUE;
}

gboolean
end_packet(GdpReader *self, GBytes **document, GError **error)
{
  self->header_filled = 0;
  if (has_flag(self, FLAG_PAYLOAD_CHECKSUM) &&
      end_checksum(self->checksum) != read_number(self, OFFSET_PAYLOAD_CHECKSUM, 2)) {
    return set_malformed(error, "the checksum of a packet's payload is wrong.");
  }
  if (self->type == TYPE_CAPS) {
    return take_caps(self, error);
  }
  if (self->type == TYPE_END_OF_STREAM) {
    g_set_error_literal(error, METADATA_CLIENT_ERROR, METADATA_CLIENT_ERROR_ENDED,
                        "The daemon ended the stream.");
    return FALSE;
  }
  if (self->type == TYPE_BUFFER && self->payload->len > 0) {
    *document = steal_payload(self);
    self->bytes_since_document = 0;
  }
  return TRUE;
}

gboolean
count_bytes(GdpReader *self, gsize count, GError **error)
{
  self->bytes_since_document += count;
  if (self->bytes_since_document <= GDP_READER_MAX_DOCUMENT_BYTES) {
    return TRUE;
  }
  g_set_error(error, METADATA_CLIENT_ERROR, METADATA_CLIENT_ERROR_MALFORMED,
              "The daemon sent more than %d bytes without completing a document.",
              GDP_READER_MAX_DOCUMENT_BYTES);
  return FALSE;
}

/* Takes bytes up to the end of the header, or up to the end of the payload. */
gboolean
take_part(GdpReader *self, const guint8 *data, gsize size, gsize *count, GBytes **document, GError **error)
{
  if (self->header_filled < HEADER_BYTES) {
    *count = take_header(self, data, size);
    if (self->header_filled < HEADER_BYTES) {
      return count_bytes(self, *count, error);
    }
    if (!begin_payload(self, error)) {
      return FALSE;
    }
  } else {
    *count = take_payload(self, data, size);
  }
  return count_bytes(self, *count, error) && (self->payload_left > 0 || end_packet(self, document, error));
}

} // namespace

/**
 * gdp_reader_new:
 *
 * Returns: (transfer full): a reader at the begin of a stream
 */
GdpReader *
gdp_reader_new(void)
{
  return new GdpReader();
}

/**
 * gdp_reader_free:
 * @self: (transfer full): a reader
 */
void
gdp_reader_free(GdpReader *self)
{
  g_byte_array_unref(self->payload);
  g_free(self->caps);
  delete self;
}

/**
 * gdp_reader_take:
 * @self: (transfer none): a reader that has returned no error
 * @data: (transfer none) (array length=size): the next bytes of the stream
 * @size: their number
 * @taken: (out): the number of bytes that were read; the others belong to the next call
 * @document: (out) (transfer full) (nullable): a complete document, which is never empty; %NULL if all bytes
 * were read and complete none
 * @error: return location for an error of %METADATA_CLIENT_ERROR: %METADATA_CLIENT_ERROR_ENDED if the stream
 * ends here, %METADATA_CLIENT_ERROR_MALFORMED
 *
 * Reads bytes up to the end of the next document. Packets without a document, and empty buffers, are skipped.
 *
 * Returns: %FALSE with @error set; there is no document then
 */
gboolean
gdp_reader_take(GdpReader *self, const guint8 *data, gsize size, gsize *taken, GBytes **document,
                GError **error)
{
  *taken = 0;
  *document = nullptr;
  while (*taken < size && *document == nullptr) {
    gsize count = 0;
    if (!take_part(self, data + *taken, size - *taken, &count, document, error)) {
      return FALSE;
    }
    *taken += count;
  }
  return TRUE;
}

/**
 * gdp_reader_get_caps:
 * @self: (transfer none): a reader
 *
 * Returns: (transfer none) (nullable): the text of the stream's caps at its current position, in UTF-8 and
 * with the media type %GDP_READER_MEDIA_TYPE; %NULL before they arrive. Valid until the next call of
 * gdp_reader_take().
 */
const gchar *
gdp_reader_get_caps(const GdpReader *self)
{
  return self->caps;
}
