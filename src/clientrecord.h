/* SPDX-License-Identifier: MIT */
#pragma once

#include <gst/gst.h>
#include <sys/types.h>

G_BEGIN_DECLS

/**
 * CLIENT_RECORD_MAX_VALUE_BYTES:
 *
 * The bytes of a request's value that a record keeps, and one more that shows that the value is longer.
 */
#define CLIENT_RECORD_MAX_VALUE_BYTES 256

/**
 * ClientRecord:
 *
 * What the daemon's status tells about one client. Any thread can call the functions of this component,
 * except client_record_add_documents(), which is for one thread at a time.
 */
typedef struct ClientRecord ClientRecord;

/**
 * ClientSnapshot:
 * @id: the number of the client, from 1 in the order of the requests
 * @pid: its process, by the credentials of its socket
 * @uid: its user, by the same
 * @is_streaming: whether the reply "OK" was sent
 * @request: the values of its request by their keys; never changes
 * @documents: the documents that were passed to the client's socket, also one that is being written
 * @bytes: their bytes
 * @queue_items: the documents that wait until the client reads
 * @queue_bytes: their bytes
 * @age_us: the time since the request was read
 * @last_document_age_us: the time since the last document, or -1 before the first one
 *
 * One client at a moment.
 */
typedef struct {
  guint64 id;
  pid_t pid;
  uid_t uid;
  gboolean is_streaming;
  GHashTable *request;
  guint64 documents;
  guint64 bytes;
  guint queue_items;
  guint queue_bytes;
  gint64 age_us;
  gint64 last_document_age_us;
} ClientSnapshot;

/**
 * ClientTotals:
 * @clients: the clients that had a record since the daemon's start, also those whose request was refused then
 * @documents: their documents
 * @bytes: the bytes of these
 *
 * Sums over all clients, including those that have left. They never decrease.
 */
typedef struct {
  guint64 clients;
  guint64 documents;
  guint64 bytes;
} ClientTotals;

ClientRecord *client_record_new(pid_t pid, uid_t uid, GHashTable *params);

ClientRecord *client_record_ref(ClientRecord *self);

void client_record_unref(ClientRecord *self);

void client_record_close(ClientRecord *self);

void client_record_set_queue(ClientRecord *self, GstElement *queue);

void client_record_set_streaming(ClientRecord *self);

void client_record_add_documents(ClientRecord *self, guint count, gsize bytes);

GPtrArray *client_record_list(ClientTotals *totals);

G_END_DECLS
