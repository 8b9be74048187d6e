/* SPDX-License-Identifier: MIT */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * REQUEST_READER_BYTES_PER_TURN:
 *
 * The bytes of one connection that the main loop reads in one turn.
 */
#define REQUEST_READER_BYTES_PER_TURN 4096

/**
 * RequestReader:
 *
 * The text of one client's request. The functions of a reader are for the main thread until it has called its
 * function, then for any one thread at a time.
 */
typedef struct RequestReader RequestReader;

/**
 * RequestReaderFunc:
 * @reader: (transfer none): the reader, which has stopped and can be freed, also by another thread
 * @user_data: the data that was passed to request_reader_new()
 *
 * Called once, on the main thread, when the reader ends.
 */
typedef void (*RequestReaderFunc)(RequestReader *reader, gpointer user_data);

RequestReader *request_reader_new(int fd, gsize max_bytes, guint timeout_ms, RequestReaderFunc on_end,
                                  gpointer user_data);

const gchar *request_reader_get_text(const RequestReader *self, gsize *length);

const gchar *request_reader_get_failure(const RequestReader *self);

void request_reader_free(RequestReader *self);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(RequestReader, request_reader_free)

G_END_DECLS
