/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * MessageCutter:
 *
 * The position in a stream: between two messages, or inside one. Any thread can call the functions of this
 * component, one at a time for one cutter.
 */
typedef struct MessageCutter MessageCutter;

/**
 * MessageCutterState:
 * @MESSAGE_CUTTER_LENGTH: bytes of a message's length
 * @MESSAGE_CUTTER_NEEDS_FRAME: a call of message_cutter_make_frame(); the length is known
 * @MESSAGE_CUTTER_PAYLOAD: bytes of the payload
 * @MESSAGE_CUTTER_COMPLETE: a call of message_cutter_take_frame()
 *
 * What a cutter expects next.
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
