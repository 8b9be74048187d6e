/* SPDX-License-Identifier: MIT */
#pragma once

#include <cstdint>
#include <glib.h>
#include <optional>
#include <string_view>

/* Documents of ONVIF metadata in RTP packets: their names in caps, and the way back from packets. */

namespace plugins
{

/* The encoding names, as they are in caps. */
constexpr const char *RTP_METADATA_ENCODING = "VND.ONVIF.METADATA";
constexpr const char *RTP_METADATA_GZIP_ENCODING = "VND.ONVIF.METADATA+GZIP";

constexpr int RTP_METADATA_CLOCK_RATE = 90000;

/* The longest document that is collected from packets, before and after it is expanded. It is as long as the
 * longest one that a client accepts from the daemon. */
constexpr gsize RTP_DOCUMENT_BYTES_MAX = 64 * 1024 * 1024;

/* Collects the packets of one stream to documents. A packet does not tell whether a document begins with it:
 * the one behind a document's last packet does. Where packets are missing, a document begins with a packet
 * that looks like it, and otherwise behind the next last packet. */
class RtpDocumentCollector
{
public:
  RtpDocumentCollector() = default;
  ~RtpDocumentCollector();
  RtpDocumentCollector(const RtpDocumentCollector &) = delete;
  RtpDocumentCollector &operator=(const RtpDocumentCollector &) = delete;

  void begin(bool is_gzip);
  void lose();
  GBytes *take(std::string_view payload, std::uint32_t time, bool is_last);
  std::uint64_t dropped() const;

private:
  void drop(std::uint32_t time);
  void drop_unfinished();
  bool skips(std::string_view payload, std::uint32_t time);
  GBytes *finish();

  enum class Position {
    BEGIN,    /* a document begins with the next packet */
    DOCUMENT, /* `bytes_` are the begin of a document */
    BEFORE,   /* of a stream: the rest of a document that began earlier is skipped, and is not a loss */
    LOST,     /* the rest of a document whose begin is missing is skipped, and is a loss */
  };

  Position position_ = Position::BEFORE;
  bool is_gzip_ = false;
  GByteArray *bytes_ = nullptr; /* the packets of the current document */
  std::uint32_t time_ = 0;      /* the RTP time of its last packet */
  std::uint64_t dropped_ = 0;
  std::optional<std::uint32_t>
      dropped_time_; /* the RTP time of the last part that was dropped, until a last packet */
};

} // namespace plugins
