/* SPDX-License-Identifier: MIT */
// Arbitrary bytes that an application writes to a channel, in pieces: the receiver and a simple model, which
// has all bytes at once, find the same messages. The input also determines the pieces.
#include "fuzz.h"
#include "receiver/messagesplitter.h"
#include "receiver/receiverlimits.h"

#include <cstring>
#include <string>

namespace
{

using receiver::MessageSplitter;

constexpr size_t MAX_PIECES = 64;
constexpr size_t LENGTH_BYTES = sizeof(guint32);

struct Outcome {
  std::vector<std::string> texts;
  MessageSplitter::Fault fault = MessageSplitter::Fault::NONE;
  bool has_unfinished = false;

  bool operator==(const Outcome &) const = default;
};

// The model. A text is UTF-8 if GLib finds nothing to replace in it.
bool
is_text(std::string_view bytes)
{
  if (bytes.find('\0') != std::string_view::npos)
    return false;
  g_autofree gchar *valid = g_utf8_make_valid(bytes.data(), static_cast<gssize>(bytes.size()));
  return bytes == valid;
}

Outcome
model(std::string_view bytes)
{
  Outcome outcome;
  while (bytes.size() >= LENGTH_BYTES) {
    guint32 length = 0;
    memcpy(&length, bytes.data(), sizeof length);
    if (length > RECEIVER_MAX_MESSAGE_BYTES) {
      outcome.fault = MessageSplitter::Fault::TOO_LONG;
      return outcome;
    }
    if (bytes.size() - LENGTH_BYTES < length)
      break;
    std::string_view text = bytes.substr(LENGTH_BYTES, length);
    if (!is_text(text)) {
      outcome.fault = MessageSplitter::Fault::NOT_TEXT;
      return outcome;
    }
    if (!text.empty())
      outcome.texts.emplace_back(text);
    bytes.remove_prefix(LENGTH_BYTES + length);
  }
  outcome.has_unfinished = !bytes.empty();
  return outcome;
}

Outcome
split(std::string_view bytes)
{
  MessageSplitter splitter;
  Outcome outcome;
  for (std::string_view piece : fuzz::cut_into_pieces(bytes, MAX_PIECES)) {
    outcome.fault = splitter.push(piece, [&outcome](const receiver::SharedText &text) {
      outcome.texts.emplace_back(receiver::shared_text_view(text));
    });
    if (outcome.fault != MessageSplitter::Fault::NONE)
      return outcome;
  }
  outcome.has_unfinished = splitter.has_unfinished();
  return outcome;
}

} // namespace

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  const std::string_view bytes = fuzz::as_text(data, size);
  fuzz::require(split(bytes) == model(bytes), "the messages are those of the model");
  fuzz::require(receiver::shared_text_counted_bytes() == 0, "no text is left");
  return 0;
}
