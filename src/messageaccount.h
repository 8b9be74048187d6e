/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib-object.h>

G_BEGIN_DECLS

/**
 * MESSAGE_ACCOUNT_CLIENT_LIMIT:
 *
 * The bytes that a client can hold. While it holds more, its readers begin no message.
 */
#define MESSAGE_ACCOUNT_CLIENT_LIMIT (8 * 1024 * 1024)

/**
 * MESSAGE_ACCOUNT_CLIENT_RESUME:
 *
 * The bytes at which the readers of a client that exceeded its limit begin messages again. The distance to
 * the limit keeps them from pausing and resuming with each message.
 */
#define MESSAGE_ACCOUNT_CLIENT_RESUME (4 * 1024 * 1024)

/**
 * MESSAGE_ACCOUNT_TOTAL_LIMIT:
 *
 * The bytes that all clients together can hold. While they hold more, no reader begins a message.
 */
#define MESSAGE_ACCOUNT_TOTAL_LIMIT (128 * 1024 * 1024)

/**
 * MESSAGE_ACCOUNT_MESSAGE_OVERHEAD:
 *
 * The bytes that are counted for each message in addition to its own: for its buffer, its memory block and
 * its place in a queue.
 */
#define MESSAGE_ACCOUNT_MESSAGE_OVERHEAD 512

/**
 * MessageAccount:
 *
 * The bytes of producers' messages that one client holds.
 *
 * Any thread can call the functions of this component, except message_reader_may_begin(),
 * message_reader_begin() and message_reader_take_excess(), which are for the main thread.
 */
typedef struct MessageAccount MessageAccount;

/**
 * MessageReader:
 *
 * One of a client's streams, with at most one message that is being read.
 */
typedef struct MessageReader MessageReader;

/**
 * MessageReaderResumeFunc:
 * @owner: (transfer none): the owner that was passed to message_reader_new()
 *
 * Called on the main thread, with no lock held, when a waiting reader can begin a message.
 */
typedef void (*MessageReaderResumeFunc)(GObject *owner);

MessageAccount *message_account_new(void);

MessageAccount *message_account_ref(MessageAccount *account);

void message_account_unref(MessageAccount *account);

void message_account_set_queued(MessageAccount *account, gsize bytes);

gsize message_account_get_total(void);

MessageReader *message_reader_new(MessageAccount *account, GObject *owner, MessageReaderResumeFunc resume);

void message_reader_free(MessageReader *reader);

gboolean message_reader_may_begin(MessageReader *reader);

void message_reader_begin(MessageReader *reader, gsize bytes);

void message_reader_end(MessageReader *reader);

void message_reader_stop(MessageReader *reader);

GObject *message_reader_take_excess(MessageReader *reader);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(MessageAccount, message_account_unref)

G_END_DECLS
