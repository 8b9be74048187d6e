/* SPDX-License-Identifier: MIT */
// The depayloader gets packets of any content. If their headers are valid, its documents are those of a model
// that reads whole runs of packets, with regular expressions and zlib.
#include "fuzz.h"
#include "rtpdepay.h"
#include "rtpdocument.h"

#include <gst/check/gstharness.h>
#include <string>
#include <zlib.h>

namespace
{

constexpr uint8_t IS_GZIP = 1;
constexpr uint8_t IS_RAW = 2; // whole packets instead of payloads

constexpr uint8_t IS_LAST = 1;
constexpr uint8_t IS_LOSS = 2; // the packet before is missing
constexpr uint8_t IS_LATE = 4; // a repetition of an earlier one
constexpr uint8_t NEW_TIME = 8;

constexpr const char *BEGIN =
    "\\A(\xef\xbb\xbf)?[ \\t\\r\\n]*<(\\?xml|([^ \\t\\r\\n/>:]*:)?MetadataStream([ \\t\\r\\n/>]|\\z))";
constexpr const char *GZIP_BEGIN = "\\A\x1f\x8b\x08";

using Documents = std::vector<std::string>;

struct Packet {
  std::string payload;
  uint8_t flags = 0;
  uint16_t number = 0;
  uint32_t time = 0;
};

struct Input {
  bool is_gzip = false;
  bool is_raw = false;
  std::vector<Packet> packets;
};

// Each packet is a byte of flags, a byte with its length, and the payload.
Input
read_input(std::string_view data)
{
  Input input;
  if (data.empty())
    return input;
  input.is_gzip = (data[0] & IS_GZIP) != 0;
  input.is_raw = (data[0] & IS_RAW) != 0;
  data.remove_prefix(1);
  uint16_t number = 1;
  uint32_t time = 0;
  while (data.size() >= 2) {
    Packet packet;
    packet.flags = static_cast<uint8_t>(data[0]);
    packet.payload = data.substr(2, static_cast<uint8_t>(data[1]));
    data.remove_prefix(2 + packet.payload.size());
    if ((packet.flags & IS_LATE) == 0)
      number = static_cast<uint16_t>(number + ((packet.flags & IS_LOSS) != 0 ? 2 : 1));
    packet.number = number;
    packet.time = time += (packet.flags & NEW_TIME) != 0 ? 1 : 0;
    input.packets.push_back(packet);
  }
  return input;
}

// The model

bool
matches(const char *pattern, const std::string &text)
{
  g_autoptr(GRegex) regex = g_regex_new(pattern, G_REGEX_RAW, GRegexMatchFlags(0), nullptr);
  return g_regex_match_full(regex, text.data(), static_cast<gssize>(text.size()), 0, GRegexMatchFlags(0),
                            nullptr, nullptr) != FALSE;
}

// The whole text, which must be exactly one member; empty for none.
std::string
expand(const std::string &packed)
{
  std::string text;
  z_stream stream = {};
  fuzz::require(inflateInit2(&stream, 31) == Z_OK, "zlib begins");
  stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(packed.data()));
  stream.avail_in = static_cast<uInt>(packed.size());
  int result = Z_OK;
  while (result == Z_OK) {
    char piece[4096];
    stream.next_out = reinterpret_cast<Bytef *>(piece);
    stream.avail_out = sizeof piece;
    result = inflate(&stream, Z_NO_FLUSH);
    text.append(piece, sizeof piece - stream.avail_out);
  }
  const bool is_whole = result == Z_STREAM_END && stream.avail_in == 0;
  inflateEnd(&stream);
  return is_whole ? text : "";
}

// Reads packets without a loss between them.
void
read_run(const std::vector<Packet> &packets, bool is_gzip, Documents *documents)
{
  bool is_known = false; // whether the next packet begins a document, or is in one
  std::string document;
  for (const Packet &packet : packets) {
    is_known = is_known || matches(is_gzip ? GZIP_BEGIN : BEGIN, packet.payload);
    if (is_known)
      document += packet.payload;
    if ((packet.flags & IS_LAST) == 0)
      continue;
    const std::string text = is_gzip ? expand(document) : document;
    if (!text.empty())
      documents->push_back(text);
    document.clear();
    is_known = true;
  }
}

Documents
read_all(const Input &input)
{
  Documents documents;
  std::vector<Packet> run;
  for (const Packet &packet : input.packets) {
    if ((packet.flags & IS_LATE) != 0 && !run.empty())
      continue;
    if ((packet.flags & IS_LOSS) != 0) {
      read_run(run, input.is_gzip, &documents);
      run.clear();
    }
    run.push_back(packet);
  }
  read_run(run, input.is_gzip, &documents);
  return documents;
}

// The element

GstBuffer *
new_buffer(std::string_view bytes)
{
  GstBuffer *buffer = gst_buffer_new_allocate(nullptr, bytes.size(), nullptr);
  gst_buffer_fill(buffer, 0, bytes.data(), bytes.size());
  return buffer;
}

GstBuffer *
make_packet(const Packet &packet)
{
  const guint8 header[] = {0x80,
                           static_cast<guint8>(96 | ((packet.flags & IS_LAST) != 0 ? 0x80 : 0)),
                           static_cast<guint8>(packet.number >> 8),
                           static_cast<guint8>(packet.number),
                           static_cast<guint8>(packet.time >> 24),
                           static_cast<guint8>(packet.time >> 16),
                           static_cast<guint8>(packet.time >> 8),
                           static_cast<guint8>(packet.time),
                           0,
                           0,
                           0,
                           1};
  return new_buffer(std::string(reinterpret_cast<const char *>(header), sizeof header) + packet.payload);
}

Documents
pull_all(GstHarness *harness)
{
  Documents documents;
  while (gst_harness_buffers_in_queue(harness) > 0) {
    g_autoptr(GstBuffer) buffer = gst_harness_pull(harness);
    std::string text(gst_buffer_get_size(buffer), '\0');
    gst_buffer_extract(buffer, 0, text.data(), text.size());
    fuzz::require(!text.empty() && text.size() <= plugins::RTP_DOCUMENT_BYTES_MAX, "documents are bounded");
    documents.push_back(text);
  }
  return documents;
}

Documents
depayload(const Input &input)
{
  auto *element = GST_ELEMENT(gst_object_ref_sink(g_object_new(TESSARD_TYPE_RTP_DEPAY, nullptr)));
  GstHarness *harness = gst_harness_new_with_element(element, "sink", "src");
  g_autoptr(GstCaps) caps = gst_caps_new_simple(
      "application/x-rtp", "media", G_TYPE_STRING, "application", "clock-rate", G_TYPE_INT,
      plugins::RTP_METADATA_CLOCK_RATE, "encoding-name", G_TYPE_STRING,
      input.is_gzip ? plugins::RTP_METADATA_GZIP_ENCODING : plugins::RTP_METADATA_ENCODING, nullptr);
  gst_harness_set_src_caps(harness, g_steal_pointer(&caps));
  for (const Packet &packet : input.packets)
    gst_harness_push(harness, input.is_raw ? new_buffer(packet.payload) : make_packet(packet));
  guint64 dropped = 0;
  g_object_get(element, "dropped", &dropped, nullptr);
  Documents documents = pull_all(harness);
  fuzz::require(documents.size() + dropped <= 2 * input.packets.size(),
                "each packet is counted at most twice");
  gst_harness_teardown(harness);
  gst_object_unref(element);
  return documents;
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  if (!gst_is_initialized())
    gst_init(nullptr, nullptr);
  const Input input = read_input(fuzz::as_text(data, size));
  const Documents documents = depayload(input);
  fuzz::require(input.is_raw || documents == read_all(input), "the documents are those of the model");
  return 0;
}
