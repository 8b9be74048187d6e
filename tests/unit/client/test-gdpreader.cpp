/* SPDX-License-Identifier: MIT */
#include "gdpreader.h"

#include "clienterror.h"
#include "fakedaemon.h"
#include "testhost.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <optional>

namespace
{

using namespace fakedaemon;
using std::string_literals::operator""s;

struct Outcome {
  std::vector<std::string> documents;
  std::optional<int> code; /* of the error; nothing without one */
  std::string message;
};

std::string
to_string(GBytes *bytes)
{
  gsize size = 0;
  const auto *data = static_cast<const char *>(g_bytes_get_data(bytes, &size));
  return {data, size};
}

/* Reads one piece up to an error. */
void
read_piece(GdpReader *reader, std::string_view piece, Outcome *outcome)
{
  while (!piece.empty() && !outcome->code.has_value()) {
    gsize taken = 0;
    g_autoptr(GBytes) document = nullptr;
    g_autoptr(GError) error = nullptr;
    if (!gdp_reader_take(reader, reinterpret_cast<const guint8 *>(piece.data()), piece.size(), &taken,
                         &document, &error)) {
      EXPECT_EQ(error->domain, METADATA_CLIENT_ERROR);
      EXPECT_EQ(document, nullptr);
      outcome->code = error->code;
      outcome->message = error->message;
      return;
    }
    EXPECT_TRUE(document != nullptr || taken == piece.size());
    if (document != nullptr)
      outcome->documents.push_back(to_string(document));
    piece.remove_prefix(taken);
  }
}

Outcome
read_in_pieces(std::string_view stream, gsize piece_size)
{
  g_autoptr(GdpReader) reader = gdp_reader_new();
  Outcome outcome;
  for (gsize begin = 0; begin < stream.size(); begin += piece_size)
    read_piece(reader, stream.substr(begin, piece_size), &outcome);
  return outcome;
}

Outcome
read_all(std::string_view stream)
{
  return read_in_pieces(stream, stream.size());
}

/* The stream of the payloader that the daemon uses. */
std::string
payload(const std::string &caps, const std::vector<std::string> &documents, const char *properties)
{
  g_autofree gchar *description = g_strdup_printf(
      "appsrc name=source format=time ! gdppay %s ! appsink name=sink sync=false", properties);
  g_autoptr(GstElement) pipeline = gst_parse_launch(description, nullptr);
  g_autoptr(GstElement) source = gst_bin_get_by_name(GST_BIN(pipeline), "source");
  g_autoptr(GstElement) sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
  g_autoptr(GstCaps) source_caps = gst_caps_from_string(caps.c_str());
  gst_app_src_set_caps(GST_APP_SRC(source), source_caps);
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  for (const std::string &document : documents) {
    GstBuffer *buffer = gst_buffer_new_allocate(nullptr, document.size(), nullptr);
    gst_buffer_fill(buffer, 0, document.data(), document.size());
    gst_app_src_push_buffer(GST_APP_SRC(source), buffer);
  }
  gst_app_src_end_of_stream(GST_APP_SRC(source));

  std::string stream;
  while (true) {
    g_autoptr(GstSample) sample = gst_app_sink_pull_sample(GST_APP_SINK(sink));
    if (sample == nullptr)
      break;
    gpointer data = nullptr;
    gsize size = 0;
    gst_buffer_extract_dup(gst_sample_get_buffer(sample), 0, G_MAXSIZE, &data, &size);
    stream.append(static_cast<const char *>(data), size);
    g_free(data);
  }
  gst_element_set_state(pipeline, GST_STATE_NULL);
  return stream;
}

class GdpReaderTest : public testhost::Fixture
{
};

/* A stream and the cause in the error. */
struct Malformed {
  const char *name;
  std::string stream;
  const char *cause;
};

std::ostream &
operator<<(std::ostream &stream, const Malformed &malformed)
{
  return stream << malformed.name;
}

class GdpReaderMalformedTest : public GdpReaderTest, public testing::WithParamInterface<Malformed>
{
};

std::string
change(std::string bytes, gsize offset, char byte)
{
  bytes.at(offset) = byte;
  return bytes;
}

} // namespace

TEST_F(GdpReaderTest, ReadsWhatThePayloaderWrites)
{
  const std::vector<std::string> documents = {"<first/>", std::string(100000, 'x'), "\xff\0y"s};
  for (const char *properties : {"", "crc-header=false", "crc-payload=true"}) {
    const std::string stream =
        payload("application/x-onvif-metadata, parsed=(boolean)true", documents, properties);
    for (gsize piece_size : {gsize(1), gsize(7), gsize(61), gsize(62), gsize(63), stream.size()}) {
      const Outcome outcome = read_in_pieces(stream, piece_size);
      EXPECT_EQ(outcome.documents, documents);
      EXPECT_EQ(outcome.code, std::nullopt);
    }
  }
}

TEST_F(GdpReaderTest, HasTheCapsOfTheStream)
{
  g_autoptr(GdpReader) reader = gdp_reader_new();
  Outcome outcome;
  EXPECT_EQ(gdp_reader_get_caps(reader), nullptr);
  read_piece(reader, stream_start(), &outcome);
  EXPECT_STREQ(gdp_reader_get_caps(reader), "application/x-onvif-metadata");
  read_piece(reader, stream_start("application/x-onvif-metadata, encoding=(string)xml"), &outcome);
  EXPECT_STREQ(gdp_reader_get_caps(reader), "application/x-onvif-metadata, encoding=(string)xml");
  EXPECT_EQ(outcome.code, std::nullopt);
}

TEST_F(GdpReaderTest, StopsBehindADocument)
{
  const std::string bytes = stream_start() + document("<a/>");
  const std::string stream = bytes + document("<b/>");
  g_autoptr(GdpReader) reader = gdp_reader_new();
  g_autoptr(GBytes) read = nullptr;
  gsize taken = 0;
  ASSERT_TRUE(gdp_reader_take(reader, reinterpret_cast<const guint8 *>(stream.data()), stream.size(), &taken,
                              &read, nullptr));
  EXPECT_EQ(taken, bytes.size());
  EXPECT_EQ(to_string(read), "<a/>");
}

TEST_F(GdpReaderTest, SkipsEventsAndEmptyBuffers)
{
  const Outcome outcome = read_all(stream_start() + document("") + packet(64, "") +
                                   packet(65535, "any\0thing"s) + document("<a/>"));
  EXPECT_EQ(outcome.documents, std::vector<std::string>{"<a/>"});
  EXPECT_EQ(outcome.code, std::nullopt);
}

TEST_F(GdpReaderTest, EndsWithTheEventOfTheEnd)
{
  const Outcome outcome =
      read_all(stream_start() + document("<a/>") + packet(END_OF_STREAM, "") + document("<b/>"));
  EXPECT_EQ(outcome.documents, std::vector<std::string>{"<a/>"});
  EXPECT_EQ(outcome.code, METADATA_CLIENT_ERROR_ENDED);
  EXPECT_EQ(outcome.message, "The daemon ended the stream.");
}

TEST_F(GdpReaderTest, ReadsCapsOfTheGreatestLength)
{
  std::string caps = "application/x-onvif-metadata, a=";
  caps.resize(GDP_READER_MAX_CAPS_BYTES - 1, 'x');
  EXPECT_EQ(read_all(stream_start(caps) + document("<a/>")).documents, std::vector<std::string>{"<a/>"});
}

TEST_F(GdpReaderTest, ReadsDocumentsUpToTheLimit)
{
  const std::string begin = stream_start();
  const std::string text(GDP_READER_MAX_DOCUMENT_BYTES - begin.size() - HEADER_BYTES, 'x');
  Outcome outcome = read_in_pieces(begin + packet(BUFFER, text, 0) + document("<a/>"), 65536);
  EXPECT_EQ(outcome.documents, (std::vector<std::string>{text, "<a/>"}));
  EXPECT_EQ(outcome.code, std::nullopt);

  outcome = read_in_pieces(begin + packet(BUFFER, text + 'x', 0), 65536);
  EXPECT_EQ(outcome.documents, std::vector<std::string>());
  EXPECT_EQ(outcome.code, METADATA_CLIENT_ERROR_MALFORMED);
  EXPECT_EQ(outcome.message, "The daemon sent more than 67108864 bytes without completing a document.");
}

TEST_F(GdpReaderTest, CountsPacketsWithoutADocument)
{
  const std::string event = packet(STREAM_START, std::string(1024 * 1024, 'x'), 0);
  g_autoptr(GdpReader) reader = gdp_reader_new();
  Outcome outcome;
  for (int i = 0; i < 63; i++)
    read_piece(reader, event, &outcome);
  EXPECT_EQ(outcome.code, std::nullopt);
  read_piece(reader, event, &outcome);
  EXPECT_EQ(outcome.code, METADATA_CLIENT_ERROR_MALFORMED);
}

TEST_P(GdpReaderMalformedTest, IsRefused)
{
  for (gsize piece_size : {gsize(1), GetParam().stream.size()}) {
    const Outcome outcome = read_in_pieces(GetParam().stream, piece_size);
    EXPECT_EQ(outcome.documents, std::vector<std::string>());
    EXPECT_EQ(outcome.code, METADATA_CLIENT_ERROR_MALFORMED);
    EXPECT_EQ(outcome.message, std::string("The daemon's stream is malformed: ") + GetParam().cause);
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, GdpReaderMalformedTest,
    testing::Values(
        Malformed{"zeros", std::string(62, '\0'), "a packet has an unknown version."},
        Malformed{"ones", std::string(62, '\xff'), "a packet has an unknown version."},
        Malformed{"major_version", change(stream_start(), 0, 0), "a packet has an unknown version."},
        Malformed{"minor_version", change(stream_start(), 1, 1), "a packet has an unknown version."},
        Malformed{"header", change(stream_start(), 20, 1), "the checksum of a packet's header is wrong."},
        Malformed{"payload", change(packet(CAPS, METADATA_CAPS, PAYLOAD_CHECKSUM), 70, 'x'),
                  "the checksum of a packet's payload is wrong."},
        Malformed{"event_payload", change(packet(STREAM_START, "xyz", PAYLOAD_CHECKSUM), 63, 'x'),
                  "the checksum of a packet's payload is wrong."},
        Malformed{"no_type", packet(0, ""), "a packet has an unknown type."},
        Malformed{"unknown_type", packet(63, ""), "a packet has an unknown type."},
        Malformed{"no_caps", document("<a/>"), "a document precedes the caps."},
        Malformed{"long_caps", stream_start(std::string(GDP_READER_MAX_CAPS_BYTES, 'x')),
                  "the caps are longer than 4096 bytes."},
        Malformed{"no_text_of_caps", packet(CAPS, ""), "the caps are not those of metadata."},
        Malformed{"empty_caps", stream_start(""), "the caps are not those of metadata."},
        Malformed{"other_caps", stream_start("application/x-other"), "the caps are not those of metadata."},
        Malformed{"longer_name", stream_start("application/x-onvif-metadata-fragment"),
                  "the caps are not those of metadata."},
        Malformed{"nested_caps", stream_start("application/x-onvif-metadata, a={1}"),
                  "the caps are not those of metadata."},
        Malformed{"caps_not_utf8", stream_start("application/x-onvif-metadata, a=\xff"),
                  "the caps are not those of metadata."}),
    testing::PrintToStringParamName());
