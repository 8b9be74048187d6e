#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * MessageCutter:
 *
 * Where a stream stands: between two messages, or somewhere in one. One thread at a time uses a cutter.
 */
typedef struct MessageCutter MessageCutter;

/**
 * MessageCutterState:
 * @MESSAGE_CUTTER_LENGTH: the next bytes belong to a message's length, of which there may be some
 * @MESSAGE_CUTTER_NEEDS_FRAME: the length is known, and message_cutter_make_frame() comes next
 * @MESSAGE_CUTTER_PAYLOAD: the next bytes belong to the payload
 * @MESSAGE_CUTTER_COMPLETE: message_cutter_take_frame() comes next
 *
 * What a cutter expects.
 */
typedef enum {
  MESSAGE_CUTTER_LENGTH,
  MESSAGE_CUTTER_NEEDS_FRAME,
  MESSAGE_CUTTER_PAYLOAD,
  MESSAGE_CUTTER_COMPLETE,
} MessageCutterState;

MessageCutter *message_cutter_new(const gchar *frame_start, const gchar *frame_end);

void message_cutter_free(MessageCutter *self);

void message_cutter_set_keeps_pieces(MessageCutter *self, gboolean keeps_pieces);

MessageCutterState message_cutter_get_state(const MessageCutter *self);

gboolean message_cutter_has_begun(const MessageCutter *self);

guint32 message_cutter_get_length(const MessageCutter *self);

gsize message_cutter_get_frame_size(const MessageCutter *self);

gboolean message_cutter_make_frame(MessageCutter *self);

guint8 *message_cutter_get_space(MessageCutter *self, gsize limit, gsize *size);

void message_cutter_add(MessageCutter *self, gsize count);

void message_cutter_end_piece(MessageCutter *self);

void message_cutter_discard(MessageCutter *self);

guint8 *message_cutter_take_frame(MessageCutter *self, gsize *size);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(MessageCutter, message_cutter_free)

G_END_DECLS
