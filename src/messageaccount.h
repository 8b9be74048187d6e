#pragma once

#include <glib-object.h>

G_BEGIN_DECLS

/**
 * MESSAGE_ACCOUNT_CLIENT_LIMIT:
 *
 * How many bytes a client may hold before its readers begin no further message.
 */
#define MESSAGE_ACCOUNT_CLIENT_LIMIT (8 * 1024 * 1024)

/**
 * MESSAGE_ACCOUNT_CLIENT_RESUME:
 *
 * To how many bytes a client that was beyond its limit has to come down before its readers begin messages
 * again. The distance to the limit keeps them from stopping and starting with every single message.
 */
#define MESSAGE_ACCOUNT_CLIENT_RESUME (4 * 1024 * 1024)

/**
 * MESSAGE_ACCOUNT_TOTAL_LIMIT:
 *
 * How many bytes all clients together may hold before no reader at all begins a message.
 */
#define MESSAGE_ACCOUNT_TOTAL_LIMIT (128 * 1024 * 1024)

/**
 * MESSAGE_ACCOUNT_MESSAGE_OVERHEAD:
 *
 * What a message costs beside its own bytes, which is most of the cost of a short one: its buffer, its memory
 * block and its place in a queue. Whoever charges a message adds this.
 */
#define MESSAGE_ACCOUNT_MESSAGE_OVERHEAD 512

/**
 * MessageAccount:
 *
 * What one client holds of the messages of its producers.
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
 * @owner: (transfer none): what message_reader_new() was given
 *
 * Called on the main thread, with no lock held, when a reader that was told to wait may ask again.
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
