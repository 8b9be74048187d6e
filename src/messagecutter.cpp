/* Cuts a stream of bytes into messages and puts each into its frame. It reads nothing itself: the reader asks
 * where the next bytes go and how many there may be, reads them to that place, and says how many came. So a
 * payload is read straight into its frame.
 *
 * Format: a message is the length of its payload, 32 bits in the host's byte order, and the payload. Its
 * frame is the payload between two fixed texts. A message with a length of 0 has no frame.
 *
 * Modes: a cutter that keeps pieces collects them until the message is complete. One that does not discards a
 * message whose bytes are not all there (docs/compatibility.md, "partial messages"): a length that is read
 * only in part counts as complete, with zeros for its other bytes (docs/compatibility.md, "short length"),
 * and behind a part of a payload the next part goes to the offset that is the size of that part
 * (docs/compatibility.md, "overlapping reads"). A part ends with a read that returns less than there was
 * space for, so the reader may divide a payload into any number of reads.
 */
#include "messagecutter.h"

#include <algorithm>
#include <string>
#include <utility>

/* A message as far as it has been read. */
struct Message {
  guint32 length; /* starts from zero: what a short read leaves out counts as zero */
  gsize length_read;
  guint8 *frame; /* NULL until it is made */
  gsize left;    /* how much of the payload is still to be read */
  gsize offset;  /* where in the payload it goes */
  gsize run;     /* how much of the payload has been read since a read came short */
};

struct MessageCutter {
  std::string frame_start;
  std::string frame_end;
  gboolean keeps_pieces;
  gsize asked; /* for how many bytes there is space; 0 when the reader has not asked */
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
  if (is_short && !self->keeps_pieces) {
    message->offset = std::exchange(message->run, 0);
  }
}

} // namespace

/**
 * message_cutter_new:
 * @frame_start: what stands before the payload in every frame
 * @frame_end: what stands behind it
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
 * @self: (transfer full): a cutter, with whatever message has begun
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
 * @keeps_pieces: whether a message may come in pieces
 *
 * Applies to the messages that follow. Warnings: that no message has begun is a precondition.
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
 * Returns: whether there is at least one byte of a message that has been neither taken nor discarded
 */
gboolean
message_cutter_has_begun(const MessageCutter *self)
{
  return self->message.length_read > 0;
}

/**
 * message_cutter_get_length:
 * @self: a cutter whose message has its length
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
 * @self: a cutter whose message has its length
 *
 * Returns: the size of the frame that a payload of this length takes
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
 * Allocates the frame with its two texts. Its payload is zero where no read puts anything. The caller has
 * checked the length before: any length can come.
 *
 * Warnings: that @self needs a frame is a precondition.
 *
 * Returns: %FALSE when there is no memory; the state is then as before
 */
gboolean
message_cutter_make_frame(MessageCutter *self)
{
  g_return_val_if_fail(message_cutter_get_state(self) == MESSAGE_CUTTER_NEEDS_FRAME, FALSE);

  Message *message = &self->message;

  message->frame = static_cast<guint8 *>(g_try_malloc0(message_cutter_get_frame_size(self)));
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
 * @limit: how many bytes of a payload to ask for at most, more than 0; a length is always asked for in full
 * @size: (out): how many bytes may come, at least one
 *
 * Says where the next bytes go. message_cutter_add() follows when some have come there.
 *
 * Warnings: that @self expects bytes and that @limit is not 0 are preconditions.
 *
 * Returns: (transfer none): the place, valid until the message is taken or discarded
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
    *size = self->asked = sizeof message->length - message->length_read;
    return reinterpret_cast<guint8 *>(&message->length) + message->length_read;
  }
  *size = self->asked = std::min(message->left, limit);
  return message->frame + self->frame_start.size() + message->offset;
}

/**
 * message_cutter_add:
 * @self: a cutter that has been asked for space
 * @count: how many bytes have come to the place that message_cutter_get_space() has named last, at least one
 *
 * Takes the bytes into the message, which changes the state when they complete the length or the payload.
 *
 * Warnings: that @count is not 0, and not more than there was space for, are preconditions.
 */
void
message_cutter_add(MessageCutter *self, gsize count)
{
  const gsize asked = std::exchange(self->asked, 0);

  g_return_if_fail(count > 0);
  g_return_if_fail(count <= asked);

  if (message_cutter_get_state(self) == MESSAGE_CUTTER_LENGTH) {
    add_to_length(self, count);
  } else {
    add_to_payload(self, count, count < asked);
  }
}

/**
 * message_cutter_end_piece:
 * @self: a cutter
 *
 * Says that nothing more is there at present. Discards the message unless @self keeps pieces. The end of a
 * reader's turn is no end of a piece.
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
 * Releases what there is of a message. The next byte is the first one of the next message.
 */
void
message_cutter_discard(MessageCutter *self)
{
  g_free(self->message.frame);
  self->message = {};
  self->asked = 0;
}

/**
 * message_cutter_take_frame:
 * @self: a cutter whose message is complete
 * @size: (out): the size of the frame
 *
 * The next byte is the first one of the next message.
 *
 * Warnings: that the message is complete is a precondition.
 *
 * Returns: (transfer full) (nullable): the frame, without a terminator, for g_free(); %NULL after a message
 *   with a length of 0
 */
guint8 *
message_cutter_take_frame(MessageCutter *self, gsize *size)
{
  *size = 0;
  g_return_val_if_fail(message_cutter_get_state(self) == MESSAGE_CUTTER_COMPLETE, nullptr);

  guint8 *frame = std::exchange(self->message.frame, nullptr);
  *size = frame != nullptr ? message_cutter_get_frame_size(self) : 0;
  message_cutter_discard(self);
  return frame;
}
