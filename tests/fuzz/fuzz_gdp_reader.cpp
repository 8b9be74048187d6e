/* SPDX-License-Identifier: MIT */
// The reader of the daemon's stream gets it in pieces; a simple model reads the whole stream.
#include "clienterror.h"
#include "fuzz.h"
#include "gdpreader.h"

#include <string>

namespace
{

constexpr size_t HEADER_BYTES = 62;
constexpr size_t MAX_PIECES = 64;

struct Outcome {
  std::vector<std::string> documents;
  int code = -1; // of the error

  bool operator==(const Outcome &) const = default;
};

size_t
make_number(std::string_view bytes)
{
  size_t number = 0;
  for (const char byte : bytes)
    number = number << 8 | static_cast<uint8_t>(byte);
  return number;
}

size_t
checksum(std::string_view bytes)
{
  unsigned value = 0xffff;
  for (const char byte : bytes) {
    value ^= static_cast<unsigned>(static_cast<uint8_t>(byte)) << 8;
    for (int bit = 0; bit < 8; bit++)
      value = (value & 0x8000) != 0 ? (value << 1 ^ 0x1021) & 0xffff : value << 1;
  }
  return value ^ 0xffff;
}

bool
is_metadata(std::string_view caps)
{
  constexpr std::string_view TYPE = GDP_READER_MEDIA_TYPE;
  caps = caps.substr(0, caps.find('\0'));
  return caps.starts_with(TYPE) && caps.find_first_of("{<[") == caps.npos &&
         (caps == TYPE || std::string_view(",;( ").find(caps[TYPE.size()]) != caps.npos) &&
         g_utf8_validate(caps.data(), static_cast<gssize>(caps.size()), nullptr);
}

// The model

Outcome
read_whole(std::string_view stream)
{
  Outcome outcome;
  bool has_caps = false;
  while (stream.size() >= HEADER_BYTES) {
    const std::string_view header = stream.substr(0, HEADER_BYTES);
    const size_t type = make_number(header.substr(4, 2));
    const size_t length = make_number(header.substr(6, 4));
    outcome.code = METADATA_CLIENT_ERROR_MALFORMED;
    if (make_number(header.substr(0, 2)) != 0x0100 ||
        ((header[2] & 1) != 0 && checksum(header.substr(0, 58)) != make_number(header.substr(58, 2))) ||
        (type == 1 && !has_caps) || (type == 2 && length > GDP_READER_MAX_CAPS_BYTES) || type == 0 ||
        (type > 2 && type < 64))
      return outcome;
    stream.remove_prefix(HEADER_BYTES);
    if (stream.size() < length)
      break;
    const std::string_view payload = stream.substr(0, length);
    if ((header[2] & 2) != 0 && checksum(payload) != make_number(header.substr(60, 2)))
      return outcome;
    if (type == 2 && !is_metadata(payload))
      return outcome;
    has_caps = has_caps || type == 2;
    outcome.code = type == 64 + 0x6e0e ? METADATA_CLIENT_ERROR_ENDED : -1;
    if (outcome.code >= 0)
      return outcome;
    if (type == 1 && length > 0)
      outcome.documents.emplace_back(payload);
    stream.remove_prefix(length);
  }
  outcome.code = -1;
  return outcome;
}

// The component

void
read_piece(GdpReader *reader, std::string_view piece, Outcome *outcome)
{
  while (!piece.empty() && outcome->code < 0) {
    gsize taken = 0;
    g_autoptr(GBytes) document = nullptr;
    g_autoptr(GError) error = nullptr;
    const gboolean is_valid = gdp_reader_take(reader, reinterpret_cast<const guint8 *>(piece.data()),
                                              piece.size(), &taken, &document, &error);
    fuzz::require(taken <= piece.size(), "no more is taken than there is");
    fuzz::require(!is_valid || document != nullptr || taken == piece.size(),
                  "all is taken without a document");
    fuzz::require(is_valid != (error != nullptr), "an error is set if the stream is over");
    fuzz::require(is_valid || document == nullptr, "there is no document with an error");
    outcome->code = is_valid ? -1 : error->code;
    if (document != nullptr) {
      gsize size = 0;
      const auto *data = static_cast<const char *>(g_bytes_get_data(document, &size));
      outcome->documents.emplace_back(data, size);
    }
    piece.remove_prefix(taken);
  }
}

Outcome
read_in_pieces(std::string_view stream)
{
  g_autoptr(GdpReader) reader = gdp_reader_new();
  Outcome outcome;
  for (const std::string_view piece : fuzz::cut_into_pieces(stream, MAX_PIECES))
    read_piece(reader, piece, &outcome);
  return outcome;
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  const std::string_view stream = fuzz::as_text(data, size);
  fuzz::require(read_in_pieces(stream) == read_whole(stream), "the documents are those of the model");
  return 0;
}
