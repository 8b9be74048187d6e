/* SPDX-License-Identifier: MIT */
#include "rtpdocument.h"

#include "gzip.h"

#include <algorithm>

namespace plugins
{

namespace
{

constexpr std::string_view BYTE_ORDER_MARK = "\xef\xbb\xbf";
constexpr std::string_view WHITE_SPACE = " \t\r\n";
constexpr std::string_view XML_DECLARATION = "<?xml";
constexpr std::string_view ROOT = "MetadataStream";

/* The magic number, and the only method of compression. */
constexpr std::string_view GZIP_BEGIN = "\x1f\x8b\x08";

/* The name of the element whose tag the text begins with, without a prefix. */
std::string_view
first_name(std::string_view text)
{
  if (!text.starts_with('<')) {
    return {};
  }
  const std::string_view name = text.substr(1, text.find_first_of(" \t\r\n/>") - 1);
  return name.substr(name.find(':') + 1);
}

bool
begins_document(std::string_view payload, bool is_gzip)
{
  if (is_gzip) {
    return payload.starts_with(GZIP_BEGIN);
  }
  if (payload.starts_with(BYTE_ORDER_MARK)) {
    payload.remove_prefix(BYTE_ORDER_MARK.size());
  }
  payload.remove_prefix(std::min(payload.find_first_not_of(WHITE_SPACE), payload.size()));
  return payload.starts_with(XML_DECLARATION) || first_name(payload) == ROOT;
}

} // namespace

RtpDocumentCollector::~RtpDocumentCollector()
{
  g_clear_pointer(&bytes_, g_byte_array_unref);
}

/**
 * RtpDocumentCollector::begin:
 * @is_gzip: whether the documents are compressed
 *
 * Begins a stream and forgets an unfinished document. The count of dropped ones stays.
 */
void
RtpDocumentCollector::begin(bool is_gzip)
{
  g_clear_pointer(&bytes_, g_byte_array_unref);
  is_gzip_ = is_gzip;
  position_ = Position::BEFORE;
  dropped_time_.reset();
}

/**
 * RtpDocumentCollector::lose:
 *
 * Tells that packets before the next one are missing. An unfinished document is dropped.
 */
void
RtpDocumentCollector::lose()
{
  if (position_ == Position::DOCUMENT) {
    drop_unfinished();
  } else if (position_ == Position::BEGIN) {
    position_ = Position::LOST;
  }
}

/**
 * RtpDocumentCollector::take:
 * @payload: the payload of the next packet
 * @time: its RTP time
 * @is_last: whether it has the marker, and so ends a document
 *
 * Returns: (transfer full) (nullable): the document that is complete with this packet, never empty
 */
GBytes *
RtpDocumentCollector::take(std::string_view payload, std::uint32_t time, bool is_last)
{
  if (!skips(payload, time)) {
    time_ = time;
    g_byte_array_append(bytes_, reinterpret_cast<const guint8 *>(payload.data()),
                        static_cast<guint>(payload.size()));
  }
  if (!is_last) {
    return nullptr;
  }
  const bool is_complete = position_ == Position::DOCUMENT;
  position_ = Position::BEGIN;
  dropped_time_.reset();
  return is_complete ? finish() : nullptr;
}

/**
 * RtpDocumentCollector::dropped:
 *
 * Returns: how many documents were dropped because they were incomplete, too long or not valid gzip.
 * Documents of which no packet has arrived do not count.
 */
std::uint64_t
RtpDocumentCollector::dropped() const
{
  return dropped_;
}

/* Counts a part of an incomplete document. Several parts with the same RTP time are of one document, unless
 * one of them is its last. */
void
RtpDocumentCollector::drop(std::uint32_t time)
{
  if (dropped_time_ != time) {
    dropped_++;
    dropped_time_ = time;
  }
}

void
RtpDocumentCollector::drop_unfinished()
{
  g_clear_pointer(&bytes_, g_byte_array_unref);
  drop(time_);
  position_ = Position::LOST;
}

/* Decides whether the packet is of no document, and begins a document if it has to be. */
bool
RtpDocumentCollector::skips(std::string_view payload, std::uint32_t time)
{
  if (position_ == Position::DOCUMENT) {
    if (bytes_->len + payload.size() <= RTP_DOCUMENT_BYTES_MAX) {
      return false;
    }
    time_ = time;
    drop_unfinished();
    return true;
  }
  if (position_ != Position::BEGIN && !begins_document(payload, is_gzip_)) {
    if (position_ == Position::LOST) {
      drop(time);
    }
    return true;
  }
  position_ = Position::DOCUMENT;
  bytes_ = g_byte_array_new();
  return false;
}

GBytes *
RtpDocumentCollector::finish()
{
  g_autoptr(GBytes) document = g_byte_array_free_to_bytes(g_steal_pointer(&bytes_));
  if (is_gzip_ && g_bytes_get_size(document) > 0) {
    g_autoptr(GBytes) packed = g_steal_pointer(&document);
    document =
        gzip_expand(g_bytes_get_data(packed, nullptr), g_bytes_get_size(packed), RTP_DOCUMENT_BYTES_MAX);
    dropped_ += document == nullptr ? 1 : 0;
  }
  return document != nullptr && g_bytes_get_size(document) > 0 ? g_steal_pointer(&document) : nullptr;
}

} // namespace plugins
