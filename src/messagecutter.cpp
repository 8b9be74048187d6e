/* SPDX-License-Identifier: MIT */
/* Cuts a stream of bytes into messages and puts each into its frame. The cutter has no I/O: it tells the
 * reader where to store the next bytes and how many, and the reader reports how many it has stored. So a
 * payload is read directly into its frame.
 *
 * Format: a message is the length of its payload, 32 bits in the host's byte order, and the payload. Its
 * frame is the payload between two fixed texts. A message with a length of 0 has no frame.
 *
 * Modes: a cutter that keeps pieces collects them until the message is complete. A cutter that does not
 * discards an incomplete message (docs/compatibility.md, "partial messages"). It completes a partly read
 * length with zeros (docs/compatibility.md, "short length"), and stores each further part of a payload at an
 * offset equal to the size of the part before it (docs/compatibility.md, "overlapping reads"). Only a read
 * that fills less than its space ends a part, so the reader can divide a payload into any number of reads.
 */
#include "messagecutter.h"

#include <algorithm>
#include <string>
#include <utility>

/* The current message. */
struct Message {
  guint32 length; /* zero before it is read, so that a short length is completed with zeros */
  gsize length_read;
  guint8 *frame; /* NULL until it is made */
  gsize left;    /* the number of payload bytes to read */
  gsize offset;  /* of the next read in the payload */
  gsize run;     /* the number of payload bytes since the last short read */
  gsize stored;  /* the end of the payload bytes that are stored */
};

struct MessageCutter {
  std::string frame_start;
  std::string frame_end;
  gboolean keeps_pieces;
  gsize space; /* the size that the reader last got; 0 when it has none */
  Message message;
};

namespace
{

void
add_to_length(MessageCutter *self, gsize count)
{
  Message *message = &self->message;

  message->length_read = self->keeps_pieces ? message->length_read + count : sizeof message->length;
}

void
add_to_payload(MessageCutter *self, gsize count, gboolean is_short)
{
  Message *message = &self->message;

  message->left -= count;
  message->offset += count;
  message->run += count;
  message->stored = std::max(message->stored, message->offset);
  if (is_short && !self->keeps_pieces) {
    message->offset = std::exchange(message->run, 0);
  }
}

} // namespace

/**
 * message_cutter_new:
 * @frame_start: the text before the payload in every frame
 * @frame_end: the text after it
 *
 * Returns: (transfer full): a cutter between two messages, which keeps no pieces
 */
MessageCutter *
message_cutter_new(const gchar *frame_start, const gchar *frame_end)
{
  return new MessageCutter{frame_start, frame_end, FALSE, 0, {}};
}

/**
 * message_cutter_free:
 * @self: (transfer full): a cutter, in any state
 */
void
message_cutter_free(MessageCutter *self)
{
  message_cutter_discard(self);
  delete self;
}

/**
 * message_cutter_set_keeps_pieces:
 * @self: a cutter
 * @keeps_pieces: whether pieces of a message are collected
 *
 * Applies to the following messages.
 *
 * Warnings: that no message has begun is a precondition.
 */
void
message_cutter_set_keeps_pieces(MessageCutter *self, gboolean keeps_pieces)
{
  g_return_if_fail(!message_cutter_has_begun(self));

  self->keeps_pieces = keeps_pieces;
}

/**
 * message_cutter_get_state:
 * @self: a cutter
 *
 * Returns: what @self expects
 */
MessageCutterState
message_cutter_get_state(const MessageCutter *self)
{
  const Message *message = &self->message;

  if (message->length_read < sizeof message->length) {
    return MESSAGE_CUTTER_LENGTH;
  }
  if (message->length > 0 && message->frame == nullptr) {
    return MESSAGE_CUTTER_NEEDS_FRAME;
  }
  return message->left > 0 ? MESSAGE_CUTTER_PAYLOAD : MESSAGE_CUTTER_COMPLETE;
}

/**
 * message_cutter_has_begun:
 * @self: a cutter
 *
 * Returns: whether at least one byte of the current message was added
 */
gboolean
message_cutter_has_begun(const MessageCutter *self)
{
  return self->message.length_read > 0;
}

/**
 * message_cutter_get_length:
 * @self: a cutter that has the message's length
 *
 * Returns: the length of the payload
 */
guint32
message_cutter_get_length(const MessageCutter *self)
{
  return self->message.length;
}

/**
 * message_cutter_get_frame_size:
 * @self: a cutter that has the message's length
 *
 * Returns: the size of the message's frame
 */
gsize
message_cutter_get_frame_size(const MessageCutter *self)
{
  return self->frame_start.size() + self->message.length + self->frame_end.size();
}

/**
 * message_cutter_make_frame:
 * @self: a cutter that needs a frame
 *
 * Allocates the frame with its two texts. Does not limit the length; the caller checks it before.
 *
 * Warnings: that @self needs a frame is a precondition.
 *
 * Returns: %FALSE without a change when there is no memory
 */
gboolean
message_cutter_make_frame(MessageCutter *self)
{
  g_return_val_if_fail(message_cutter_get_state(self) == MESSAGE_CUTTER_NEEDS_FRAME, FALSE);

  Message *message = &self->message;

  message->frame = static_cast<guint8 *>(g_try_malloc(message_cutter_get_frame_size(self)));
  if (message->frame == nullptr) {
    return FALSE;
  }
  guint8 *payload = std::copy(self->frame_start.begin(), self->frame_start.end(), message->frame);
  std::copy(self->frame_end.begin(), self->frame_end.end(), payload + message->length);
  message->left = message->length;
  return TRUE;
}

/**
 * message_cutter_get_space:
 * @self: a cutter that expects bytes of a length or of a payload
 * @limit: the largest number of payload bytes, at least 1; does not apply to the bytes of a length
 * @size: (out): the size of the space, at least 1
 *
 * Returns the space for the next bytes. When some are stored there, message_cutter_add() must be called.
 *
 * Warnings: that @self expects bytes and that @limit is not 0 are preconditions.
 *
 * Returns: (transfer none): the space, valid until the message is taken or discarded
 */
guint8 *
message_cutter_get_space(MessageCutter *self, gsize limit, gsize *size)
{
  const MessageCutterState state = message_cutter_get_state(self);
  Message *message = &self->message;

  *size = 0;
  g_return_val_if_fail(state == MESSAGE_CUTTER_LENGTH || state == MESSAGE_CUTTER_PAYLOAD, nullptr);
  g_return_val_if_fail(limit > 0, nullptr);

  if (state == MESSAGE_CUTTER_LENGTH) {
    *size = self->space = sizeof message->length - message->length_read;
    return reinterpret_cast<guint8 *>(&message->length) + message->length_read;
  }
  *size = self->space = std::min(message->left, limit);
  return message->frame + self->frame_start.size() + message->offset;
}

/**
 * message_cutter_add:
 * @self: a cutter that has returned space
 * @count: the number of bytes that were stored at the beginning of that space, at least 1
 *
 * Adds the bytes to the message. Changes the state when they complete the length or the payload.
 *
 * Warnings: "count > 0" and "count <= space" are preconditions.
 */
void
message_cutter_add(MessageCutter *self, gsize count)
{
  const gsize space = std::exchange(self->space, 0);

  g_return_if_fail(count > 0);
  g_return_if_fail(count <= space);

  if (message_cutter_get_state(self) == MESSAGE_CUTTER_LENGTH) {
    add_to_length(self, count);
  } else {
    add_to_payload(self, count, count < space);
  }
}

/**
 * message_cutter_end_piece:
 * @self: a cutter
 *
 * Called when there is no more data at present. Discards the message unless @self keeps pieces. Not called at
 * the end of a reader's turn.
 */
void
message_cutter_end_piece(MessageCutter *self)
{
  if (!self->keeps_pieces) {
    message_cutter_discard(self);
  }
}

/**
 * message_cutter_discard:
 * @self: a cutter
 *
 * Discards the current message. The next byte is the first one of the next message.
 */
void
message_cutter_discard(MessageCutter *self)
{
  g_free(self->message.frame);
  self->message = {};
  self->space = 0;
}

/**
 * message_cutter_take_frame:
 * @self: a cutter whose message is complete
 * @size: (out): the size of the frame
 *
 * Ends the message. The next byte is the first one of the next message. Zeros are at the end of a payload
 * whose parts overlapped.
 *
 * Warnings: that the message is complete is a precondition.
 *
 * Returns: (transfer full) (nullable): the frame, without a terminating NUL, for g_free(); %NULL for a
 * message with a length of 0
 */
guint8 *
message_cutter_take_frame(MessageCutter *self, gsize *size)
{
  *size = 0;
  g_return_val_if_fail(message_cutter_get_state(self) == MESSAGE_CUTTER_COMPLETE, nullptr);

  const Message *message = &self->message;
  guint8 *frame = message->frame;
  if (frame != nullptr) {
    std::fill_n(frame + self->frame_start.size() + message->stored, message->length - message->stored, 0);
    *size = message_cutter_get_frame_size(self);
  }
  self->message.frame = nullptr;
  message_cutter_discard(self);
  return frame;
}
